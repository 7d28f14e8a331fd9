// What the daemon's pace costs without the daemon: the system calls of its loop, and nothing between them.
//
//     pace_floor idle           waits as the loop does that has nothing to do, until killed
//     pace_floor delivery PEERS TURNS LINES SIZE FILE
//                               TURNS turns that take one message each, from one of PEERS processes, send it two,
//                               and share LINES appends of SIZE bytes to FILE, opened and closed for each; prints
//                               the processor time in microseconds
#include "base/CFileDescriptor.h"
#include "server/loop/names.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

// As many bytes as the daemon's packets have: a reply without a text, and what the daemon sends.
constexpr size_t nReplySize = 53;
constexpr size_t nSentSize = 56;

int64_t nanoseconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

void require(bool isDone, const char* what) {
    if (!isDone) {
        std::perror(what);
        std::exit(1);
    }
}

// A component in a process of its own: whenever two messages have come, it sends one.
void answerAll(int socket) {
    char packet[nSentSize];
    for (size_t received = 1; recv(socket, packet, sizeof packet, 0) > 0; ++received) {
        if (received % 2 == 0) {
            send(socket, packet, nReplySize, MSG_NOSIGNAL);
        }
    }
}

// What the loop waits on: connections to its peers, by epoll, and a pipe that stays empty.
class CFloor {
public:
    explicit CFloor(int peers) {
        int ends[2] = {-1, -1};
        require(pipe2(ends, O_CLOEXEC) == 0, "pipe2");
        m_oEvent = CFileDescriptor(ends[0]);
        m_oSender = CFileDescriptor(ends[1]);
        m_oEpoll = CFileDescriptor(epoll_create1(EPOLL_CLOEXEC));
        for (int i = 0; i < peers; ++i) {
            startPeer();
        }
    }

    // The connection on which a message is; -1: none came.
    int waitForMessage() const {
        epoll_event event{};
        return epoll_wait(m_oEpoll.get(), &event, 1, int{nReceiveTimeout}) == 1 ? event.data.fd : -1;
    }

    void waitForEvent(int milliseconds) const {
        pollfd entry{m_oEvent.get(), POLLIN, 0};
        poll(&entry, 1, milliseconds);
    }

    static void takeMessage(int socket) {
        char packet[nReplySize];
        require(recv(socket, packet, sizeof packet, MSG_DONTWAIT) == sizeof packet, "recv");
    }

    static void sendMessage(int socket) {
        const char packet[nSentSize] = {};
        require(send(socket, packet, sizeof packet, MSG_DONTWAIT | MSG_NOSIGNAL) == sizeof packet, "send");
    }

    // Every peer has a reply under way from then on.
    void sendFirst() const {
        for (const CFileDescriptor& socket : m_aSockets) {
            sendMessage(socket.get());
            sendMessage(socket.get());
        }
    }

private:
    void startPeer() {
        int ends[2] = {-1, -1};
        require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            answerAll(ends[1]);
            _exit(0);
        }
        close(ends[1]);
        m_aSockets.emplace_back(ends[0]);
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = ends[0];
        require(epoll_ctl(m_oEpoll.get(), EPOLL_CTL_ADD, ends[0], &event) == 0, "epoll_ctl");
    }

    std::vector<CFileDescriptor> m_aSockets;
    CFileDescriptor m_oEvent;
    CFileDescriptor m_oSender;
    CFileDescriptor m_oEpoll;
};

void append(const char* path, const std::string& line) {
    const int file = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666);
    require(write(file, line.data(), line.size()) == static_cast<ssize_t>(line.size()), path);
    close(file);
}

[[noreturn]] void idle() {
    const CFloor floor(1);
    for (;;) {
        floor.waitForMessage();
        floor.waitForEvent(int{nMinLoopDelay});
    }
}

void deliver(const CFloor& floor, const char* path, const std::string& line, int lines) {
    const int64_t start = nanoseconds(CLOCK_MONOTONIC);
    int socket = -1;
    while (socket < 0) {
        socket = floor.waitForMessage();
    }
    CFloor::takeMessage(socket);
    CFloor::sendMessage(socket);
    CFloor::sendMessage(socket);
    for (int i = 0; i < lines; ++i) {
        append(path, line);
    }
    const auto elapsed = static_cast<int>((nanoseconds(CLOCK_MONOTONIC) - start) / 1000000);
    floor.waitForEvent(std::max(int{nMaxLoopDelay} - elapsed, int{nMinLoopDelay}));
}

int delivery(int peers, int turns, int lines, size_t size, const char* path) {
    const CFloor floor(peers);
    floor.sendFirst();
    std::string line(size, '.');
    line.back() = '\n';
    const int64_t start = nanoseconds(CLOCK_PROCESS_CPUTIME_ID);
    for (int turn = 0; turn < turns; ++turn) {
        deliver(floor, path, line, (turn + 1) * lines / turns - turn * lines / turns);
    }
    std::printf("%.3f\n", static_cast<double>(nanoseconds(CLOCK_PROCESS_CPUTIME_ID) - start) / 1000);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "idle") == 0) {
        idle();
    }
    if (argc == 7 && std::strcmp(argv[1], "delivery") == 0 && std::atoi(argv[3]) > 0 &&
        std::atoi(argv[5]) > 0) {
        return delivery(std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4]),
                        static_cast<size_t>(std::atoi(argv[5])), argv[6]);
    }
    std::fputs("usage: pace_floor idle | delivery PEERS TURNS LINES SIZE FILE\n", stderr);
    return 2;
}
