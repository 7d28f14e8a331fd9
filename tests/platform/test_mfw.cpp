// The message framework between well-behaved processes.
#include "processes.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using CMfwTest = CPlatformTest;

uint32_t find(const char* name) {
    uint32_t handle = OVU_MFW_NO_HANDLE;
    return OvuMfwGetProcessHandle(name, &handle) == 0 ? handle : OVU_MFW_NO_HANDLE;
}

// Answers every message with the same text, until the line is closed.
int echo(const CLine&) {
    for (;;) {
        if (OvuMfwProcessNextMessage(1000) == 0) {
            const SReceived message = std::move(oReceived.back());
            oReceived.clear();
            sendText(message.m_nSender, message.m_nType, message.text(), message.m_nUserId);
        }
    }
}

TEST_F(CMfwTest, lookupFindsADeadProcessOrNotTheLowest) {
    CChild first = startPeer("twin", hang);
    CChild second = startPeer("twin", hang);
    CChild other = startPeer("twi", hang);
    EXPECT_EQ(find(nullptr), static_cast<uint32_t>(getpid()));
    EXPECT_EQ(find("tested"), OVU_MFW_NO_HANDLE); // no endpoint of our own yet
    EXPECT_EQ(find("twin"), std::min(first.handle(), second.handle()));
    CChild& lower = first.handle() < second.handle() ? first : second;
    CChild& higher = first.handle() < second.handle() ? second : first;
    const std::string left = std::to_string(lower.pid());
    lower.killHard();
    EXPECT_TRUE(exists("mfw." + left));
    EXPECT_EQ(find("twin"), higher.handle());
    EXPECT_FALSE(exists("mfw." + left) || exists("name." + left));
    higher.killHard();
    EXPECT_EQ(find("twin"), OVU_MFW_NO_HANDLE);
    openEndpoint();
    EXPECT_EQ(find("tested"), static_cast<uint32_t>(getpid()));
    EXPECT_EQ(find("twi"), other.handle());
    OvuMfwCleanup();
    EXPECT_EQ(find("tested"), OVU_MFW_NO_HANDLE);
}

// A process that died had our process id, and what it left stands in our place.
TEST_F(CMfwTest, leftoverOfAReusedProcessIdStopsTheStart) {
    const std::string number = std::to_string(getpid());
    std::ofstream(m_sDirectory + "/name." + number) << "formerly-somebody";
    std::ofstream(m_sDirectory + "/mfw." + number) << "not even a socket";
    openEndpoint();
    EXPECT_EQ(find("formerly-somebody"), OVU_MFW_NO_HANDLE);
    EXPECT_EQ(sendText(find("tested"), 1, "hello"), 0);
    EXPECT_EQ(receiveText(), "hello");
}

TEST_F(CMfwTest, recordShowsOldBytesPastItsEndOrAForgedSender) {
    const uint32_t parent = static_cast<uint32_t>(getpid());
    CChild peer = startPeer("peer", [=](const CLine& line) {
        line.hear();
        return sendText(parent, 0xFFFE, std::string(3000, '\xFF'), 0xFFFFFFFF) == 0 &&
                       sendText(parent, 0x0102, "abc", 0x01020304) == 0
                   ? hang(line)
                   : 1;
    });
    openEndpoint();
    peer.tell('g');
    EXPECT_EQ(receiveText(), std::string(3000, '\xFF'));
    EXPECT_EQ(receiveText(), "abc");
    const SReceived& last = oReceived.back();
    EXPECT_EQ(last.m_nType, 0x0102);
    EXPECT_EQ(last.m_nUserId, 0x01020304U);
    EXPECT_EQ(last.m_nSender, peer.handle()); // sendText() fills that field with all ones
    ASSERT_GE(last.m_oRecord.size(), static_cast<size_t>(OVU_MFW_MIN_DATA));
    EXPECT_EQ(std::count(last.m_oRecord.begin() + 3, last.m_oRecord.end(), 0), OVU_MFW_MIN_DATA - 3);
}

int nSpecial;
void special(uint16_t, uint32_t, const sOvuMfwMessage*, uint32_t) {
    ++nSpecial;
}

TEST_F(CMfwTest, messageGoesToTheWrongCallback) {
    openEndpoint();
    const uint32_t own = find(nullptr);
    const auto deliver = [own](uint16_t type) {
        return sendText(own, type, "") == 0 && OvuMfwProcessNextMessage(0) == 0;
    };
    nSpecial = 0;
    ASSERT_EQ(OvuMfwRegisterCallback(5, keep), 0);
    ASSERT_EQ(OvuMfwRegisterCallback(5, special), 0);
    EXPECT_TRUE(deliver(5) && deliver(6) && deliver(0));
    EXPECT_EQ(nSpecial, 1);
    EXPECT_EQ(oReceived.size(), 2U);
    EXPECT_EQ(OvuMfwDeregisterCallback(5), 0);
    EXPECT_NE(OvuMfwDeregisterCallback(5), 0);
    EXPECT_TRUE(deliver(5));
    EXPECT_EQ(oReceived.size(), 3U);
    EXPECT_EQ(OvuMfwDeregisterCallback(0), 0);
    EXPECT_TRUE(deliver(5)); // nobody wants it: used up all the same
    EXPECT_EQ(OvuMfwProcessNextMessage(0), OVU_MFW_NO_MESSAGE);
    EXPECT_EQ(nSpecial, 1);
    EXPECT_EQ(oReceived.size(), 3U);
}

TEST_F(CMfwTest, largeBodyIsCutOrOvertaken) {
    CChild peer = startPeer("peer", echo);
    openEndpoint();
    std::vector<std::string> bodies;
    for (const size_t length :
         std::initializer_list<size_t>{0, 1, 1024, 1025, 65536, 65537, 4 * 1024 * 1024, 3}) {
        std::string body(length, '\0');
        for (size_t i = 0; i < length; ++i) {
            body[i] = static_cast<char>(i * 31 >> 3);
        }
        bodies.push_back(std::move(body));
        ASSERT_EQ(sendText(peer.handle(), 1, bodies.back()), 0);
    }
    for (const std::string& body : bodies) {
        EXPECT_TRUE(receiveText() == body) << body.size();
    }
    EXPECT_EQ(sendText(peer.handle(), 1, std::string(64 * 1024 * 1024 + 1, 'x')), EMSGSIZE);
    EXPECT_NE(OvuMfwSendMessage(OVU_MFW_NO_HANDLE, 1, 0, nullptr, 0), 0);
}

// The senders end with something of ours unread: the kernel then tells of a reset before it hands out what
// they sent.
TEST_F(CMfwTest, burstIsLostThoughTheSendersAreGone) {
    const uint32_t parent = static_cast<uint32_t>(getpid());
    std::vector<CChild> peers;
    for (int i = 0; i < 64; ++i) {
        peers.push_back(startPeer("peer", [=](const CLine& line) {
            line.tell(receiveText() == "go" ? 'r' : '?');
            line.hear();
            return sendText(parent, 1, "1") + sendText(parent, 1, std::string(70000, '2')) +
                   sendText(parent, 1, "3");
        }));
    }
    openEndpoint();
    for (const CChild& peer : peers) {
        ASSERT_EQ(sendText(peer.handle(), 1, "go"), 0);
        ASSERT_EQ(peer.hear(), 'r');
        ASSERT_EQ(sendText(peer.handle(), 1, "never read"), 0);
    }
    for (const CChild& peer : peers) {
        peer.tell('g');
    }
    std::unordered_map<uint32_t, std::string> firsts;
    for (CChild& peer : peers) {
        firsts[peer.handle()];
        EXPECT_EQ(peer.wait(), 0);
    }
    for (size_t i = 0; i < 3 * peers.size(); ++i) {
        const std::string text = receiveText();
        firsts.at(oReceived.back().m_nSender) += text.front();
    }
    EXPECT_EQ(firsts.size(), peers.size());
    for (const auto& [sender, seen] : firsts) {
        EXPECT_EQ(seen, "123");
    }
}

TEST_F(CMfwTest, peerThatCameBackStaysUnreachable) {
    CChild peer = startPeer("peer", [](const CLine& line) {
        while (line.hear() == 'r') {
            OvuMfwCleanup();
            OvuMfwRegisterCallback(0, keep);
            line.tell(OvuMfwInitialize() == 0 ? 'r' : '?');
            line.tell(receiveText() == "again" ? 'a' : '?');
        }
        return 0;
    });
    openEndpoint();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(sendText(peer.handle(), 1, "lost with the old endpoint"), 0);
        peer.tell('r');
        ASSERT_EQ(peer.hear(), 'r');
        EXPECT_EQ(sendText(peer.handle(), 1, "again"), 0);
        ASSERT_EQ(peer.hear(), 'a');
    }
    const uint32_t handle = peer.handle();
    peer.killHard();
    for (int i = 0; i < 2; ++i) {
        const int error = sendText(handle, 1, "to nobody");
        EXPECT_TRUE(error != 0 && error != OS_ERROR_EXISTS) << error;
    }
}

TEST_F(CMfwTest, endpointCannotBeOpenedAnewOrAClosedOneSpins) {
    EXPECT_EQ(OvuMfwCleanup(), 0);
    openEndpoint();
    openEndpoint();
    EXPECT_EQ(OvuMfwCleanup(), 0);
    EXPECT_TRUE(std::filesystem::is_empty(m_sDirectory));
    EXPECT_NE(OvuMfwDeregisterCallback(0), 0); // forgotten
    const auto begin = std::chrono::steady_clock::now();
    const int result = OvuMfwProcessNextMessage(50);
    EXPECT_TRUE(result != 0 && result != OVU_MFW_NO_MESSAGE);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
    EXPECT_NE(sendText(find(nullptr), 1, "no endpoint"), 0);
    openEndpoint();
    EXPECT_EQ(sendText(find(nullptr), 1, "hello"), 0);
    EXPECT_EQ(receiveText(), "hello");
}

void closeAndReopen(uint16_t, uint32_t, const sOvuMfwMessage* message, uint32_t length) {
    keep(0, 0, message, length);
    OvuMfwCleanup();
    OvuMfwInitialize();
    OvuMfwRegisterCallback(0, keep);
    sendText(find(nullptr), 1, "from inside");
}

TEST_F(CMfwTest, callbackThatUsesTheFrameworkHangsOrCrashes) {
    openEndpoint();
    OvuMfwRegisterCallback(3, closeAndReopen);
    ASSERT_EQ(sendText(find(nullptr), 3, "outer"), 0);
    EXPECT_EQ(receiveText(), "outer");
    EXPECT_EQ(receiveText(), "from inside");
}

TEST_F(CMfwTest, messageToOneselfDoesNotWakeTheReceiver) {
    openEndpoint();
    std::thread sender([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        sendText(find(nullptr), 1, "hello");
    });
    EXPECT_EQ(receiveText(), "hello");
    sender.join();
}

TEST_F(CMfwTest, cleanupFromAnotherThreadDisturbsTheReceiver) {
    for (int i = 0; i < 20; ++i) {
        openEndpoint();
        int result = -1;
        std::thread receiver([&] {
            do {
                result = OvuMfwProcessNextMessage(20);
            } while (result == 0);
        });
        for (int n = 0; n < i; ++n) {
            sendText(find(nullptr), 1, "to myself");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(i % 3));
        OvuMfwCleanup();
        receiver.join();
        // Closed while it waited, or before it began to.
        EXPECT_TRUE(result == OVU_MFW_NO_MESSAGE || result == ENOTCONN) << result;
    }
}

// One thread ends the process while others are inside every kind of function.
TEST_F(CMfwTest, exitDuringTrafficCrashesOrHangs) {
    for (int i = 0; i < 10; ++i) {
        CChild child = startPeer("peer", [i](const CLine&) {
            const auto forever = [](auto work) {
                std::thread([work] {
                    for (;;) {
                        work();
                    }
                }).detach();
            };
            static osLwtMutex_t mutex;
            uint32_t event = 0;
            osCreateEvent("stop", 0, &event);
            forever([] { sendText(find("peer"), 1, "to myself"); });
            forever([event] {
                osSendEvent(event);
                osReceiveEvent(event, 1);
            });
            forever([] {
                osLockLwtMutex(&mutex);
                osUnlockLwtMutex(&mutex);
            });
            std::thread([i] {
                std::this_thread::sleep_for(std::chrono::milliseconds(i));
                exit(0);
            }).detach();
            for (;;) {
                OvuMfwProcessNextMessage(1);
                oReceived.clear();
                osCleanupLwtMutex(&mutex);
            }
            return 1;
        });
        EXPECT_EQ(child.wait(), 0);
    }
}

} // namespace
