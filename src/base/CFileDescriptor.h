// Sole owner of a file descriptor, which is closed with its owner. It can be moved, but not copied.
#ifndef QEL_BASE_CFILEDESCRIPTOR_H
#define QEL_BASE_CFILEDESCRIPTOR_H

#include <unistd.h>
#include <utility>

class CFileDescriptor {
public:
    CFileDescriptor() = default;
    // Takes ownership. -1 stands for none, so the result of open(2) or socket(2) can be passed unchecked.
    explicit CFileDescriptor(int fd) : m_nFd(fd) {}
    ~CFileDescriptor() { close(); }
    CFileDescriptor(CFileDescriptor&& other) noexcept : m_nFd(std::exchange(other.m_nFd, -1)) {}
    CFileDescriptor& operator=(CFileDescriptor&& other) noexcept {
        if (this != &other) {
            close();
            m_nFd = std::exchange(other.m_nFd, -1);
        }
        return *this;
    }

    // The result of close(2) is ignored: Linux releases the descriptor even where the call fails (EINTR
    // included), and by then another thread may have been given the number, so closing again would hit a
    // stranger's file.
    void close() {
        if (m_nFd >= 0) {
            ::close(std::exchange(m_nFd, -1));
        }
    }

    // For system calls; the object stays the owner. -1: none.
    int get() const { return m_nFd; }
    // The descriptor is the caller's to close from now on.
    int release() { return std::exchange(m_nFd, -1); }
    explicit operator bool() const { return m_nFd >= 0; }

private:
    int m_nFd = -1;
};

#endif
