/* The diagnostics log. Platform contract: another platform supplies these functions under these names.
 *
 * Both functions may be called from any thread and do not block: a line that cannot be taken at once is an
 * error number, and lost. They must fail cheaply, since a registration that failed is tried again for every
 * line that is logged. While it fails, the daemon writes its text log instead. */
#ifndef QEL_PLATFORM_DIAG_H
#define QEL_PLATFORM_DIAG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Registers a module under three names with the name of its log. 0: *handle is the module's handle,
 * which is never 0 and valid until the process ends. Otherwise an error number: there are no
 * diagnostics, or not at present. */
int OvuDiagRegisterModule(const char* name1, const char* name2, const char* name3, const char* logName,
                          uint32_t* handle);

/* Adds one line. `kind` belongs to the service behind it (the daemon passes 2); `severity` is 1 error, 2
 * warning, 4 information; `event` is a five-digit event number (docs/events.md); `text` is NUL-terminated,
 * and copied. 0 or an error number. */
int OvuDiagAddLogEntry(uint32_t handle, uint32_t kind, uint16_t severity, uint32_t event, const char* text);

#ifdef __cplusplus
}
#endif

#endif
