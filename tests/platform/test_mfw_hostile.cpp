// The message framework among processes that hang, flood, or send what is no message.
#include "processes.h"

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using CMfwHostileTest = CPlatformTest;

int answerOnce(const CLine& line) {
    const bool came = receiveText() == "ping";
    return came && sendText(oReceived.back().m_nSender, 1, "pong") == 0 ? hang(line) : 1;
}

TEST_F(CMfwHostileTest, hungPeersCutOffAHealthyOneOrBlockTheSender) {
    std::vector<CChild> hung;
    for (int i = 0; i < 256; ++i) {
        hung.push_back(startPeer("hung", hang));
    }
    CChild healthy = startPeer("healthy", answerOnce);
    openEndpoint();
    const std::string text(512, 'x');
    for (const CChild& peer : hung) {
        int sent = 0;
        while (sendText(peer.handle(), 1, text) == 0) {
            ASSERT_LT(++sent, 100000) << "its queue has no bound";
        }
        EXPECT_GT(sent, 32); // room for a burst
        EXPECT_EQ(sendText(peer.handle(), 1, text), EAGAIN);
    }
    EXPECT_EQ(sendText(healthy.handle(), 1, "ping"), 0);
    EXPECT_EQ(receiveText(), "pong");
}

TEST_F(CMfwHostileTest, flooderKeepsOthersWaitingOrFillsOurMemory) {
    const uint32_t parent = static_cast<uint32_t>(getpid());
    CChild hung = startPeer("hung", hang);
    CChild flooder = startPeer("flooder", [parent, full = hung.handle()](const CLine& line) {
        const auto fill = [](uint32_t peer) {
            int count = 0;
            while (sendText(peer, 1, "flood") == 0) {
                ++count;
            }
            return count;
        };
        int takenIn = -fill(full); // so many fit into a connection that nobody reads
        while (line.hear() == 'g') {
            takenIn += fill(parent);
            line.tell('f');
        }
        return takenIn < 200 ? 0 : 1;
    });
    CChild healthy = startPeer("healthy", [=](const CLine& line) {
        while (line.hear() == 'g') {
            line.tell(sendText(parent, 1, "healthy") == 0 ? 's' : '?');
        }
        return 0;
    });
    openEndpoint();
    for (int round = 0; round < 20; ++round) {
        flooder.tell('g');
        ASSERT_EQ(flooder.hear(), 'f');
        healthy.tell('g');
        ASSERT_EQ(healthy.hear(), 's');
        const std::string first = receiveText();
        const std::string second = receiveText();
        EXPECT_TRUE(first == "healthy" || second == "healthy") << "round " << round;
    }
    flooder.tell('e');
    EXPECT_EQ(flooder.wait(), 0);
}

// Puts what it likes on a connection to a process, as one that does not use the framework would.
class CRawPeer {
public:
    explicit CRawPeer(const std::string& path) : m_nFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        m_bConnected = connect(m_nFd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~CRawPeer() { close(m_nFd); }

    bool send(const std::string& bytes, const std::vector<int>& fds) const {
        iovec part{const_cast<char*>(bytes.data()), bytes.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(8 * sizeof(int))] = {};
        msghdr packet{};
        packet.msg_iov = &part;
        packet.msg_iovlen = 1;
        if (!fds.empty()) {
            packet.msg_control = control;
            packet.msg_controllen = CMSG_SPACE(fds.size() * sizeof(int));
            cmsghdr* header = CMSG_FIRSTHDR(&packet);
            header->cmsg_level = SOL_SOCKET;
            header->cmsg_type = SCM_RIGHTS;
            header->cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
            std::copy(fds.begin(), fds.end(), reinterpret_cast<int*>(CMSG_DATA(header)));
        }
        return m_bConnected && sendmsg(m_nFd, &packet, MSG_NOSIGNAL) >= 0;
    }

    // Whether the other end has hung up on us within two seconds.
    bool isCutOff() const {
        const timeval limit{2, 0};
        setsockopt(m_nFd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        char byte = 0;
        const ssize_t size = recv(m_nFd, &byte, 1, 0);
        return size == 0 || (size < 0 && errno == ECONNRESET);
    }

private:
    int m_nFd;
    bool m_bConnected = false;
};

std::string word(uint32_t value) {
    return {static_cast<char>(value >> 24), static_cast<char>(value >> 16), static_cast<char>(value >> 8),
            static_cast<char>(value)};
}

std::string header(uint32_t length, uint32_t place, uint32_t type = 1, uint32_t magic = 0x514D4631) {
    return word(magic) + word(type) + word(0) + word(length) + word(place);
}

int memoryFile(size_t size, int seals) {
    const int fd = memfd_create("tested", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    EXPECT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
    EXPECT_EQ(fcntl(fd, F_ADD_SEALS, seals), 0);
    return fd;
}

size_t openDescriptors() {
    using CEntries = std::filesystem::directory_iterator;
    return static_cast<size_t>(std::distance(CEntries("/proc/self/fd"), CEntries()));
}

struct SFrame {
    std::string m_sBytes;
    std::vector<int> m_anFds;
};

// A frame of each kind that is wrong in one way.
std::vector<SFrame> wrongFrames() {
    constexpr int SEALED = F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;
    const int sealed = memoryFile(100, SEALED);
    const int writable = memoryFile(100, F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW);
    const int shrinkable = memoryFile(100, F_SEAL_SEAL | F_SEAL_WRITE | F_SEAL_GROW);
    const int plain = open("/dev/null", O_RDONLY | O_CLOEXEC);
    return {
        {"", {}},
        {"short", {}},
        {header(3, 0, 1, 0x514D4632) + "abc", {}}, // not our magic
        {header(4, 0) + "abc", {}},
        {header(2, 0) + "abc", {}},
        {header(3, 0, 0x10001) + "abc", {}}, // type of more than 16 bits
        {header(3, 2) + "abc", {}},          // no such place
        {header(0xFFFFFFFF, 0), {}},
        {header(65536, 0) + std::string(65537, 'x'), {}}, // larger than any packet
        {header(3, 0) + "abc", {plain}},
        {header(100, 1), {}},
        {header(100, 1), {plain}},
        {header(100, 1), {writable}},
        {header(100, 1), {shrinkable}},
        {header(99, 1), {sealed}},
        {header(101, 1), {sealed}},
        {header(100, 1) + "x", {sealed}},
        {header(100, 1), {sealed, sealed}},
        {header(100, 1), {sealed, plain, plain, plain, plain, plain, plain, plain}},
        {header(65 * 1024 * 1024, 1), {memoryFile(65 * 1024 * 1024, SEALED)}},
    };
}

TEST_F(CMfwHostileTest, garbageCrashesLeaksDescriptorsOrStopsTraffic) {
    CChild healthy = startPeer("healthy", [parent = static_cast<uint32_t>(getpid())](const CLine& line) {
        while (line.hear() == 'g') {
            sendText(parent, 1, "healthy");
        }
        return 0;
    });
    openEndpoint();
    std::vector<SFrame> frames = wrongFrames();
    std::mt19937 random(20240607); // the same bytes in every run
    for (int i = 0; i < 200; ++i) {
        std::string bytes =
            i % 2 == 0 ? ""
                       : header(static_cast<uint32_t>(random() % 64), static_cast<uint32_t>(random() % 3));
        for (size_t left = random() % 600 + 64; left > 0; --left) { // never what the header says
            bytes += static_cast<char>(random());
        }
        frames.push_back({bytes, {}});
    }
    const std::string path = m_sDirectory + "/mfw." + std::to_string(getpid());
    healthy.tell('g');
    ASSERT_EQ(receiveText(), "healthy");
    const size_t before = openDescriptors();
    for (size_t i = 0; i < frames.size(); ++i) {
        const CRawPeer raw(path);
        ASSERT_TRUE(raw.send(frames[i].m_sBytes, frames[i].m_anFds)) << i;
        raw.send(header(3, 0) + "bad", {}); // nothing that comes behind it is taken
        healthy.tell('g');
        ASSERT_EQ(receiveText(), "healthy") << i;
        EXPECT_EQ(OvuMfwProcessNextMessage(0), OVU_MFW_NO_MESSAGE) << i;
        EXPECT_TRUE(raw.isCutOff()) << i;
    }
    EXPECT_EQ(openDescriptors(), before);
    // The same without a fault is a message: the frames above fail for their faults.
    const CRawPeer right(path);
    EXPECT_TRUE(right.send(header(3, 0) + "abc", {}));
    EXPECT_EQ(receiveText(), "abc");
    EXPECT_TRUE(right.send(header(100, 1),
                           {memoryFile(100, F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE)}));
    EXPECT_EQ(receiveText(), std::string(100, '\0'));
}

// In a process of its own, for its limits and its processor time.
TEST_F(CMfwHostileTest, wantOfDescriptorsSpinsOrDropsThoseWhoAreIn) {
    CChild tested = startPeer("narrow", [](const CLine& line) {
        const rlimit few{static_cast<rlim_t>(openDescriptors() + 1), 4096};
        setrlimit(RLIMIT_NOFILE, &few); // room for two or three
        const std::string first = receiveText();
        line.tell('r');
        line.hear(); // many more have connected by now
        OvuMfwProcessNextMessage(0);
        const std::clock_t begin = std::clock();
        while (OvuMfwProcessNextMessage(200) == 0) {
        }
        const bool spun = std::clock() - begin > CLOCKS_PER_SEC / 10;
        line.tell('r');
        line.hear();
        const bool stillIn = receiveText() == "healthy";
        return first == "healthy" && !spun && stillIn ? 0 : spun ? 2 : 3;
    });
    openEndpoint();
    ASSERT_EQ(sendText(tested.handle(), 1, "healthy"), 0);
    ASSERT_EQ(tested.hear(), 'r');
    const std::string path = m_sDirectory + "/mfw." + std::to_string(tested.pid());
    std::vector<std::unique_ptr<CRawPeer>> crowd;
    for (int i = 0; i < 10; ++i) {
        crowd.push_back(std::make_unique<CRawPeer>(path));
    }
    tested.tell('g');
    ASSERT_EQ(tested.hear(), 'r');
    ASSERT_EQ(sendText(tested.handle(), 1, "healthy"), 0);
    tested.tell('g');
    EXPECT_EQ(tested.wait(), 0);
}

} // namespace
