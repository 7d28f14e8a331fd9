#include "platform/linux/CMfwConnection.h"

#include "platform/linux/errors.h"
#include "platform/linux/mfw_names.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

constexpr int nSocketType = SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC;
constexpr int nBacklog = 4096; // capped silently at net.core.somaxconn (listen(2))
// Whoever may enter the runtime directory may connect: the directory alone decides who takes part.
constexpr unsigned int nSocketMode = 0777;

// What one connection may hold of messages that its peer has not read: several hundred of the usual size, or
// a few of the largest that travel inside a packet. Small enough that 300 hung peers do not eat up a small
// appliance. The kernel doubles the number for its own overhead (socket(7)).
constexpr int nSendBuffer = 256 * 1024;

// The same for bodies in memory files, which the kernel does not charge to the connection: two lists of
// 100,000 features. One body always fits, whatever its size, where nothing lies unread.
constexpr size_t nMaxUnreadFiles = size_t{4} * 1024 * 1024;

// Whether the peer has taken in all that was sent. Where the kernel cannot tell, it counts as read.
bool isAllRead(int socket) {
    int unread = 0;
    return ioctl(socket, SIOCOUTQ, &unread) != 0 || unread == 0;
}

const sockaddr* generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

} // namespace

// EPIPE is not among them because it arrives as ECONNRESET: see errors.h.
bool isGone(int error) {
    return error == ECONNRESET || error == ECONNREFUSED || error == ENOTCONN;
}

int CMfwConnection::connect(const CRuntimeDirectory& directory, const CMfwHandles& handles, uint32_t peer) {
    m_oSocket = CFileDescriptor(socket(AF_UNIX, nSocketType, 0));
    if (!m_oSocket) {
        return lastError();
    }
    // A Unix socket connects at once or not at all: where others return
    // EINPROGRESS, this is EAGAIN (connect(2)).
    const sockaddr_un address = directory.socketAddress(mfwSocketName(peer));
    if (::connect(fd(), generic(address), sizeof address) != 0) {
        return lastError();
    }
    // The socket's file proves nothing: another process may have made it. Only the kernel's word on who
    // listens there does.
    if (const int error = prepare()) {
        return error;
    }
    m_nPeer = handles.handleOf(m_nProcess);
    return m_nPeer == peer ? 0 : ESRCH;
}

int CMfwConnection::accept(int listener) {
    m_oSocket = CFileDescriptor(accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    return m_oSocket ? prepare() : lastError();
}

// SO_PEERCRED tells who the peer was when it called connect(2) or listen(2), so a peer cannot change it
// afterwards. The id is 0 for a process outside our pid namespace, and then there is nothing to know it by.
//
// The limit of unread messages is set here too, since both ways of making a connection come through here.
int CMfwConnection::prepare() {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(fd(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        return lastError();
    }
    if (credentials.pid <= 0) {
        return EPROTO;
    }
    m_nProcess = credentials.pid;
    return setsockopt(fd(), SOL_SOCKET, SO_SNDBUF, &nSendBuffer, sizeof nSendBuffer) == 0 ? 0 : lastError();
}

// A peer that has hung up may have died, and its process id may mean another process by now. So its handle
// counts only if the peer is still there after the answer.
void CMfwConnection::identify(const CMfwHandles& handles) {
    const uint32_t found = handles.handleOf(m_nProcess);
    pollfd entry{fd(), 0, 0};
    if (poll(&entry, 1, 0) == 0) {
        m_nPeer = found;
    }
}

// How much of what was sent is still unread, the kernel does not tell, only whether anything is. So a peer
// that has reached the limit must catch up before it gets another large body.
//
// After a failure for good, the endpoint opens another connection to the peer, which may have come back.
int CMfwConnection::send(const CMfwOutgoingFrame& frame) {
    const size_t size = frame.fileSize();
    if (size != 0 && m_nUnreadFiles + size > nMaxUnreadFiles && m_nUnreadFiles != 0) {
        if (!isAllRead(fd())) {
            return EAGAIN;
        }
        m_nUnreadFiles = 0;
    }
    const int error = frame.send(fd());
    if (error == 0) {
        m_nUnreadFiles += size;
    } else if (isGone(error)) {
        m_bSendable = false;
    }
    return error;
}

int openMfwListener(const CRuntimeDirectory& directory, uint32_t handle, CFileDescriptor& listener) {
    const std::string name = mfwSocketName(handle);
    const sockaddr_un address = directory.socketAddress(name);
    CFileDescriptor opened(socket(AF_UNIX, nSocketType, 0));
    if (!opened || bind(opened.get(), generic(address), sizeof address) != 0) {
        return lastError();
    }
    // bind(2) applies the umask to the mode. Nobody can connect before listen(2), so nobody meets the mode
    // of before.
    if (const int error = directory.setMode(name, nSocketMode)) {
        return error;
    }
    if (listen(opened.get(), nBacklog) != 0) {
        return lastError();
    }
    listener = std::move(opened);
    return 0;
}
