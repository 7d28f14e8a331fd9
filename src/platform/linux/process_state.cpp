// Process state: whoever holds the lock on "process.<name>" runs. The kernel frees the lock when the process
// dies.
#include "platform/linux/CRuntimeDirectory.h"
#include "platform/linux/errors.h"

#include <algorithm>
#include <fcntl.h>
#include <mutex>
#include <sys/file.h>
#include <vector>

namespace {

// Held open for the life of the process; never destroyed, for another thread may be ending the process
// meanwhile.
struct SClaims {
    std::mutex m_oMutex;
    std::vector<CFileDescriptor> m_oHeld;
};

SClaims& claims() {
    static SClaims& instance = *new SClaims;
    return instance;
}

int claim(const std::string& name, int& state) {
    CRuntimeDirectory directory;
    if (const int error = directory.open()) {
        return error;
    }
    const std::lock_guard<std::mutex> guard(claims().m_oMutex);
    std::vector<CFileDescriptor>& held = claims().m_oHeld;
    CFileDescriptor file = directory.openOrCreateFile(name);
    if (!file) {
        return lastError();
    }
    if (flock(file.get(), LOCK_EX | LOCK_NB) == 0) {
        held.push_back(std::move(file));
        state = OS_PROCESS_NOT_RUNNING;
        return 0;
    }
    if (errno != EWOULDBLOCK) {
        return lastError();
    }
    const bool ours = std::any_of(held.begin(), held.end(), [&](const CFileDescriptor& own) {
        return directory.isSameFile(name, own.get());
    });
    state = ours ? OS_PROCESS_NOT_RUNNING : OS_PROCESS_RUNNING;
    return 0;
}

} // namespace

int osGetProcessState(const char* name, int* state) {
    if (!isFileNamePart(name) || state == nullptr) {
        return EINVAL;
    }
    return guarded([&] { return claim(std::string("process.") + name, *state); });
}
