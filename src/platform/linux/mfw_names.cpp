#include "platform/linux/mfw_names.h"

#include "platform/linux/errors.h"

#include <charconv>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <sys/file.h>
#include <thread>

namespace {

constexpr std::string_view sNamePrefix = "name.";

// Whoever clears away after a dead process holds its lock for some system calls only.
constexpr int nClaimAttempts = 500;
constexpr std::chrono::milliseconds oClaimPause{1};

std::string nameFile(uint32_t handle) {
    return std::string(sNamePrefix) + std::to_string(handle);
}

// Only the one spelling that nameFile() makes: "name.007" would be another file than that of process 7.
std::optional<uint32_t> handleOf(const std::string& file) {
    uint32_t handle = 0;
    const char* end = file.data() + file.size();
    const auto parsed = std::from_chars(file.data() + sNamePrefix.size(), end, handle);
    const bool whole = parsed.ec == std::errc() && parsed.ptr == end && file == nameFile(handle);
    return whole ? std::optional(handle) : std::nullopt;
}

// To be called with the exclusive lock on the file that `lockedFd` has open. Without the comparison a file
// that another process has meanwhile made under the name could be removed. The socket goes first: with the
// file gone, a new owner may bind it at once.
void removeIfSame(const CRuntimeDirectory& directory, uint32_t handle, int lockedFd) {
    if (directory.isSameFile(nameFile(handle), lockedFd)) {
        directory.remove(mfwSocketName(handle));
        directory.remove(nameFile(handle));
    }
}

// The owner's lock is exclusive. A question with a shared one lets several processes look at the same time.
bool isAlive(int fd) {
    return flock(fd, LOCK_SH | LOCK_NB) != 0;
}

std::string readName(int fd) {
    char text[256];
    const ssize_t size = pread(fd, text, sizeof text, 0);
    return size > 0 ? std::string(text, static_cast<size_t>(size)) : std::string();
}

} // namespace

std::string mfwSocketName(uint32_t handle) {
    return "mfw." + std::to_string(handle);
}

std::string ownProcessName() {
    const char* name = std::getenv("QEL_PROCESS_NAME");
    return name != nullptr && *name != '\0' ? name : program_invocation_short_name;
}

// Each turn either ends in a lock on a fresh file that has the name, or begins again: somebody else held the
// lock, there was a dead process's file, or the new file was cleared away before it was locked. An flock
// belongs to the open file, not to the process (flock(2)), so it also holds against another endpoint of this
// very process.
int CMfwNameClaim::claim(const CRuntimeDirectory& directory, uint32_t handle) {
    const std::string file = nameFile(handle);
    for (int attempt = 0; attempt < nClaimAttempts; ++attempt) {
        CFileDescriptor found = directory.openFile(file, O_RDWR, S_IFREG);
        const bool stale = static_cast<bool>(found);
        CFileDescriptor opened = stale ? std::move(found) : directory.openOrCreateFile(file);
        if (!opened) {
            return lastError();
        }
        if (flock(opened.get(), LOCK_EX | LOCK_NB) != 0) {
            std::this_thread::sleep_for(oClaimPause);
            continue;
        }
        if (stale) { // not used again: it still holds the dead process's name
            removeIfSame(directory, handle, opened.get());
            continue;
        }
        if (directory.isSameFile(file, opened.get())) {
            // Otherwise bind(2) would fail with EADDRINUSE.
            directory.remove(mfwSocketName(handle));
            m_nHandle = handle;
            m_oLocked = std::move(opened);
            return 0;
        }
    }
    return EBUSY;
}

// The file has been empty so far, and an empty name is nobody's.
int CMfwNameClaim::publish(const std::string& name) {
    const ssize_t written = pwrite(m_oLocked.get(), name.data(), name.size(), 0);
    return written == static_cast<ssize_t>(name.size()) ? 0 : lastError();
}

void CMfwNameClaim::withdraw(const CRuntimeDirectory& directory) {
    if (m_oLocked) {
        removeIfSame(directory, m_nHandle, m_oLocked.get());
        m_oLocked.close();
    }
}

// Two processes may have one name; the lowest handle makes all who ask agree. For a dead one, the shared lock
// is turned into an exclusive one. That may fail, as others look as well; then one of them clears away, now
// or at the next look.
int findProcess(const CRuntimeDirectory& directory, const std::string& name, uint32_t& handle) {
    std::optional<uint32_t> lowest;
    for (const std::string& file : directory.list(sNamePrefix)) {
        const std::optional<uint32_t> candidate = handleOf(file);
        if (!candidate) {
            continue;
        }
        // Empty if the file was removed since the directory was read, or is no name at all.
        const CFileDescriptor opened = directory.openFile(file, O_RDONLY, S_IFREG);
        if (!opened) {
            continue;
        }
        if (!isAlive(opened.get())) {
            if (flock(opened.get(), LOCK_EX | LOCK_NB) == 0) {
                removeIfSame(directory, *candidate, opened.get());
            }
        } else if (readName(opened.get()) == name && (!lowest || *candidate < *lowest)) {
            lowest = candidate;
        }
    }
    if (!lowest) {
        return ESRCH;
    }
    handle = *lowest;
    return 0;
}
