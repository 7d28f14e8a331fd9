/* The diagnostics log. Platform contract: another platform supplies these functions under these names. Both
 * may be called from any thread, do not block, and fail cheaply: where registration fails, it is tried again
 * for every line that is logged. */
#ifndef QEL_PLATFORM_DIAG_H
#define QEL_PLATFORM_DIAG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Registers a module under three names with the name of its log. 0: *handle is the module's handle, never 0.
 * Otherwise an error number: diagnostics are not there, or not now. */
int OvuDiagRegisterModule(const char* name1, const char* name2, const char* name3, const char* logName,
                          uint32_t* handle);

/* Adds one line. `kind` is the service's own (the daemon passes 2); `severity` is 1 error, 2 warning,
 * 4 information; `event` a five-digit event number; `text` NUL-terminated, copied. */
int OvuDiagAddLogEntry(uint32_t handle, uint32_t kind, uint16_t severity, uint32_t event, const char* text);

#ifdef __cplusplus
}
#endif

#endif
