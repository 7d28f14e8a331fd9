// The process that stands in the daemon's place on the message framework, for qelctl daemon: it hands on what
// comes and sends what it is told to.
#ifndef QEL_CTL_CDAEMONPROCESS_H
#define QEL_CTL_CDAEMONPROCESS_H

#include "base/CFileDescriptor.h"
#include "messaging/wire/wire.h"

#include <chrono>
#include <cstdint>
#include <span>
#include <sys/types.h>
#include <vector>

// A process of its own, because a process keeps its handle: only another one is to components a daemon that
// was restarted, and only a process that is killed dies as a daemon does. Nothing waits in it: what it can
// hand on to nobody stays in the framework's queue, as with a daemon that hangs.
//
// To be used by one thread, in a process that has no other thread where start() is called.
class CDaemonProcess {
public:
    CDaemonProcess() = default;
    ~CDaemonProcess() { end(); }
    CDaemonProcess(const CDaemonProcess&) = delete;
    CDaemonProcess& operator=(const CDaemonProcess&) = delete;

    // 0: it can be found by components. Else an error number, and there is no process.
    [[nodiscard]] int start();
    void kill(); // without a warning
    void end();  // leaving nothing behind
    bool isAlive() const { return m_nPid > 0; }

    // 0, or the framework's error number.
    [[nodiscard]] int send(uint32_t handle, std::span<const char> body);
    // Waits at most so long for a message. False: none came, or there is no process. Of a long message the
    // first part is told, which is longer than any that components send.
    bool receive(std::chrono::milliseconds wait, std::vector<uint8_t>& body);

private:
    void reap();

    pid_t m_nPid = -1;
    CFileDescriptor m_oOrders; // each is answered by an error number
    CFileDescriptor m_oHeard;
};

#endif
