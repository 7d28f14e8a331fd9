#include "tools/COutputFile.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

bool mayTakePlace(const char* path) {
    struct stat status {};
    return ::stat(path, &status) == 0 ? S_ISREG(status.st_mode) : errno == ENOENT;
}

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

void COutputFile::create(EAccess access) {
    std::string temporary = m_sPath + ".XXXXXX";
    const int file = ::mkostemp(temporary.data(), O_CLOEXEC); // 0600 at most
    if (file < 0) {
        return;
    }
    m_sTemporary = std::move(temporary);
    if (::fchmod(file, modeFor(access)) == 0) {
        m_pBio.reset(BIO_new_fd(file, BIO_CLOSE));
    }
    if (m_pBio == nullptr) {
        ::close(file);
    }
}

bool COutputFile::finish() {
    const bool isWritten =
        m_pBio != nullptr && ::fsync(static_cast<int>(BIO_get_fd(m_pBio.get(), nullptr))) == 0;
    m_pBio.reset();
    return isWritten;
}

bool COutputFile::publish() {
    if (m_sTemporary.empty() || std::rename(m_sTemporary.c_str(), m_sPath.c_str()) != 0) {
        return false;
    }
    m_sTemporary.clear();
    return true;
}
