// Sole owner of a file descriptor: closed where its owner goes.
#ifndef QEL_BASE_CFILEDESCRIPTOR_H
#define QEL_BASE_CFILEDESCRIPTOR_H

#include <unistd.h>
#include <utility>

class CFileDescriptor {
public:
    CFileDescriptor() = default;
    explicit CFileDescriptor(int fd) : m_nFd(fd) {} // takes over; -1: none, as open(2) and its kin fail
    ~CFileDescriptor() { close(); }
    CFileDescriptor(CFileDescriptor&& other) noexcept : m_nFd(std::exchange(other.m_nFd, -1)) {}
    CFileDescriptor& operator=(CFileDescriptor&& other) noexcept {
        if (this != &other) {
            close();
            m_nFd = std::exchange(other.m_nFd, -1);
        }
        return *this;
    }

    void close() {
        if (m_nFd >= 0) {
            ::close(std::exchange(m_nFd, -1));
        }
    }

    int get() const { return m_nFd; }
    explicit operator bool() const { return m_nFd >= 0; }

private:
    int m_nFd = -1;
};

#endif
