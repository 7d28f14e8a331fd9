/* The service manager. Platform contract: another platform supplies OvuServiceStartService under this name,
 * and may leave OvuServiceReport and OvuServiceAlive out. */
#ifndef QEL_PLATFORM_SERVICE_H
#define QEL_PLATFORM_SERVICE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { OVU_CALLBACK_NOTIFY_SERVICE_STOP = 0, OVU_CALLBACK_NOTIFY_SERVICE_SHUTDOWN = 1 };

typedef void (*OvuServiceCallback)(uint32_t event);

/* Registers the process as the service `name`. To be called once, before the process starts other threads.
 * From then on the manager calls `callback` on a thread of its own, with one of the notices above, when the
 * service is to stop or the host goes down. The callback may end the process; other threads may be anywhere
 * then. The three numbers belong to the manager; the daemon passes 1, 1 and 3. Returns 0 or an error number;
 * without registration no notice ever comes. */
int OvuServiceStartService(const char* name, uint32_t first, uint32_t second, OvuServiceCallback callback,
                           uint32_t third);

enum { OVU_SERVICE_STARTING = 0, OVU_SERVICE_READY = 1 };

/* Tells a manager that waits for the start how that gets on. OVU_SERVICE_STARTING: the start is busy with
 * `text`, for at most `timeMs` milliseconds from now. OVU_SERVICE_READY: the service serves, and `timeMs` is
 * 0; a start that fails never gets there. Does not block, and reports no failure. From any thread.
 *
 * Not every manager wants to know, so the reference is weak: without this function the daemon tells
 * nothing. */
void OvuServiceReport(uint32_t state, const char* text, uint32_t timeMs) __attribute__((weak));

/* The main loop turns: it says so in every turn, always on the same thread. What of this is passed on to a
 * manager that watches over the service, and how often, is the platform's matter; a call that has nothing to
 * pass on must cost next to nothing. Does not block, and reports no failure. The reference is weak, too:
 * without this function nobody notices a loop that hangs. */
void OvuServiceAlive(void) __attribute__((weak));

#ifdef __cplusplus
}
#endif

#endif
