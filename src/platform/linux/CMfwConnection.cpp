#include "platform/linux/CMfwConnection.h"

#include "platform/linux/errors.h"
#include "platform/linux/mfw_names.h"

#include <sys/socket.h>

namespace {

constexpr int SOCKET_TYPE = SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC;
constexpr int BACKLOG = 4096; // the kernel takes its own limit where that is less
constexpr unsigned int SOCKET_MODE = 0777;

// What one connection may hold of messages that its peer has not read. Some hundred of the usual ones, or
// several of the largest that travel inside a packet; and 300 hung peers do not eat up a small appliance.
constexpr int SEND_BUFFER = 256 * 1024;

const sockaddr* generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

} // namespace

bool isGone(int error) {
    return error == ECONNRESET || error == ECONNREFUSED || error == ENOTCONN;
}

int CMfwConnection::connect(const CRuntimeDirectory& directory, uint32_t peer) {
    m_oSocket = CFileDescriptor(socket(AF_UNIX, SOCKET_TYPE, 0));
    if (!m_oSocket) {
        return lastError();
    }
    const sockaddr_un address = directory.socketAddress(mfwSocketName(peer));
    if (::connect(fd(), generic(address), sizeof address) != 0) {
        return lastError();
    }
    if (const int error = identifyPeer()) {
        return error;
    }
    return m_nPeer == peer ? 0 : ESRCH;
}

int CMfwConnection::accept(int listener) {
    m_oSocket = CFileDescriptor(accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    return m_oSocket ? identifyPeer() : lastError();
}

// A process outside our name space of process ids has none that we could know it by.
int CMfwConnection::identifyPeer() {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(fd(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        return lastError();
    }
    if (credentials.pid <= 0) {
        return EPROTO;
    }
    m_nPeer = static_cast<uint32_t>(credentials.pid);
    return setsockopt(fd(), SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER, sizeof SEND_BUFFER) == 0 ? 0 : lastError();
}

int CMfwConnection::send(const CMfwOutgoingFrame& frame) {
    const int error = frame.send(fd());
    if (isGone(error)) {
        m_bSendable = false;
    }
    return error;
}

int openMfwListener(const CRuntimeDirectory& directory, uint32_t handle, CFileDescriptor& listener) {
    const std::string name = mfwSocketName(handle);
    const sockaddr_un address = directory.socketAddress(name);
    CFileDescriptor opened(socket(AF_UNIX, SOCKET_TYPE, 0));
    if (!opened || bind(opened.get(), generic(address), sizeof address) != 0) {
        return lastError();
    }
    if (const int error = directory.setMode(name, SOCKET_MODE)) {
        return error;
    }
    if (listen(opened.get(), BACKLOG) != 0) {
        return lastError();
    }
    listener = std::move(opened);
    return 0;
}
