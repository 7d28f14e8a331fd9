#include "platform/linux/CRuntimeDirectory.h"

#include "platform/linux/errors.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/socket.h>
#include <sys/stat.h>

namespace {

constexpr const char* sSystemDirectory = "/run/qel";
constexpr mode_t nDirectoryMode = 0700;
constexpr mode_t nFileMode = 0666;
constexpr size_t nMaxNamePart = 200; // leaves room for the prefixes within NAME_MAX

struct SLocation {
    std::string m_sPath;
    bool m_bInSharedPlace;
};

// An empty variable counts as none, as is usual in a shell.
const char* environment(const char* variable) {
    const char* value = std::getenv(variable);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

// For the rights of the process as it runs, as open(2) would answer.
bool isOpenToUs(const char* directory) {
    return faccessat(AT_FDCWD, directory, W_OK | X_OK, AT_EACCESS) == 0;
}

// Whoever may take part in the host's own takes part, without a word in the environment; a user's own
// directory is for hosts that have none, or do not let the user in.
SLocation runtimeLocation() {
    if (const char* own = environment("QEL_RUNTIME_DIR")) {
        return {own, false};
    }
    if (geteuid() == 0 || isOpenToUs(sSystemDirectory)) {
        return {sSystemDirectory, false};
    }
    if (const char* session = environment("XDG_RUNTIME_DIR")) {
        return {std::string(session) + "/qel", false};
    }
    return {"/tmp/qel-" + std::to_string(geteuid()), true};
}

// Asked of the descriptor and not of the path, which somebody could exchange between
// the question and the use.
bool isOurs(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && status.st_uid == geteuid() && (status.st_mode & S_IWOTH) == 0;
}

} // namespace

int CRuntimeDirectory::open() {
    if (mkdir(runtimeLocation().m_sPath.c_str(), nDirectoryMode) != 0 && errno != EEXIST) {
        return lastError();
    }
    return openExisting();
}

int CRuntimeDirectory::openExisting() {
    const SLocation location = runtimeLocation();
    m_sPath = location.m_sPath;
    m_bInSharedPlace = location.m_bInSharedPlace;
    return openPath();
}

int CRuntimeDirectory::openAgain(CRuntimeDirectory& found) const {
    found.m_sPath = m_sPath;
    found.m_bInSharedPlace = m_bInSharedPlace;
    return found.openPath();
}

// In /tmp anybody can make the directory before us, or plant a link to another of our directories: there a
// link is refused, and so is a directory that is not ours. The other places belong to root or to the user,
// who may as well use a link. O_PATH, since the directory is only a starting point for names; it need not be
// readable for that.
int CRuntimeDirectory::openPath() {
    const int flags = O_PATH | O_DIRECTORY | O_CLOEXEC | (m_bInSharedPlace ? O_NOFOLLOW : 0);
    CFileDescriptor directory(::open(m_sPath.c_str(), flags));
    if (!directory) {
        return lastError();
    }
    if (m_bInSharedPlace && !isOurs(directory.get())) {
        return EACCES;
    }
    m_oDirectory = std::move(directory);
    return 0;
}

// O_NONBLOCK, because opening a FIFO waits for its other end, and a leased file for the holder of the lease.
CFileDescriptor CRuntimeDirectory::openFile(const std::string& name, int flags, mode_t kind) const {
    CFileDescriptor opened(
        openat(fd(), name.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (opened && (fstat(opened.get(), &status) != 0 || (status.st_mode & S_IFMT) != kind)) {
        opened.close();
        errno = EINVAL;
    }
    return opened;
}

// Never uses O_CREAT on a file that exists: in a directory with the sticky bit the kernel may refuse that for
// another user's file (protected_regular in proc(5)). So it tries both ways in turn; it goes round again only
// if somebody created the file or removed it in between.
CFileDescriptor CRuntimeDirectory::openOrCreateFile(const std::string& name) const {
    for (;;) {
        CFileDescriptor existing = openFile(name, O_RDWR, S_IFREG);
        if (existing || errno != ENOENT) {
            return existing;
        }
        CFileDescriptor created = createFile(name);
        if (created || errno != EEXIST) {
            return created;
        }
    }
}

// fchmod(2) undoes the umask.
CFileDescriptor CRuntimeDirectory::createFile(const std::string& name) const {
    const int flags = O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC;
    CFileDescriptor created(openat(fd(), name.c_str(), flags, nFileMode));
    if (created && fchmod(created.get(), nFileMode) != 0) {
        return {};
    }
    return created;
}

int CRuntimeDirectory::setMode(const std::string& name, unsigned int mode) const {
    return fchmodat(fd(), name.c_str(), static_cast<mode_t>(mode), 0) == 0 ? 0 : lastError();
}

void CRuntimeDirectory::remove(const std::string& name) const {
    unlinkat(fd(), name.c_str(), 0);
}

bool CRuntimeDirectory::isSameFile(const std::string& name, int fileFd) const {
    struct stat named {};
    struct stat opened {};
    return fstatat(fd(), name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 && fstat(fileFd, &opened) == 0 &&
           named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
}

// Opens the directory once more, because an O_PATH descriptor cannot be read, and because a descriptor of its
// own has a read position of its own. fdopendir(3) takes the descriptor over only if it succeeds.
std::vector<std::string> CRuntimeDirectory::list(std::string_view prefix) const {
    struct SCloseDirectory {
        void operator()(DIR* stream) const { closedir(stream); }
    };
    std::vector<std::string> names;
    const int streamFd = openat(fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, SCloseDirectory> stream(streamFd < 0 ? nullptr : fdopendir(streamFd));
    if (stream == nullptr) {
        CFileDescriptor closed(streamFd);
        return names;
    }
    while (const dirent* entry = readdir(stream.get())) {
        if (std::string_view(entry->d_name).substr(0, prefix.size()) == prefix) {
            names.emplace_back(entry->d_name);
        }
    }
    return names;
}

// Sockets have short names ("mfw." and a handle), so the address always fits. The NUL at
// the end is the initialisation's.
sockaddr_un CRuntimeDirectory::socketAddress(const std::string& name) const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = "/proc/self/fd/" + std::to_string(fd()) + "/" + name;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

bool isFileNamePart(const char* name) {
    if (name == nullptr || *name == '\0' || std::strchr(name, '/') != nullptr) {
        return false;
    }
    return strnlen(name, nMaxNamePart + 1) <= nMaxNamePart;
}
