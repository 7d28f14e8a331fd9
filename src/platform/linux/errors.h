// Error numbers as the platform contract wants them: those of errno, with two exceptions.
#ifndef QEL_PLATFORM_LINUX_ERRORS_H
#define QEL_PLATFORM_LINUX_ERRORS_H

#include "platform/os.h"

#include <cerrno>
#include <new>

static_assert(OS_ERROR_EXISTS == EPIPE, "the number that errno has for something else");

// A failure is never 0, and never OS_ERROR_EXISTS, which means that an event exists. On Linux that is the
// number of EPIPE, so a broken pipe is reported as ECONNRESET, which says the same to a caller.
inline int errorNumber(int error) {
    switch (error) {
    case 0:
        return EIO;
    case OS_ERROR_EXISTS:
        return ECONNRESET;
    default:
        return error;
    }
}

// The error number of the system call that has just failed. To be called before anything else can
// change errno.
inline int lastError() {
    return errorNumber(errno);
}

// Runs an operation that returns an error number. The functions of the contract are C, so no exception may
// leave them.
template <typename Operation>
int guarded(Operation operation) noexcept {
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    } catch (...) {
        return EIO;
    }
}

#endif
