/* The operating-system abstraction that the daemon needs: process state, named events and the lightweight
 * mutex. Platform contract: another platform supplies these functions under these names.
 *
 * Every function returns 0 for success and an error number otherwise; none throws or ends the process.
 * Handles are unsigned 32-bit numbers; all ones means none. The appliance's `unsigned long` is uint32_t here,
 * so that handles and printed texts are the same on 32- and 64-bit hosts. All functions may be called from
 * any thread, and any thread may end the process (exit) meanwhile. */
#ifndef QEL_PLATFORM_OS_H
#define QEL_PLATFORM_OS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define OS_EVENT_NONE UINT32_C(0xFFFFFFFF)

enum {
    OS_ERROR_EXISTS = 32 /* osCreateEvent: an event of that name exists; no other failure has this number */
};

enum { OS_PROCESS_RUNNING = 1, OS_PROCESS_NOT_RUNNING = 2 };

/* Tells whether another process runs under the instance name `name`. The answer OS_PROCESS_NOT_RUNNING claims
 * the name for the calling process, atomically: of two that ask at the same moment, one is told
 * OS_PROCESS_RUNNING. The claim ends with the process, however it ends. The process that holds the name is
 * told OS_PROCESS_NOT_RUNNING each time. On failure *state is left as it was. Does not block. */
int osGetProcessState(const char* name, int* state);

/* Creates the event `name` and opens it; `flags` is 0. OS_ERROR_EXISTS: there is one already, perhaps
 * left by a process that died. On failure *handle is left as it was. The event outlives its creator,
 * until it is killed. */
int osCreateEvent(const char* name, uint32_t flags, uint32_t* handle);

/* Opens the existing event `name`, whoever created it. On failure *handle is left as it was. */
int osOpenEvent(const char* name, uint32_t* handle);

/* Signals the event: one waiting receiver returns, or the next one if none waits. Signals that
 * nobody has received yet count as one. They are lost when the last process that has the event open
 * ends. Does not block. */
int osSendEvent(uint32_t handle);

/* Waits at most `waitMs` milliseconds for the event. 0: it was signalled, and the signal is used up. Any
 * other value: it was not. An invalid handle is reported only when the time is up, so that a loop around
 * this call cannot spin. */
int osReceiveEvent(uint32_t handle, uint32_t waitMs);

/* Closes the handle and removes the event's name, unless the name means a newer event by now. A receiver that
 * waits on the event in another thread returns with an error when its time is up. */
int osKillEvent(uint32_t handle);

/* A lightweight mutex is one 32-bit word and nothing else, for the threads of one process. It is not
 * recursive, and whoever has locked it unlocks it. Clean-up releases nothing that another thread could still
 * need, so a mutex of static storage may be cleaned up at the end of the process while it is in use. */
typedef uint32_t osLwtMutex_t;

int osInitializeLwtMutex(osLwtMutex_t* mutex);
int osCleanupLwtMutex(osLwtMutex_t* mutex);
int osLockLwtMutex(osLwtMutex_t* mutex);    /* blocks until the mutex is the caller's */
int osTryLockLwtMutex(osLwtMutex_t* mutex); /* an error number at once where another holds it */
int osUnlockLwtMutex(osLwtMutex_t* mutex);

#ifdef __cplusplus
}
#endif

#endif
