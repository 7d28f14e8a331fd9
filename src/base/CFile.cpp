#include "base/CFile.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>
#include <sys/stat.h>

namespace {

constexpr size_t nBufferSize = 4096;

// As a size is 32 bits wide, what is longer counts as one byte short of 4 GiB.
uint32_t clampSize(int64_t size) {
    return static_cast<uint32_t>(std::clamp<int64_t>(size, 0, UINT32_MAX));
}

// 0 for what has no size: fopen(3) opens a directory for reading, whose end some file systems place beyond
// any size, and pipes have no end to seek.
uint32_t sizeOf(FILE* stream) {
    struct stat status {};
    const bool isDirectory = ::fstat(::fileno(stream), &status) == 0 && S_ISDIR(status.st_mode);
    return isDirectory || ::fseeko(stream, 0, SEEK_END) != 0 ? 0 : clampSize(::ftello(stream));
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

    EState state = stAppend;
    if (mode == nWrite || mode == nReadWrite) {
        state = stWrite;
    } else if (mode == nReadOnly || mode == -1) {
        state = stReadOnly;
    }
    return openStream(state, mode == nReadWrite);
}

// The buffering comes first, as setvbuf(3) must precede all other operations on a stream. POSIX does not say
// where a stream opened with "a+" begins to read, so the start is sought in any case.
int CFile::openStream(EState state, bool keepsContents) {
    // The letter b has no effect on POSIX systems, and glibc ignores the t, which is not in ISO C.
    const bool isText = m_nText == nText;
    const char* modeWord = isText ? "a+t" : "a+b";
    if (state == stReadOnly) {
        modeWord = isText ? "rt" : "rb";
    } else if (state == stWrite && keepsContents) {
        modeWord = isText ? "r+t" : "r+b";
    } else if (state == stWrite) {
        modeWord = isText ? "w+t" : "w+b";
    }
    m_pStream = std::fopen(m_szPath.get(), modeWord);
    if (m_pStream == nullptr) {
        forget();
        return 0;
    }
    m_eState = state;
    setBufferingMode(1);
    m_nSize = sizeOf(m_pStream);
    ::fseeko(m_pStream, 0, SEEK_SET);
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
    openStream(m_eState, false);
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

// fgets(3) takes an int, and succeeds without a look at the file where there is room for its NUL only.
int CFile::gets(char* buffer, uint32_t size) {
    const int room = static_cast<int>(std::min<uint32_t>(size, INT_MAX));
    return isOpen() != 0 && std::fgets(buffer, room, m_pStream) != nullptr && room > 1 ? 1 : 0;
}

// Stops at the size known at opening: a caller that sized its buffer by size() gets a consistent text even if
// another process appends meanwhile. The position is asked for in 64 bits, for a long may have 32.
uint32_t CFile::read(char* buffer, uint32_t size) {
    const int64_t position = isOpen() != 0 ? ::ftello(m_pStream) : -1;
    if (position < 0 || position >= int64_t{m_nSize}) {
        return 0;
    }
    const auto rest = static_cast<uint32_t>(m_nSize - position);
    return static_cast<uint32_t>(std::fread(buffer, 1, std::min(size, rest), m_pStream));
}

// Flushed at once, so that a process that is killed afterwards loses nothing that was written. A stream that
// fails to write drops what is in its buffer, also what fwrite(3) has counted already. How far the position
// has moved tells what reached the file. When appending, the end has to be sought for that.
uint32_t CFile::write(const char* buffer, uint32_t size) {
    if (!isWritable()) {
        return 0;
    }
    if (m_eState == stAppend) {
        ::fseeko(m_pStream, 0, SEEK_END);
    }
    const int64_t before = ::ftello(m_pStream);
    auto written = static_cast<uint32_t>(std::fwrite(buffer, 1, size, m_pStream));
    if (std::fflush(m_pStream) != 0 || written < size) {
        const int64_t moved = before < 0 ? 0 : ::ftello(m_pStream) - before;
        written = static_cast<uint32_t>(std::clamp<int64_t>(moved, 0, written));
    }
    m_nSize = clampSize(int64_t{m_nSize} + written);
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
