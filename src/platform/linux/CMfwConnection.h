// A connected socket between this process and one other, whichever of the two connected. Used in both
// directions.
#ifndef QEL_PLATFORM_LINUX_CMFWCONNECTION_H
#define QEL_PLATFORM_LINUX_CMFWCONNECTION_H

#include "platform/linux/CRuntimeDirectory.h"
#include "platform/linux/mfw_frame.h"

class CMfwConnection {
public:
    // Connects to the endpoint of the process `peer` and does not block. ECONNREFUSED, ENOENT, ESRCH: it has
    // none. EAGAIN: too many wait to be let in.
    [[nodiscard]] int connect(const CRuntimeDirectory& directory, uint32_t peer);

    // Takes the next connection that waits at `listener`. EAGAIN: none does.
    [[nodiscard]] int accept(int listener);

    // An error number for which isGone() is true ends the sending on this connection, but not the receiving:
    // what the peer sent before it went is still to be read.
    [[nodiscard]] int send(const CMfwOutgoingFrame& frame);

    int fd() const { return m_oSocket.get(); }
    uint32_t peer() const { return m_nPeer; } // its handle, by the kernel's word
    bool isSendable() const { return m_bSendable; }

private:
    [[nodiscard]] int identifyPeer();

    CFileDescriptor m_oSocket;
    uint32_t m_nPeer = 0;
    bool m_bSendable = true;
};

// Whether a send failed because the other end of the connection is no more.
[[nodiscard]] bool isGone(int error);

// Opens the listening socket of the process `handle`, whose name is free. 0 or an error number.
[[nodiscard]] int openMfwListener(const CRuntimeDirectory& directory, uint32_t handle,
                                  CFileDescriptor& listener);

#endif
