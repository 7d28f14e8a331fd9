// Which process has which handle, as the kernel knows it.
//
// The file "handles" in the runtime directory is empty. It is there for its record locks (fcntl(2)): the
// kernel keeps them with the id of the process that holds them, and frees them when that ends, however it
// ends. A process locks two bytes far behind the file's end. The byte at its handle keeps everybody else from
// taking that handle. The byte at its handle within the 4 GiB that belong to its process id tells its handle
// to who knows the id, say from a connection. Neither can be held for another process, so nobody speaks under
// the handle of another.
//
// A handle is a number drawn at random and not the process id, which the kernel gives to a new process some
// time after the old one's end: a message for the dead would reach the newcomer.
#ifndef QEL_PLATFORM_LINUX_CMFWHANDLES_H
#define QEL_PLATFORM_LINUX_CMFWHANDLES_H

#include "platform/linux/CRuntimeDirectory.h"

#include <cstdint>
#include <sys/types.h>

// A number that no process has had before, but for a chance of one in 2^31 for each that anybody remembers:
// not 0, and below 2^31, so that it prints alike however it is printed. Not thread-safe.
uint32_t drawMfwHandle();

// Only one object of a process may have the file open: closing the file frees all of the process's locks on
// it, also those that were taken by way of another descriptor. Not thread-safe.
class CMfwHandles {
public:
    // Takes `handle` for this process. EADDRINUSE: another has it.
    [[nodiscard]] int take(const CRuntimeDirectory& directory, uint32_t handle);

    // Gives it back. Harmless if there is none.
    void giveBack() { m_oFile.close(); }

    // The handle of a process, or OVU_MFW_NO_HANDLE if it has none here. Two system calls.
    uint32_t handleOf(pid_t process) const;

private:
    [[nodiscard]] int lock(off_t byte) const;

    CFileDescriptor m_oFile;
    uint32_t m_nOwn = 0;
};

#endif
