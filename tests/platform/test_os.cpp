// Process state, named events, the lightweight mutex and the runtime directory.
#include "processes.h"

#include <chrono>
#include <sys/stat.h>
#include <thread>

namespace {

using CStateTest = CPlatformTest;
using CEventTest = CPlatformTest;
using CMutexTest = CPlatformTest;

long millisecondsSince(std::chrono::steady_clock::time_point begin) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin)
            .count());
}

int askState(const char* name) {
    int state = -1;
    return osGetProcessState(name, &state) == 0 ? state : -1;
}

TEST_F(CStateTest, ofSeveralThatAskAtOnceMoreThanOneRuns) {
    std::vector<CChild> children;
    for (int i = 0; i < 8; ++i) {
        children.emplace_back([](const CLine& line) {
            line.hear();
            const int first = askState("claimed");
            line.tell(first == OS_PROCESS_NOT_RUNNING ? 'n' : first == OS_PROCESS_RUNNING ? 'r' : '?');
            line.hear();
            return askState("claimed") == first
                       ? 0
                       : 1; // the holder is not running for itself, however often it asks
        });
    }
    for (const CChild& child : children) {
        child.tell('g');
    }
    std::string answers;
    for (const CChild& child : children) {
        answers += child.hear();
    }
    ASSERT_EQ(std::count(answers.begin(), answers.end(), 'n'), 1) << answers;
    ASSERT_EQ(std::count(answers.begin(), answers.end(), 'r'), 7) << answers;
    for (size_t i = 0; i < children.size(); ++i) {
        if (answers[i] == 'r') {
            children[i].tell('g');
            EXPECT_EQ(children[i].wait(), 0);
        }
    }
    CChild& holder = children[answers.find('n')];
    EXPECT_EQ(askState("claimed"), OS_PROCESS_RUNNING);
    holder.killHard();
    EXPECT_EQ(askState("claimed"), OS_PROCESS_NOT_RUNNING);
    EXPECT_EQ(askState("claimed"), OS_PROCESS_NOT_RUNNING);
}

TEST_F(CStateTest, badNameIsClaimedOrLeavesTheDirectory) {
    for (const std::string& name : {std::string(), std::string("../escaped"), std::string(201, 'x')}) {
        EXPECT_EQ(askState(name.c_str()), -1) << name;
        uint32_t handle = 7;
        EXPECT_NE(osCreateEvent(name.c_str(), 0, &handle), 0);
        EXPECT_EQ(handle, 7U);
    }
}

TEST_F(CEventTest, leftoverOfADeadCreatorStopsTheNextStart) {
    CChild creator([](const CLine& line) {
        uint32_t handle = 0;
        line.tell(osCreateEvent("stop", 0, &handle) == 0 ? 'c' : '?');
        return hang(line);
    });
    ASSERT_EQ(creator.hear(), 'c');
    creator.killHard();
    uint32_t handle = OS_EVENT_NONE;
    EXPECT_EQ(osCreateEvent("stop", 0, &handle), OS_ERROR_EXISTS);
    EXPECT_EQ(handle, OS_EVENT_NONE);
    ASSERT_EQ(osOpenEvent("stop", &handle), 0);
    EXPECT_EQ(osKillEvent(handle), 0);
    EXPECT_EQ(osKillEvent(handle), EBADF);
    EXPECT_EQ(osCreateEvent("stop", 0, &handle), 0);
    EXPECT_EQ(osKillEvent(handle), 0);
    EXPECT_EQ(osOpenEvent("stop", &handle), ENOENT);
}

TEST_F(CEventTest, signalDoesNotReachAnotherProcessOrCountsTwice) {
    uint32_t handle = 0;
    ASSERT_EQ(osCreateEvent("stop", 0, &handle), 0);
    CChild receiver([](const CLine& line) {
        uint32_t own = 0;
        line.tell(osOpenEvent("stop", &own) == 0 ? 'o' : '?');
        const bool came = osReceiveEvent(own, 5000) == 0; // waits already, as a rule, when the signal is sent
        line.tell(came ? 'r' : '?');
        line.hear();
        return osReceiveEvent(own, 0) == 0 && osReceiveEvent(own, 20) != 0 ? 0 : 1;
    });
    ASSERT_EQ(receiver.hear(), 'o');
    EXPECT_EQ(osSendEvent(handle), 0);
    ASSERT_EQ(receiver.hear(), 'r');
    for (int i = 0; i < 100000; ++i) { // more than a full pipe takes
        ASSERT_EQ(osSendEvent(handle), 0);
    }
    receiver.tell('g');
    EXPECT_EQ(receiver.wait(), 0);
}

TEST_F(CEventTest, killWithAnOldHandleTakesTheNewerEvent) {
    uint32_t first = 0;
    uint32_t second = 0;
    uint32_t newer = 0;
    ASSERT_EQ(osCreateEvent("stop", 0, &first), 0);
    ASSERT_EQ(osOpenEvent("stop", &second), 0);
    ASSERT_EQ(osKillEvent(first), 0);
    ASSERT_EQ(osCreateEvent("stop", 0, &newer), 0);
    EXPECT_EQ(osKillEvent(second), 0);
    EXPECT_EQ(osCreateEvent("stop", 0, &first), OS_ERROR_EXISTS);
    EXPECT_EQ(osSendEvent(newer), 0);
    EXPECT_EQ(osReceiveEvent(newer, 0), 0);
}

TEST_F(CEventTest, receiverOfNoEventSpinsOrOutlivesItsTime) {
    uint32_t handle = 0;
    ASSERT_EQ(osCreateEvent("stop", 0, &handle), 0);
    auto begin = std::chrono::steady_clock::now();
    int result = 0;
    std::thread waiter([&] { result = osReceiveEvent(handle, 100); });
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(osKillEvent(handle), 0);
    waiter.join();
    EXPECT_NE(result, 0);
    EXPECT_GE(millisecondsSince(begin), 100);
    begin = std::chrono::steady_clock::now();
    EXPECT_NE(osReceiveEvent(handle, 50), 0);
    EXPECT_NE(osReceiveEvent(OS_EVENT_NONE, 50), 0);
    EXPECT_GE(millisecondsSince(begin), 100);
}

TEST_F(CMutexTest, threadsEnterTogetherOrSleepForever) {
    osLwtMutex_t mutex;
    ASSERT_EQ(osInitializeLwtMutex(&mutex), 0);
    long counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 20000; ++n) {
                osLockLwtMutex(&mutex);
                ++counter;
                if (n % 64 == 0) {
                    std::this_thread::yield(); // so that others find it held, and go to sleep
                }
                osUnlockLwtMutex(&mutex);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, 80000);
    EXPECT_EQ(osTryLockLwtMutex(&mutex), 0);
    EXPECT_NE(osTryLockLwtMutex(&mutex), 0);
    EXPECT_EQ(osUnlockLwtMutex(&mutex), 0);
    EXPECT_NE(osUnlockLwtMutex(&mutex), 0);
    EXPECT_EQ(osCleanupLwtMutex(&mutex), 0);
}

class CDirectoryTest : public CPlatformTest {
protected:
    mode_t modeOf(const std::string& path) const {
        struct stat status {};
        return stat((m_sDirectory + path).c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
    }
};

TEST_F(CDirectoryTest, longPathOrTightUmaskKeepsProcessesApart) {
    const std::string deep = "/" + std::string(200, 'd');
    setenv("QEL_RUNTIME_DIR", (m_sDirectory + deep).c_str(), 1);
    const mode_t before = umask(0077);
    CChild peer = startPeer("deep", [](const CLine& line) {
        uint32_t handle = 0;
        osCreateEvent("stop", 0, &handle);
        askState("claimed");
        line.tell('e');
        return receiveText() == "hello" ? hang(line) : 1;
    });
    umask(before);
    ASSERT_EQ(peer.hear(), 'e');
    openEndpoint();
    uint32_t handle = 0;
    ASSERT_EQ(OvuMfwGetProcessHandle("deep", &handle), 0);
    EXPECT_EQ(sendText(handle, 1, "hello"), 0);
    const std::string number = std::to_string(peer.pid());
    EXPECT_EQ(modeOf(deep), 0700U);
    EXPECT_EQ(modeOf(deep + "/event.stop"), 0666U);
    EXPECT_EQ(modeOf(deep + "/process.claimed"), 0666U);
    EXPECT_EQ(modeOf(deep + "/name." + number), 0666U);
    EXPECT_EQ(modeOf(deep + "/mfw." + number), 0777U);
    peer.tell('g');
    EXPECT_EQ(peer.wait(), 0);
}

TEST_F(CDirectoryTest, missingParentIsMade) {
    setenv("QEL_RUNTIME_DIR", (m_sDirectory + "/no/such").c_str(), 1);
    uint32_t handle = 0;
    EXPECT_EQ(OvuMfwInitialize(), ENOENT);
    EXPECT_EQ(osCreateEvent("stop", 0, &handle), ENOENT);
    EXPECT_EQ(askState("claimed"), -1);
}

} // namespace
