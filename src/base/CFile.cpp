#include "base/CFile.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <sys/stat.h>

namespace {

constexpr size_t nBufferSize = 4096;

// The size of a stream that stands at its end. 0 for what has none: fopen(3) opens a directory for reading,
// whose end some file systems place beyond any size, and ftell(3) fails on pipes and, where long has 32 bits,
// beyond 2 GiB.
uint32_t sizeOf(FILE* stream) {
    const long end = std::ftell(stream);
    return end < 0 || static_cast<unsigned long>(end) > UINT32_MAX ? 0 : static_cast<uint32_t>(end);
}

} // namespace

CFile::CFile(const char* path, int mode, int text) {
    open(path, mode, text);
}

// write() has flushed already; only what it could not flush is lost here.
CFile::~CFile() {
    if (m_pStream != nullptr) {
        std::fclose(m_pStream);
    }
}

int CFile::open(const char* path, int mode, int text) {
    if (path == nullptr || (isOpen() != 0 && close() == 0)) {
        return 0;
    }
    const size_t length = std::strlen(path) + 1;
    m_szPath.reset(new (std::nothrow) char[length]);
    if (m_szPath == nullptr) {
        return 0;
    }
    std::memcpy(m_szPath.get(), path, length);
    m_nText = text;

    // The letter b has no effect on POSIX systems, and glibc ignores the t, which is not in ISO C.
    const bool isText = text == nText;
    const char* modeWord = isText ? "a+t" : "a+b";
    EState state = stAppend;
    if (mode == nWrite) {
        modeWord = isText ? "w+t" : "w+b";
        state = stWrite;
    } else if (mode == nReadWrite) {
        modeWord = isText ? "r+t" : "r+b";
        state = stWrite;
    } else if (mode == nReadOnly || mode == -1) {
        modeWord = isText ? "rt" : "rb";
        state = stReadOnly;
    }
    m_pStream = std::fopen(path, modeWord);
    if (m_pStream == nullptr) {
        return 0;
    }
    // POSIX does not say where a stream opened with "a+" begins to read, so the start is sought in any case.
    m_eState = state;
    std::fseek(m_pStream, 0, SEEK_END);
    m_nSize = sizeOf(m_pStream);
    std::fseek(m_pStream, 0, SEEK_SET);
    setBufferingMode(1);
    return 1;
}

int CFile::isOpen() const {
    return m_eState != stClosed ? 1 : 0;
}

// Flushes first, so that a full disk leaves the caller a stream to try again with: fclose(3) gives the stream
// up even when it fails.
int CFile::close() {
    if (isOpen() == 0 || std::fflush(m_pStream) != 0) {
        return 0;
    }
    std::fclose(m_pStream);
    forget();
    return 1;
}

void CFile::forget() {
    m_pStream = nullptr;
    m_szPath.reset();
    m_eState = stClosed;
    m_nSize = 0;
}

int CFile::remove() {
    if (!isWritable() || std::fflush(m_pStream) != 0) {
        return 0;
    }
    std::fclose(m_pStream);
    if (std::remove(m_szPath.get()) == 0) {
        forget();
        return 1;
    }
    // The caller still holds an open file, as before the call, though the stream is a new one.
    const bool isText = m_nText == nText;
    if (m_eState == stAppend) {
        m_pStream = std::fopen(m_szPath.get(), isText ? "a+t" : "a+b");
    } else {
        m_pStream = std::fopen(m_szPath.get(), isText ? "w+t" : "w+b");
    }
    if (m_pStream == nullptr) {
        forget();
    }
    return 0;
}

uint32_t CFile::size() const {
    return isOpen() != 0 ? m_nSize : 0;
}

long CFile::getPosition() const {
    return isOpen() != 0 ? std::ftell(m_pStream) : 0;
}

int CFile::seek(long offset, int whence) {
    return isOpen() != 0 && std::fseek(m_pStream, offset, whence) == 0 ? 1 : 0;
}

int CFile::seekEnd() {
    return seek(0, SEEK_END);
}

int CFile::gets(char* buffer, uint32_t size) {
    return isOpen() != 0 && std::fgets(buffer, static_cast<int>(size), m_pStream) != nullptr ? 1 : 0;
}

// Stops at the size known at opening: a caller that sized its buffer by size() gets a consistent text even if
// another process appends meanwhile.
uint32_t CFile::read(char* buffer, uint32_t size) {
    const long position = getPosition();
    if (isOpen() == 0 || position < 0 || static_cast<unsigned long>(position) >= m_nSize) {
        return 0;
    }
    const uint32_t rest = m_nSize - static_cast<uint32_t>(position);
    return static_cast<uint32_t>(std::fread(buffer, 1, std::min(size, rest), m_pStream));
}

uint32_t CFile::write(const char* buffer, uint32_t size) {
    if (!isWritable()) {
        return 0;
    }
    // Flushed at once, so that a process that is killed afterwards loses nothing that was written.
    const auto written = static_cast<uint32_t>(std::fwrite(buffer, 1, size, m_pStream));
    std::fflush(m_pStream);
    m_nSize += written;
    return written;
}

int CFile::setBufferingMode(int on) {
    if (isOpen() == 0) {
        return 0;
    }
    const int result = std::setvbuf(m_pStream, nullptr, on != 0 ? _IOFBF : _IONBF, on != 0 ? nBufferSize : 0);
    return result != 0 ? 1 : 0;
}

// POSIX keeps no time of creation; the last change of the inode is the nearest that stat(2) tells.
long CFile::getCreationTime(const char* path) {
    struct stat status {};
    return ::stat(path, &status) == 0 ? static_cast<long>(status.st_ctime) : 0;
}

long CFile::getModificationTime(const char* path) {
    struct stat status {};
    return ::stat(path, &status) == 0 ? static_cast<long>(status.st_mtime) : 0;
}
