// The message framework between processes, some of which hang, flood, or send what is no message.
#include "base/big_endian.h"
#include "processes.h"
#include "support/scarce_memory.h"

#include <fcntl.h>
#include <numeric>
#include <random>
#include <sys/mman.h>

namespace {

using CMfwTest = CPlatformTest;
using std::chrono::milliseconds;

uint32_t find(const char* name) {
    uint32_t handle = OVU_MFW_NO_HANDLE;
    return OvuMfwGetProcessHandle(name, &handle) == 0 ? handle : OVU_MFW_NO_HANDLE;
}

TEST_F(CMfwTest, LookupFindsTheLowestThatLives) {
    CChild first = startPeer("twin", hang);
    CChild second = startPeer("twin", hang);
    CChild other = startPeer("twi", hang);
    CChild& lower = first.handle() < second.handle() ? first : second;
    CChild& higher = first.handle() < second.handle() ? second : first;
    EXPECT_EQ(find("twin"), lower.handle());
    EXPECT_EQ(find("twi"), other.handle());
    const std::string left = "mfw." + std::to_string(lower.handle());
    lower.end(SIGKILL);
    EXPECT_TRUE(exists(left));
    EXPECT_EQ(find("twin"), higher.handle());
    EXPECT_FALSE(exists(left));
    higher.end(SIGKILL);
    EXPECT_EQ(find("twin"), OVU_MFW_NO_HANDLE);
}

// It stands where our first file would: we take another handle.
TEST_F(CMfwTest, WhatTheDeadLeftHindersNothingAndNoneStaysOfOurs) {
    put(file("name." + std::to_string(m_nOwn)), "formerly-somebody");
    put(file("mfw." + std::to_string(m_nOwn)), "not even a socket");
    openEndpoint();
    EXPECT_EQ(find("formerly-somebody"), OVU_MFW_NO_HANDLE);
    EXPECT_EQ(find("tested"), ownHandle());
    EXPECT_NE(ownHandle(), m_nOwn);
    EXPECT_EQ(OvuMfwInitialize(), 0); // harmless
    EXPECT_EQ(OvuMfwCleanup(), 0);
    EXPECT_TRUE(std::filesystem::remove(file("handles")));
    EXPECT_TRUE(std::filesystem::is_empty(m_oDirectory.path()));
}

TEST_F(CMfwTest, AMessageForTheDeadDoesNotReachANewProcessOfTheirId) {
    CChild first = startPeer("first", hang);
    const pid_t process = first.process();
    EXPECT_EQ(first.end(SIGKILL), 128 + SIGKILL);
    for (int i = 0; i < 100; ++i) {
        put("/proc/sys/kernel/ns_last_pid", std::to_string(process - 1));
        const CChild next = startPeer("next", hang);
        if (next.process() == process) {
            openEndpoint();
            EXPECT_EQ(find("next"), next.handle());
            EXPECT_NE(sendText(first.handle(), 1, "for the dead"), 0);
            return;
        }
    }
    GTEST_SKIP() << "process ids cannot be chosen here";
}

int echo(const CLine& line) { // answers every message with the same one
    while (receiveText() != "none") {
        const SReceived& last = oReceived.back();
        line.tell(sendText(last.m_nSender, last.m_nType, last.text(), last.m_nUserId) == 0 ? 's' : '?');
    }
    return 0;
}

TEST_F(CMfwTest, MessagesArriveWholeAndInOrderWithTheirTrueSender) {
    CChild peer = startPeer("peer", echo);
    openEndpoint();
    std::vector<std::string> bodies;
    for (const size_t length : {0u, 1u, 1024u, 1025u, 65536u, 65537u, 4u * 1024 * 1024, 3u}) {
        std::string body(length, '\0');
        std::generate(body.begin(), body.end(), std::mt19937());
        const auto type = static_cast<uint16_t>(0xFF00 + bodies.size());
        ASSERT_EQ(sendText(peer.handle(), type, body, 0xFFFF0000 + type), 0);
        bodies.push_back(std::move(body));
    }
    for (size_t i = 0; i < bodies.size(); ++i) {
        ASSERT_TRUE(receiveText() == bodies[i]) << bodies[i].size();
        const SReceived& last = oReceived.back();
        EXPECT_EQ(last.m_nType, 0xFF00 + i);
        EXPECT_EQ(last.m_nUserId, 0xFFFFFF00 + i);
        EXPECT_EQ(last.m_nSender, peer.handle()); // sendText() fills that field with all ones
        EXPECT_EQ(last.m_sRecord.find_first_not_of('\0', last.m_nLength), std::string::npos);
    }
}

// As systemd does it. The peer notices while it waits, and we by sending.
TEST_F(CMfwTest, ADirectoryMadeAnewIsJoinedByWhoRunsUnderTheSameHandle) {
    CChild peer = startPeer("peer", echo);
    const CChild newcomer([&](const CLine& line) {
        line.hear();
        setenv("QEL_PROCESS_NAME", "newcomer", 1);
        bool isWell = OvuMfwInitialize() == 0 && OvuMfwRegisterCallback(0, keep) == 0;
        for (int i = 0; find("peer") != peer.handle() && i < nPatience; ++i) {
            usleep(1000);
        }
        isWell = isWell && sendText(peer.handle(), 1, "hello") == 0 && receiveText() == "hello";
        line.tell(isWell && oReceived.back().m_nSender == peer.handle() ? 'w' : '?');
        return echo(line);
    });
    openEndpoint();
    std::filesystem::remove_all(m_oDirectory.path());
    EXPECT_EQ(find("peer"), OVU_MFW_NO_HANDLE);
    EXPECT_TRUE(std::filesystem::create_directory(m_oDirectory.path())) << "who only looks does not make it";
    newcomer.tell('g');
    EXPECT_EQ(newcomer.hear(), 'w');
    EXPECT_EQ(find("tested"), OVU_MFW_NO_HANDLE);
    EXPECT_EQ(sendText(find("newcomer"), 1, "late"), 0);
    EXPECT_EQ(receiveText(), "late");
    EXPECT_EQ(oReceived.back().m_nSender, find("newcomer"));
    EXPECT_EQ(find("tested"), m_nOwn);
}

TEST_F(CMfwTest, AMessageGoesToItsCallbackOrIsDropped) {
    openEndpoint();
    const auto deliver = [this](uint16_t type) {
        EXPECT_EQ(sendText(m_nOwn, type, ""), 0) << type;
        EXPECT_EQ(OvuMfwProcessNextMessage(0), 0) << type;
    };
    EXPECT_EQ(OvuMfwRegisterCallback(5, keep), 0);
    EXPECT_EQ(OvuMfwRegisterCallback(5, [](auto...) {}), 0); // replaces the first
    deliver(6);
    deliver(0);
    deliver(5);
    EXPECT_EQ(oReceived.size(), 2U);
    EXPECT_EQ(OvuMfwDeregisterCallback(5), 0);
    EXPECT_NE(OvuMfwDeregisterCallback(5), 0);
    deliver(5);
    EXPECT_EQ(oReceived.size(), 3U);
    EXPECT_EQ(OvuMfwDeregisterCallback(0), 0);
    deliver(5);
    EXPECT_EQ(OvuMfwProcessNextMessage(0), OVU_MFW_NO_MESSAGE);
    EXPECT_EQ(oReceived.size(), 3U);
}

// It closes with something of ours unread: the kernel tells of a reset before it hands out what was sent.
TEST_F(CMfwTest, APeerThatCameBackIsReachedAndWhatItSentBeforeArrives) {
    for (const bool sendFirst : {true, false}) { // either may be what meets the reset
        CChild peer = startPeer("peer", [parent = m_nOwn](const CLine& line) {
            receiveText(); // the connection is known now, and serves both ways
            line.tell('a');
            line.hear();
            const int error = sendText(parent, 1, "first") + sendText(parent, 1, std::string(70000, '2'));
            OvuMfwCleanup();
            line.tell(OvuMfwInitialize() == 0 && OvuMfwRegisterCallback(0, keep) == 0 && error == 0 ? 'r'
                                                                                                    : '?');
            return receiveText() == "again" ? 0 : 1;
        });
        const auto again = [handle = peer.handle()] { return sendText(handle, 1, "again"); };
        openEndpoint();
        EXPECT_EQ(again(), 0);
        ASSERT_EQ(peer.hear(), 'a');
        EXPECT_EQ(sendText(peer.handle(), 1, "lost with the old endpoint"), 0);
        peer.tell('g');
        ASSERT_EQ(peer.hear(), 'r');
        EXPECT_EQ(sendFirst ? again() : 0, 0);
        EXPECT_EQ(receiveText(), "first");
        EXPECT_EQ(receiveText(), std::string(70000, '2'));
        EXPECT_EQ(sendFirst ? 0 : again(), 0);
        EXPECT_EQ(peer.end(), 0);
        EXPECT_NE(again(), 0);
        OvuMfwCleanup();
    }
}

TEST_F(CMfwTest, AnotherThreadMayWakeTheReceiverOrCleanUpBelowIt) {
    for (int i = 0; i < 20; ++i) {
        openEndpoint();
        std::jthread sender([&] {
            std::this_thread::sleep_for(milliseconds(i % 3));
            sendText(m_nOwn, 1, "hello");
        });
        EXPECT_EQ(receiveText(), "hello");
        std::jthread closer([&] {
            std::this_thread::sleep_for(milliseconds(i % 3));
            OvuMfwCleanup();
        });
        const int result = OvuMfwProcessNextMessage(20);
        EXPECT_EQ(result == ENOTCONN ? OVU_MFW_NO_MESSAGE : result, OVU_MFW_NO_MESSAGE); // closed by then
    }
}

// Peers that hang: among the daemon's exchanges.
TEST_F(CMfwTest, AFloodingPeerDelaysNoOtherAndFillsNoMemory) {
    CChild flooder = startPeer("flooder", [parent = m_nOwn](const CLine& line) {
        while (line.hear() == 'g') {
            while (sendText(parent, 1, "flood") == 0) { // until its queue is full
            }
            line.tell('f');
        }
        return 0;
    });
    CChild healthy = startPeer("healthy", echo);
    openEndpoint();
    for (int round = 0; round < 20; ++round) {
        flooder.tell('g');
        ASSERT_EQ(flooder.hear(), 'f');
        ASSERT_EQ(sendText(healthy.handle(), 1, "ping"), 0);
        ASSERT_EQ(healthy.hear(), 's');
        const std::string first = receiveText();
        const std::string second = receiveText();
        EXPECT_EQ(first == "ping" ? first : second, "ping") << "round " << round;
    }
    while (OvuMfwProcessNextMessage(0) == 0) {
    }
    EXPECT_LT(oReceived.size(), 1000U); // a full connection, and little beside it
}

// As OAM may ask for its list again and again; the bodies lie in memory files, in no queue of the kernel's.
TEST_F(CMfwTest, WhatAHungPeerLeavesUnreadIsBoundedAndAReaderGetsAnySize) {
    CChild hung = startPeer("hung", [](const CLine& line) {
        line.hear();
        while (receiveText().size() != 3) {
        }
        return echo(line);
    });
    CChild asker = startPeer("asker", hang); // of what fits a packet, such as the pages of an answer
    CChild reader = startPeer("reader", echo);
    openEndpoint();
    const std::string large(1024 * 1024, 'l');
    int sent = 0;
    while (sent < 100 && sendText(hung.handle(), 1, large) == 0) {
        ++sent;
    }
    EXPECT_GE(sent, 2);
    EXPECT_LE(sent, 8);
    EXPECT_EQ(sendText(hung.handle(), 1, large), EAGAIN);
    const std::string huge(20 * 1024 * 1024, 'h');
    EXPECT_EQ(sendText(reader.handle(), 1, huge), 0) << "it has read all, and others do not matter";
    EXPECT_TRUE(receiveText() == huge);
    EXPECT_EQ(sendText(hung.handle(), 1, "end"), 0);
    hung.tell('g');
    while (sendText(hung.handle(), 1, huge) == EAGAIN) {
        usleep(1000);
    }
    EXPECT_TRUE(receiveText() == huge) << "it has caught up";
    const std::string page(60 * 1024, 'p');
    for (sent = 0; sent < 100 && sendText(asker.handle(), 1, page) == 0;) {
        ++sent;
    }
    EXPECT_GE(sent, 2);
    EXPECT_LE(sent, 16);
    EXPECT_EQ(sendText(asker.handle(), 1, page), EAGAIN);
    EXPECT_EQ(sendText(reader.handle(), 1, page), 0);
    EXPECT_TRUE(receiveText() == page) << "others do not matter";
}

void keepWithPlenty(uint16_t type, uint32_t userId, const sOvuMfwMessage* message, uint32_t length) {
    const CPlentyOfMemory plenty;
    keep(type, userId, message, length);
}

// Does it with the n-th allocation failing, and once more where that failed.
bool hasFailedOnce(size_t nth, const std::function<int()>& call) {
    int error = 0;
    {
        const CScarceMemory scarce(nth);
        error = call();
    }
    EXPECT_TRUE(error == 0 || (CScarceMemory::hasFailed() && error == ENOMEM)) << error;
    EXPECT_EQ(error == 0 ? 0 : call(), 0);
    return CScarceMemory::hasFailed();
}

TEST_F(CMfwTest, AfterAnyFailedAllocationNothingIsLostAndTheNextCallGoesOn) {
    const std::string bodies[] = {"small", std::string(2000, '2'), std::string(70000, '7')};
    const auto sendAll = [&](uint32_t handle) {
        return std::accumulate(std::begin(bodies), std::end(bodies), 0,
                               [&](int sum, auto& body) { return sum + sendText(handle, 1, body); });
    };
    const std::string record = std::string(OVU_MFW_DATA_OFFSET, '\0') + "hello";
    bool hasFailed = true;
    for (size_t nth = 1; hasFailed; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        CChild caller = startPeer("caller", [&](const CLine& line) {
            line.hear();
            line.tell(sendAll(m_nOwn) == 0 ? 's' : '?');
            return echo(line);
        });
        CChild answerer = startPeer("answerer", echo);
        uint32_t found = 0;
        uint32_t event = 0;
        hasFailed = hasFailedOnce(nth, OvuMfwInitialize);
        OvuMfwRegisterCallback(0, keepWithPlenty);
        hasFailed |= hasFailedOnce(nth, [&] { return OvuMfwGetProcessHandle("answerer", &found); });
        hasFailed |= hasFailedOnce(nth, [&] { return osCreateEvent("some", 0, &event); });
        hasFailed |= hasFailedOnce(nth, [&] {
            return OvuMfwSendMessage(found, 1, 0, reinterpret_cast<const sOvuMfwMessage*>(record.data()), 5);
        });
        EXPECT_EQ(receiveText(), "hello");
        caller.tell('g');
        ASSERT_EQ(caller.hear(), 's');
        for (const std::string& body : bodies) {
            hasFailed |= hasFailedOnce(nth, [] { return OvuMfwProcessNextMessage(nPatience); });
            EXPECT_TRUE(oReceived.back().text() == body) << body.size();
        }
        EXPECT_EQ(sendText(caller.handle(), 1, "still there"), 0);
        EXPECT_EQ(receiveText(), "still there");
        EXPECT_EQ(osKillEvent(event), 0);
        OvuMfwCleanup();
    }
}

// As a process that does not use the framework would.
bool sendRaw(const CFileDescriptor& socket, const std::string& bytes, const std::vector<int>& fds = {}) {
    iovec part{const_cast<char*>(bytes.data()), bytes.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(8 * sizeof(int))] = {};
    msghdr packet{nullptr, 0, &part, 1, control, CMSG_SPACE(fds.size() * sizeof(int)), 0};
    cmsghdr* rights = CMSG_FIRSTHDR(&packet);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
    std::copy(fds.begin(), fds.end(), reinterpret_cast<int*>(CMSG_DATA(rights)));
    return sendmsg(socket.get(), &packet, MSG_NOSIGNAL) >= 0;
}

std::string header(uint32_t length, uint32_t place, uint32_t type = 1, uint32_t magic = 0x514D4631) {
    const CBigEndian32 words[] = {magic, type, 0, length, place};
    return {reinterpret_cast<const char*>(words), sizeof words};
}

constexpr int SEALED = F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;

int memoryFile(int size, int seals = SEALED) {
    const int fd = memfd_create("tested", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    EXPECT_EQ(ftruncate(fd, size), 0);
    EXPECT_EQ(fcntl(fd, F_ADD_SEALS, seals), 0);
    return fd;
}

TEST_F(CMfwTest, NobodySpeaksUnderTheHandleOfAnother) {
    const CChild victim = startPeer("victim", hang);
    CChild liar([&](const CLine& line) {
        line.hear();
        const CFileDescriptor handles(open(file("handles").c_str(), O_RDWR | O_CLOEXEC));
        struct flock claim {};
        claim.l_type = F_WRLCK;
        claim.l_start = (off_t{getpid()} << 32) + victim.handle();
        claim.l_len = 1;
        const int error = fcntl(handles.get(), F_SETLK, &claim);
        const CFileDescriptor raw = socketAt(file("mfw." + std::to_string(m_nOwn)), SOCK_SEQPACKET, connect);
        line.tell(error == 0 && sendRaw(raw, header(3, 0) + "lie") ? 's' : '?');
        return hang(line);
    });
    CChild brief = startPeer("brief", [&](const CLine& line) {
        line.hear();
        return sendText(m_nOwn, 1, "last words");
    });
    openEndpoint();
    liar.tell('g');
    ASSERT_EQ(liar.hear(), 's');
    EXPECT_EQ(receiveText(), "lie");
    EXPECT_EQ(oReceived.back().m_nSender, OVU_MFW_NO_HANDLE);
    brief.tell('g');
    EXPECT_EQ(brief.end(), 0);
    EXPECT_EQ(receiveText(), "last words");
    EXPECT_EQ(oReceived.back().m_nSender, OVU_MFW_NO_HANDLE) << "it is gone, so nobody vouches for it";
}

long openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST_F(CMfwTest, GarbageIsNotTakenLeaksNothingAndStopsNoTraffic) {
    const int memory = memoryFile(100);
    const int plain = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const std::pair<std::string, std::vector<int>> frames[] = {
        {"short", {}},
        {header(3, 0, 1, 0x514D4632) + "abc", {}}, // not our magic
        {header(3, 0, 0x10001) + "abc", {}},       // type of more than 16 bits
        {header(3, 2) + "abc", {}},                // no such place
        {header(4, 0) + "abc", {}},
        {header(65536, 0) + std::string(65537, 'x'), {}}, // larger than any packet
        {header(3, 0) + "abc", {plain}},
        {header(100, 1), {}},
        {header(100, 1), {plain}},
        {header(100, 1), {memoryFile(100, SEALED & ~F_SEAL_WRITE)}},
        {header(100, 1), {memoryFile(100, SEALED & ~F_SEAL_SHRINK)}},
        {header(101, 1), {memory}},
        {header(100, 1) + "x", {memory}},
        {header(100, 1), {memory, plain, plain, plain, plain, plain, plain, plain}},
        {header(65 * 1024 * 1024, 1), {memoryFile(65 * 1024 * 1024)}},
    };
    openEndpoint();
    const std::string path = file("mfw." + std::to_string(m_nOwn));
    const long before = openDescriptors();
    for (const auto& [bytes, fds] : frames) {
        const CFileDescriptor raw = socketAt(path, SOCK_SEQPACKET, connect);
        const std::string name = ::testing::PrintToString(bytes.substr(0, 40));
        ASSERT_TRUE(sendRaw(raw, bytes, fds)) << name;
        sendRaw(raw, header(3, 0) + "bad"); // nothing that comes behind it is taken
        EXPECT_EQ(OvuMfwProcessNextMessage(0), OVU_MFW_NO_MESSAGE) << name;
        char byte = 0;
        const ssize_t read = recv(raw.get(), &byte, 1, MSG_DONTWAIT);
        EXPECT_EQ(read < 0 && errno == ECONNRESET ? 0 : read, 0) << name << errno << ": it is cut off";
    }
    EXPECT_EQ(openDescriptors(), before);
    // The same without a fault is a message: the frames above fail for their faults.
    const CFileDescriptor right = socketAt(path, SOCK_SEQPACKET, connect);
    EXPECT_TRUE(sendRaw(right, header(3, 0) + "abc"));
    EXPECT_TRUE(sendRaw(right, header(100, 1), {memory}));
    EXPECT_EQ(receiveText(), "abc");
    EXPECT_EQ(receiveText(), std::string(100, '\0'));
}

} // namespace
