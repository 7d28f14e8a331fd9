#include "tools/COutputFile.h"

#include "base/CFileDescriptor.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

// Checked beforehand, because rename(2) would replace a device or a pipe without asking. stat(2) follows
// links, so a link to a device is refused too.
bool mayTakePlace(const char* path) {
    struct stat status {};
    return ::stat(path, &status) == 0 ? S_ISREG(status.st_mode) : errno == ENOENT;
}

// umask(2) has no query: it can only be read by setting it. For a moment the process has none, which is why
// no other thread may create files meanwhile.
mode_t modeFor(COutputFile::EAccess access) {
    if (access == COutputFile::acOwner) {
        return S_IRUSR | S_IWUSR;
    }
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return (S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH) & ~mask;
}

} // namespace

COutputFile::COutputFile(std::string path, EAccess access) : m_sPath(std::move(path)) {
    if (mayTakePlace(m_sPath.c_str())) {
        create(access);
    }
}

COutputFile::~COutputFile() {
    if (!m_sTemporary.empty()) {
        ::unlink(m_sTemporary.c_str());
    }
}

// The temporary file stands beside the one that it replaces, because rename(2) does not cross file systems.
// mkostemp(3) creates it exclusively: where others can write to the directory (/tmp), a link that somebody
// has planted is not followed. Its mode is widened only afterwards, so a private key is never readable by
// others.
void COutputFile::create(EAccess access) {
    std::string temporary = m_sPath + ".XXXXXX";
    CFileDescriptor file(::mkostemp(temporary.data(), O_CLOEXEC)); // 0600 at most
    if (!file) {
        return;
    }
    m_sTemporary = std::move(temporary);
    if (::fchmod(file.get(), modeFor(access)) == 0) {
        m_pBio.reset(BIO_new_fd(file.get(), BIO_CLOSE));
    }
    if (m_pBio != nullptr) {
        static_cast<void>(file.release()); // closed with the BIO
    }
}

// To the disk before the rename: otherwise a power cut soon after could leave the new name with an empty
// file. The BIO writes straight to the descriptor, so fsync(2) misses nothing. It also reports delayed write
// errors, so the close has nothing to add.
bool COutputFile::finish() {
    const bool isWritten =
        m_pBio != nullptr && ::fsync(static_cast<int>(BIO_get_fd(m_pBio.get(), nullptr))) == 0;
    m_pBio.reset();
    return isWritten;
}

// rename(2) is atomic: whoever opens the name gets the old file or the new one, and never a part. On failure
// the destructor still removes the temporary file.
bool COutputFile::publish() {
    if (m_sTemporary.empty() || std::rename(m_sTemporary.c_str(), m_sPath.c_str()) != 0) {
        return false;
    }
    m_sTemporary.clear();
    return true;
}
