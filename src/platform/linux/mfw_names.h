// Who has an endpoint, and under which process name: the file "name.<handle>" holds the name, and its owner
// holds a lock on it for as long as it lives. A handle is the process's id.
//
// The rule that keeps this exact with no server: whoever takes away a file "name.<handle>" holds the
// exclusive lock on it and has seen, with the lock held, that the name still means that file. The socket
// "mfw.<handle>" belongs to whoever holds the lock on the file beside it.
#ifndef QEL_PLATFORM_LINUX_MFW_NAMES_H
#define QEL_PLATFORM_LINUX_MFW_NAMES_H

#include "platform/linux/CRuntimeDirectory.h"

#include <cstdint>
#include <string>

std::string mfwSocketName(uint32_t handle);

// This process's own name: QEL_PROCESS_NAME in the environment, else that of its program.
std::string ownProcessName();

// This process's place among the names, from claim() to withdraw(). Where the process dies first, the next
// one that looks clears away what it left.
class CMfwNameClaim {
public:
    // Takes the lock for `handle` and removes what a dead process of the same id left. Nobody finds it yet.
    [[nodiscard]] int claim(const CRuntimeDirectory& directory, uint32_t handle);

    // From here on the process is found under `name`.
    [[nodiscard]] int publish(const std::string& name);

    // Removes the file, the socket and the lock.
    void withdraw(const CRuntimeDirectory& directory);

private:
    uint32_t m_nHandle = 0;
    CFileDescriptor m_oLocked;
};

// The lowest handle of the living processes of that name. ESRCH: there is none. Removes what dead ones left.
[[nodiscard]] int findProcess(const CRuntimeDirectory& directory, const std::string& name, uint32_t& handle);

#endif
