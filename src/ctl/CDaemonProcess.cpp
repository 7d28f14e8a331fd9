#include "ctl/CDaemonProcess.h"

#include "platform/mfw.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>

namespace {

// The framework knows a process by this name; components look for it.
const char* const szProcess = "qelserver";

// To send: the handle, which is not on the wire and so of the host's byte order, then the body.
struct SOrder {
    uint32_t m_nHandle = 0;
    char m_aBody[OVU_MFW_MIN_DATA] = {};
};

int nHeardFd = -1; // of the started process; the framework's callback carries no pointer

// An empty body would read as the end of the line.
void cbReceive(uint16_t, uint32_t, const sOvuMfwMessage* message, uint32_t length) {
    if (message != nullptr && length != 0) {
        ::send(nHeardFd, message->data, std::min<size_t>(length, OVU_MFW_MIN_DATA), MSG_NOSIGNAL);
    }
}

int open() {
    setenv("QEL_PROCESS_NAME", szProcess, 1);
    const int error = OvuMfwInitialize();
    return error != 0 ? error : OvuMfwRegisterCallback(nQelServerMfwMsgId, cbReceive);
}

int carryOut(const SOrder& order, size_t length) {
    sOvuMfwMessage message = {};
    std::memcpy(message.data, order.m_aBody, length);
    return OvuMfwSendMessage(order.m_nHandle, nQelServerMfwMsgId, 0, &message, static_cast<uint32_t>(length));
}

// Goes on until whoever gives the orders closes his end or dies. A signal from the terminal is his to judge.
[[noreturn]] void serve(int orders, int heard) {
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGTERM, SIG_IGN);
    nHeardFd = heard;
    int error = open();
    ::send(orders, &error, sizeof error, MSG_NOSIGNAL);
    if (error == 0) {
        std::thread([] {
            for (;;) {
                OvuMfwProcessNextMessage(1000); // an error waits out the time as well, so this cannot spin
            }
        }).detach();
    }
    SOrder order;
    for (ssize_t size = recv(orders, &order, sizeof order, 0); error == 0 && size > 0;
         size = recv(orders, &order, sizeof order, 0)) {
        const int result = carryOut(order, static_cast<size_t>(size) - offsetof(SOrder, m_aBody));
        ::send(orders, &result, sizeof result, MSG_NOSIGNAL);
    }
    OvuMfwCleanup();
    _exit(0);
}

struct SPair {
    CFileDescriptor m_oOurs;
    CFileDescriptor m_oIts;
};

// Message by message, so none is joined to the next. The others' descriptors are closed by exec.
bool connect(SPair& pair) {
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        return false;
    }
    pair.m_oOurs = CFileDescriptor(ends[0]);
    pair.m_oIts = CFileDescriptor(ends[1]);
    return true;
}

} // namespace

int CDaemonProcess::start() {
    SPair orders;
    SPair heard;
    if (!connect(orders) || !connect(heard)) {
        return errno;
    }
    std::fflush(nullptr); // or both would write what is still buffered
    const pid_t pid = fork();
    if (pid < 0) {
        return errno;
    }
    if (pid == 0) {
        orders.m_oOurs.close();
        heard.m_oOurs.close();
        serve(orders.m_oIts.get(), heard.m_oIts.get());
    }
    m_nPid = pid;
    m_oOrders = std::move(orders.m_oOurs);
    m_oHeard = std::move(heard.m_oOurs);
    orders.m_oIts.close(); // or its end would not be seen
    int error = 0;
    if (recv(m_oOrders.get(), &error, sizeof error, 0) != sizeof error) {
        error = ECHILD;
    }
    if (error != 0) {
        end();
    }
    return error;
}

void CDaemonProcess::kill() {
    if (m_nPid > 0) {
        ::kill(m_nPid, SIGKILL);
        reap();
    }
}

// The closed line is its sign. What it could not hand on is dropped by closing the other.
void CDaemonProcess::end() {
    if (m_nPid > 0) {
        reap();
    }
}

void CDaemonProcess::reap() {
    m_oOrders.close();
    m_oHeard.close();
    while (waitpid(m_nPid, nullptr, 0) < 0 && errno == EINTR) {
    }
    m_nPid = -1;
}

int CDaemonProcess::send(uint32_t handle, std::span<const char> body) {
    if (!isAlive()) {
        return ENOTCONN;
    }
    SOrder order{handle, {}};
    const size_t length = std::min(body.size(), sizeof order.m_aBody);
    std::memcpy(order.m_aBody, body.data(), length);
    int error = 0;
    const bool isDone =
        ::send(m_oOrders.get(), &order, offsetof(SOrder, m_aBody) + length, MSG_NOSIGNAL) >= 0 &&
        recv(m_oOrders.get(), &error, sizeof error, 0) == sizeof error;
    return isDone ? error : ECHILD;
}

bool CDaemonProcess::receive(std::chrono::milliseconds wait, std::vector<uint8_t>& body) {
    pollfd heard{m_oHeard.get(), POLLIN, 0};
    if (poll(&heard, 1, static_cast<int>(wait.count())) <= 0 || !isAlive()) {
        return false;
    }
    body.resize(OVU_MFW_MIN_DATA);
    const ssize_t size = recv(m_oHeard.get(), body.data(), body.size(), MSG_DONTWAIT);
    body.resize(size > 0 ? static_cast<size_t>(size) : 0);
    if (size == 0) {
        m_oHeard.close(); // somebody has killed it; from here on there is nothing to wake up for
    }
    return size > 0;
}
