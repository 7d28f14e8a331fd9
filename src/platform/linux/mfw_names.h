// Who has an endpoint, and under which process name. The file "name.<handle>" holds the name, and its owner
// holds a lock on it (flock(2)) for as long as it lives. While it is empty, its owner is about to write it.
//
// There is no server to keep this exact; rules do it. Who makes these files has taken the handle
// (CMfwHandles.h). Whoever removes a file "name.<handle>" holds the exclusive lock on it, and has seen, with
// the lock held, that the name still means that file. The socket "mfw.<handle>" belongs to whoever holds the
// lock on the file beside it.
#ifndef QEL_PLATFORM_LINUX_MFW_NAMES_H
#define QEL_PLATFORM_LINUX_MFW_NAMES_H

#include "platform/linux/CRuntimeDirectory.h"

#include <cstdint>
#include <string>

std::string mfwSocketName(uint32_t handle);

// This process's own name: QEL_PROCESS_NAME in the environment, else that of its program. Reads the
// environment, so it must not run while another thread changes that.
std::string ownProcessName();

// This process's place among the names: claim(), then publish(), at the end withdraw(). If the process dies
// instead, the kernel frees its lock, and the next one that looks clears away what is left. Not thread-safe.
class CMfwNameClaim {
public:
    // Makes the file of `handle`, which the process has taken, and locks it. Nobody finds the process by its
    // name yet. EADDRINUSE: there is a file of that name.
    [[nodiscard]] int claim(const CRuntimeDirectory& directory, uint32_t handle);

    // From here on the process is found under `name`, so its socket must be listening already.
    [[nodiscard]] int publish(const std::string& name) const;

    // Whether the file is still found at the directory's path. False also if there is
    // no claim. One system call.
    [[nodiscard]] bool isInPlace() const;

    // Removes file and socket, and frees the lock. Harmless if there is no claim.
    void withdraw(const CRuntimeDirectory& directory);

private:
    uint32_t m_nHandle = 0;
    std::string m_sPath;
    CFileDescriptor m_oLocked;
    dev_t m_nDevice = 0; // of the locked file, and its inode
    ino_t m_nInode = 0;
};

// The lowest handle of the living processes of that name. ESRCH: there is none. Also removes what dead
// processes have left. Costs about five system calls for each process that has an endpoint. Does not block.
[[nodiscard]] int findProcess(const CRuntimeDirectory& directory, const std::string& name, uint32_t& handle);

// Whether `file`, of the directory, holds that name.
[[nodiscard]] bool isNameFileOf(const CRuntimeDirectory& directory, const std::string& file,
                                const std::string& name);

#endif
