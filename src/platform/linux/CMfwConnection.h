// A connected socket between this process and one other, whichever of the two has connected. Used in both
// directions.
//
// It is a Unix socket of type SOCK_SEQPACKET (unix(7)): a packet arrives whole and in order, the kernel
// vouches for the peer's process id, and each side learns when the other is gone. One socket for each peer,
// because the kernel charges unread packets to the socket that sent them: so a peer that does not read blocks
// nobody but itself.
//
// Not thread-safe; the endpoint's mutex guards it. No function blocks. Error numbers are those of errors.h.
#ifndef QEL_PLATFORM_LINUX_CMFWCONNECTION_H
#define QEL_PLATFORM_LINUX_CMFWCONNECTION_H

#include "platform/linux/CMfwHandles.h"
#include "platform/linux/CRuntimeDirectory.h"
#include "platform/linux/mfw_frame.h"

class CMfwConnection {
public:
    // Connects to the endpoint of the process `peer`. ECONNREFUSED, ENOENT, ESRCH: it has none. EAGAIN: its
    // queue of connections that wait to be accepted is full.
    [[nodiscard]] int connect(const CRuntimeDirectory& directory, const CMfwHandles& handles, uint32_t peer);

    // Accepts the next connection that waits at `listener`. EAGAIN: there is none.
    [[nodiscard]] int accept(int listener);

    // Asks for the peer's handle.
    void identify(const CMfwHandles& handles);

    // EAGAIN: the peer does not read, and the connection is full, or its large bodies are too many. An error
    // for which isGone() is true ends the sending on this connection, but not the receiving: what the peer
    // sent before it went can still be read.
    [[nodiscard]] int send(const CMfwOutgoingFrame& frame);

    int fd() const { return m_oSocket.get(); }
    // Both are the kernel's word. The handle is OVU_MFW_NO_HANDLE until the peer is identified, and for good
    // where it was gone before that.
    pid_t process() const { return m_nProcess; }
    uint32_t peer() const { return m_nPeer; }
    bool isSendable() const { return m_bSendable; }

private:
    [[nodiscard]] int prepare();

    CFileDescriptor m_oSocket;
    pid_t m_nProcess = 0;
    uint32_t m_nPeer = OVU_MFW_NO_HANDLE;
    bool m_bSendable = true;
    size_t m_nUnreadFiles = 0; // bytes sent in memory files since all was last seen to be read
};

// Whether a send failed because the other end of the connection is closed.
[[nodiscard]] bool isGone(int error);

// Opens the listening socket of the process `handle`. Its file must not exist: the caller holds the name, and
// has removed what a dead process left (mfw_names.h). 0 or an error number.
[[nodiscard]] int openMfwListener(const CRuntimeDirectory& directory, uint32_t handle,
                                  CFileDescriptor& listener);

#endif
