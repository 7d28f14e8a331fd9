// Process state: a process runs as long as it holds the lock on "process.<name>". It is a lock of flock(2):
// the kernel frees it when the process ends, however it ends, and other descriptors of the file do not matter
// (a POSIX lock of fcntl(2) would go when any of them is closed). The file is never removed, so all who ask
// mean the same one.
#include "platform/linux/CRuntimeDirectory.h"
#include "platform/linux/errors.h"

#include <algorithm>
#include <fcntl.h>
#include <mutex>
#include <sys/file.h>
#include <vector>

namespace {

// The locked files of this process, open as long as it lives. Never destroyed, since another thread may be
// ending the process meanwhile.
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
    // Two threads of this process that ask for one name conflict like two processes. The second one must find
    // the first one's file in the list, so lock and list change together.
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
    // The lock is taken. By ourselves? Then the name is ours, and the answer is the same as the first time.
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
