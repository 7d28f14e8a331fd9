/* Fields of a line in the diagnostics log. An addition to diag.h that a platform may leave out: the reference
 * is weak, and without the function the daemon tells its lines alone. */
#ifndef QEL_PLATFORM_DIAG_FIELDS_H
#define QEL_PLATFORM_DIAG_FIELDS_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct OvuDiagField {
    const char* name;  /* capital letters, digits and underscores; NUL-terminated */
    const char* value; /* any bytes */
    size_t length;
};

/* The line that this thread adds next (OvuDiagAddLogEntry) has these fields besides; the ones after it have
 * none. Nothing is copied: they are to stay until then. */
void OvuDiagSetFields(const struct OvuDiagField* fields, size_t count) __attribute__((weak));

#ifdef __cplusplus
}
#endif

#endif
