#include "tools/COutputFile.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr mode_t nOwnerMode = S_IRUSR | S_IWUSR;
constexpr mode_t nAnyMode = S_IRWXU | S_IRWXG | S_IRWXO;
constexpr char szTemporarySuffix[] = ".XXXXXX";

// Checked beforehand, because rename(2) would replace a device or a pipe without asking. stat(2) follows
// links, so a link to a device is refused too.
bool mayTakePlace(const char* path) {
    struct stat status {};
    return ::stat(path, &status) == 0 ? S_ISREG(status.st_mode) : errno == ENOENT;
}

// With the slash; empty: the working directory.
std::string directoryOf(const std::string& path) {
    return path.substr(0, path.rfind('/') + 1);
}

// The regular file under the name. A link counts as none, since it is to be replaced itself.
std::optional<struct stat> oldFile(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    return status;
}

// umask(2) has no query: it can only be read by setting it. For a moment the process has none, which is why
// no other thread may create files meanwhile.
mode_t modeOfNew(COutputFile::EAccess access) {
    if (access == COutputFile::acOwner) {
        return nOwnerMode;
    }
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return (S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH) & ~mask;
}

mode_t modeAfter(const struct stat& old, COutputFile::EAccess access) {
    return old.st_mode & (access == COutputFile::acOwner ? nOwnerMode : nAnyMode);
}

} // namespace

COutputFile::COutputFile(std::string path, EAccess access) : m_sPath(std::move(path)), m_eAccess(access) {}

COutputFile::~COutputFile() {
    if (!m_sTemporary.empty()) {
        ::unlink(m_sTemporary.c_str());
    }
}

bool COutputFile::open() {
    const std::optional<struct stat> old = oldFile(m_sPath);
    return mayTakePlace(m_sPath.c_str()) && (!old || isAcceptable(*old)) &&
           (openTemporary() || openInPlace());
}

// Whether no stranger can have put the file there: it is the user's or the directory's owner's, or nobody
// else can create files in the directory.
bool COutputFile::isAcceptable(const struct stat& old) const {
    const std::string name = directoryOf(m_sPath) + ".";
    struct stat directory {};
    return m_eAccess == acAnybody || old.st_uid == ::geteuid() ||
           (::stat(name.c_str(), &directory) == 0 &&
            (old.st_uid == directory.st_uid || (directory.st_mode & (S_IWGRP | S_IWOTH)) == 0));
}

// The temporary file stands beside the one that it replaces, because rename(2) does not cross file systems.
// mkostemp(3) creates it exclusively: where others can write to the directory (/tmp), a link that somebody
// has planted is not followed. Its mode is widened only afterwards, so a private key
// is never readable by others.
bool COutputFile::openTemporary() {
    const std::string directory = directoryOf(m_sPath);
    const size_t room = NAME_MAX + 1 - sizeof szTemporarySuffix;
    std::string temporary = directory + m_sPath.substr(directory.size(), room) + szTemporarySuffix;
    CFileDescriptor file(::mkostemp(temporary.data(), O_CLOEXEC)); // 0600 at most
    if (!file) {
        return false;
    }
    if (!inherit(file.get())) {
        ::unlink(temporary.c_str());
        return false;
    }
    m_sTemporary = std::move(temporary);
    m_oFile = std::move(file);
    return true;
}

// To hand a file on to another owner takes privileges; to pass on one's own, to a group of one's own, none.
bool COutputFile::inherit(int file) const {
    const std::optional<struct stat> old = oldFile(m_sPath);
    if (!old) {
        return ::fchmod(file, modeOfNew(m_eAccess)) == 0;
    }
    return ::fchown(file, old->st_uid, old->st_gid) == 0 && ::fchmod(file, modeAfter(*old, m_eAccess)) == 0;
}

// Looks at the file that it has opened, which may have taken the name only now. A mode that is too wide for
// the contents is narrowed before they come, and where that is not allowed they do not come at all.
bool COutputFile::openInPlace() {
    CFileDescriptor file(::open(m_sPath.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat old {};
    if (!file || ::fstat(file.get(), &old) != 0 || !S_ISREG(old.st_mode) || !isAcceptable(old)) {
        return false;
    }
    const mode_t mode = modeAfter(old, m_eAccess);
    if (mode != (old.st_mode & nAnyMode) && ::fchmod(file.get(), mode) != 0) {
        return false;
    }
    m_oFile = std::move(file);
    return true;
}

bool COutputFile::fill(std::string_view contents) {
    m_oContents = contents;
    return m_sTemporary.empty() || write(m_oFile.get());
}

// Over what is there, which is cut to size only afterwards: if the disk is full, a small old file keeps its
// blocks, and there is room for the new one. To the disk before the rename: otherwise a power cut soon after
// could leave the new name with an empty file. fsync(2) also reports delayed write errors, so the close has
// nothing to add.
bool COutputFile::write(int file) const {
    size_t done = 0;
    while (done < m_oContents.size()) {
        const ssize_t count = ::write(file, m_oContents.data() + done, m_oContents.size() - done);
        if (count <= 0) {
            return false;
        }
        done += static_cast<size_t>(count);
    }
    return ::ftruncate(file, static_cast<off_t>(done)) == 0 && ::fsync(file) == 0;
}

// Atomic, as rename(2) is: whoever opens a name gets the one file or the other, and never a part.
bool COutputFile::exchange() const {
    return ::renameat2(AT_FDCWD, m_sTemporary.c_str(), AT_FDCWD, m_sPath.c_str(), RENAME_EXCHANGE) == 0;
}

// An exchange keeps the old file for withdraw(). It would take a directory as well, one that somebody has
// created meanwhile, so what has come back is looked at. Without an old file, and where the file system knows
// no exchange, it is a plain rename.
bool COutputFile::publish() {
    if (m_sTemporary.empty()) {
        return m_oFile && write(m_oFile.get());
    }
    if (exchange()) {
        m_bExchanged = true;
        if (!mayTakePlace(m_sTemporary.c_str())) {
            withdraw();
            return false;
        }
        return true;
    }
    const bool isFirst = errno == ENOENT;
    if ((!isFirst && errno != EINVAL && errno != ENOSYS) ||
        std::rename(m_sTemporary.c_str(), m_sPath.c_str()) != 0) {
        return false;
    }
    m_sTemporary.clear();
    m_bCreated = isFirst;
    return true;
}

// If the old file cannot be put back, it keeps the temporary name, since it may be a key that is in use.
void COutputFile::withdraw() {
    if (m_bCreated) {
        ::unlink(m_sPath.c_str());
    } else if (m_bExchanged && !exchange()) {
        m_sTemporary.clear();
    }
    m_bCreated = m_bExchanged = false;
    m_oFile.close(); // not to be published again
}

const COutputFile* COutputFile::publishAll(std::span<COutputFile> files) {
    const auto failed =
        std::find_if_not(files.begin(), files.end(), [](auto& file) { return file.publish(); });
    if (failed == files.end()) {
        return nullptr;
    }
    std::for_each(files.begin(), failed, [](auto& file) { file.withdraw(); });
    return &*failed;
}
