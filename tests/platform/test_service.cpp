// The service manager, in processes of their own, and the diagnostics with a journal that the test plays.
#include "platform/diag.h"
#include "platform/service.h"
#include "processes.h"

#include <csignal>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

using CServiceTest = CPlatformTest;
using CDiagTest = CPlatformTest;

int listenAt(const std::string& path, int type) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    const timeval limit{2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    if (type != SOCK_DGRAM) {
        EXPECT_EQ(listen(fd, 8), 0);
    }
    return fd;
}

std::string datagram(int fd) {
    char text[4096];
    const ssize_t size = recv(fd, text, sizeof text, 0);
    return size > 0 ? std::string(text, static_cast<size_t>(size)) : "none";
}

pid_t nMainThread;

// Ends the process, as the daemon's may: 10 + notice, or 1 where it runs on the main thread.
void endProcess(uint32_t event) {
    exit(gettid() == nMainThread ? 1 : static_cast<int>(10 + event));
}

int serve(const CLine& line) {
    nMainThread = gettid();
    if (OvuServiceStartService("tested", 1, 1, endProcess, 3) != 0 ||
        OvuServiceStartService("tested", 1, 1, endProcess, 3) == 0) {
        return 2;
    }
    std::thread busy([] { // started later, so the signals must not end up here either
        for (;;) {
            pause();
        }
    });
    line.tell('s');
    for (;;) {
        pause();
    }
}

TEST_F(CServiceTest, signalEndsTheProcessWithoutANotice) {
    const std::pair<int, int> expected[] = {{SIGTERM, 10 + OVU_CALLBACK_NOTIFY_SERVICE_STOP},
                                            {SIGINT, 10 + OVU_CALLBACK_NOTIFY_SERVICE_STOP},
                                            {SIGPWR, 10 + OVU_CALLBACK_NOTIFY_SERVICE_SHUTDOWN}};
    for (const auto& [signal, status] : expected) {
        CChild service(serve);
        ASSERT_EQ(service.hear(), 's');
        kill(service.pid(), signal);
        EXPECT_EQ(service.wait(), status) << "signal " << signal;
    }
}

#ifdef QEL_HAVE_SYSTEMD
TEST_F(CServiceTest, systemdIsNotToldOrAHungBusHoldsUpTheNotice) {
    const int notified = listenAt(m_sDirectory + "/notify", SOCK_DGRAM);
    const int bus = listenAt(m_sDirectory + "/bus", SOCK_STREAM); // lets connect, and never answers
    setenv("NOTIFY_SOCKET", (m_sDirectory + "/notify").c_str(), 1);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + m_sDirectory + "/bus").c_str(), 1);
    CChild service(serve);
    unsetenv("NOTIFY_SOCKET");
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    ASSERT_EQ(service.hear(), 's');
    EXPECT_NE(datagram(notified).find("READY=1"), std::string::npos);
    const auto begin = std::chrono::steady_clock::now();
    kill(service.pid(), SIGTERM);
    EXPECT_EQ(datagram(notified), "STOPPING=1");
    EXPECT_EQ(service.wait(), 10 + OVU_CALLBACK_NOTIFY_SERVICE_STOP);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    close(notified);
    close(bus);
}
#endif

TEST_F(CDiagTest, lineIsLostOrAJournalThatDoesNotReadBlocks) {
    const std::string path = m_sDirectory + "/journal";
    setenv("QEL_DIAG", path.c_str(), 1);
    uint32_t handle = 0;
    EXPECT_NE(OvuDiagRegisterModule("a", "b", "c", "log", &handle), 0);
    const int journal = listenAt(path, SOCK_DGRAM);
    ASSERT_EQ(OvuDiagRegisterModule("a", "b", "c", "log", &handle), 0); // it came later than we did
    EXPECT_NE(handle, 0U);
    EXPECT_EQ(OvuDiagAddLogEntry(handle, 2, 1, 31001, "plain"), 0);
    EXPECT_EQ(datagram(journal), "MESSAGE=plain\nPRIORITY=3\nSYSLOG_IDENTIFIER=log\nQEL_EVENT=31001\n"
                                 "QEL_MODULE=a\nQEL_MODULE=b\nQEL_MODULE=c\n");
    EXPECT_EQ(OvuDiagAddLogEntry(handle, 2, 2, 31002, "two\nlines"), 0);
    const std::string lengthFirst("MESSAGE\n\x09\0\0\0\0\0\0\0two\nlines\nPRIORITY=4\n", 37);
    EXPECT_EQ(datagram(journal).substr(0, lengthFirst.size()), lengthFirst);
    int result = 0;
    for (int i = 0; i < 100000 && result == 0; ++i) {
        result = OvuDiagAddLogEntry(handle, 2, 4, 31003, "nobody reads this");
    }
    EXPECT_EQ(result, EAGAIN);
    EXPECT_NE(OvuDiagAddLogEntry(handle + 1, 2, 4, 31003, "unknown module"), 0);
    close(journal);
    EXPECT_NE(OvuDiagRegisterModule("a", "b", "c", "log", &handle), 0);
    setenv("QEL_DIAG", "off", 1);
    EXPECT_NE(OvuDiagRegisterModule("a", "b", "c", "log", &handle), 0);
    unsetenv("QEL_DIAG");
}

} // namespace
