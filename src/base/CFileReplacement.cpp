#include "base/CFileReplacement.h"

#include "base/CFileDescriptor.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace {

// Of a name that nobody gives to a file of their own, since what is there is written over.
std::string temporaryFor(const std::string& path) {
    const size_t slash = path.rfind('/');
    const size_t name = slash == std::string::npos ? 0 : slash + 1;
    return path.substr(0, name) + "." + path.substr(name) + ".partial";
}

bool writeAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(fd, text.data(), text.size());
        if (count >= 0) {
            text.remove_prefix(static_cast<size_t>(count));
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

// Only what differs, so that who is not root can replace a file of their own. The owner goes first: the
// system takes bits of the mode away with it.
bool makeAlike(int fd, const struct stat& like) {
    struct stat own {};
    return ::fstat(fd, &own) == 0 &&
           ((own.st_uid == like.st_uid && own.st_gid == like.st_gid) ||
            ::fchown(fd, like.st_uid, like.st_gid) == 0) &&
           ::fchmod(fd, like.st_mode & 07777) == 0;
}

} // namespace

// strerrordesc_np(3) is safe in any thread and not translated.
std::string failure(std::string_view what, std::string_view path) {
    const char* reason = strerrordesc_np(errno);
    std::string text = "cannot ";
    text.append(what).append(" ").append(path).append(": ");
    return text.append(reason != nullptr ? reason : "unknown error");
}

CFileReplacement::CFileReplacement(std::string path)
    : m_sPath(std::move(path)), m_sTemporary(temporaryFor(m_sPath)) {}

CFileReplacement::~CFileReplacement() {
    if (m_bWritten) {
        ::unlink(m_sTemporary.c_str());
    }
}

// Exclusively, so that where others may write to the directory no link that somebody has planted is followed.
// Its mode is widened only at the end. Everything must be on the disk before the rename: otherwise a power
// failure soon after could leave the file empty.
std::string CFileReplacement::write(std::string_view text, const struct stat* like) {
    ::unlink(m_sTemporary.c_str());
    const CFileDescriptor file(
        ::open(m_sTemporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!file) {
        return failure("create", m_sTemporary);
    }
    m_bWritten = true;
    if (!writeAll(file.get(), text)) {
        return failure("write", m_sTemporary);
    }
    const bool isAlike = like != nullptr ? makeAlike(file.get(), *like) : ::fchmod(file.get(), 0644) == 0;
    if (!isAlike) {
        return failure("give owner and mode to", m_sTemporary);
    }
    return ::fsync(file.get()) == 0 ? "" : failure("write to the disk", m_sTemporary);
}

std::string CFileReplacement::publish() {
    if (std::rename(m_sTemporary.c_str(), m_sPath.c_str()) != 0) {
        return failure("rename a file to", m_sPath);
    }
    m_bWritten = false;
    return "";
}

std::string syncDirectory(const std::string& path) {
    const CFileDescriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory && ::fsync(directory.get()) == 0 ? "" : failure("write to the disk", path);
}
