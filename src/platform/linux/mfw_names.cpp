#include "platform/linux/mfw_names.h"

#include "platform/linux/errors.h"

#include <charconv>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <optional>
#include <sys/file.h>

namespace {

constexpr std::string_view sNamePrefix = "name.";

// A name's owner writes it within a moment. An empty file of a greater age was left by one that died before.
constexpr time_t nMaxEmptySeconds = 60;

std::string nameFile(uint32_t handle) {
    return std::string(sNamePrefix) + std::to_string(handle);
}

// Only the one spelling that nameFile() makes: "name.007" would be another file than that of handle 7.
std::optional<uint32_t> handleOf(const std::string& file) {
    if (!file.starts_with(sNamePrefix)) {
        return std::nullopt;
    }
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
enum class EOwner { alive, dead, unknown };

EOwner ownerOf(int fd) {
    if (flock(fd, LOCK_SH | LOCK_NB) == 0) {
        return EOwner::dead;
    }
    return errno == EWOULDBLOCK ? EOwner::alive : EOwner::unknown;
}

// Such a file is left alone, lest its owner find it locked or removed.
bool isBeingMade(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && status.st_size == 0 &&
           status.st_mtime + nMaxEmptySeconds > time(nullptr);
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

// An flock belongs to the open file, not to the process (flock(2)), so it also holds against another endpoint
// of this very process. Nobody else locks a file that is still empty; who did it all the same has it.
int CMfwNameClaim::claim(const CRuntimeDirectory& directory, uint32_t handle) {
    const std::string file = nameFile(handle);
    m_sPath = directory.path() + "/" + file; // memory first: nothing made is left behind
    CFileDescriptor created = directory.createFile(file);
    if (!created) {
        return errno == EEXIST ? EADDRINUSE : lastError();
    }
    if (flock(created.get(), LOCK_EX | LOCK_NB) != 0 || !directory.isSameFile(file, created.get())) {
        return EADDRINUSE;
    }
    struct stat status {};
    if (fstat(created.get(), &status) != 0) {
        return lastError();
    }
    m_nDevice = status.st_dev;
    m_nInode = status.st_ino;
    directory.remove(mfwSocketName(handle)); // a stranger's; bind(2) would fail
    m_nHandle = handle;
    m_oLocked = std::move(created);
    return 0;
}

// The file has been empty so far, and an empty name is nobody's.
int CMfwNameClaim::publish(const std::string& name) const {
    const ssize_t written = pwrite(m_oLocked.get(), name.data(), name.size(), 0);
    return written == static_cast<ssize_t>(name.size()) ? 0 : lastError();
}

// By its path, so that it does not matter whether the file was removed, the directory, or one above it. Where
// the question fails, say for want of memory, nothing is known to have changed.
[[gnu::hot]] bool CMfwNameClaim::isInPlace() const {
    struct stat found {};
    if (!m_oLocked) {
        return false;
    }
    if (lstat(m_sPath.c_str(), &found) != 0) {
        return errno != ENOENT && errno != ENOTDIR;
    }
    return found.st_dev == m_nDevice && found.st_ino == m_nInode;
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
        if (isBeingMade(opened.get())) {
            continue;
        }
        const EOwner owner = ownerOf(opened.get());
        if (owner == EOwner::dead && flock(opened.get(), LOCK_EX | LOCK_NB) == 0) {
            removeIfSame(directory, *candidate, opened.get());
        }
        if (owner == EOwner::alive && !name.empty() && readName(opened.get()) == name &&
            (!lowest || *candidate < *lowest)) {
            lowest = candidate;
        }
    }
    if (!lowest) {
        return ESRCH;
    }
    handle = *lowest;
    return 0;
}

bool isNameFileOf(const CRuntimeDirectory& directory, const std::string& file, const std::string& name) {
    const CFileDescriptor opened =
        handleOf(file) ? directory.openFile(file, O_RDONLY, S_IFREG) : CFileDescriptor();
    return opened && readName(opened.get()) == name;
}
