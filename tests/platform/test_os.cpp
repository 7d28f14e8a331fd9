// The operating-system abstraction, the service manager and the diagnostics, with a journal that the test
// plays.
#include "base/mutex/COswLightweightMutex.h"
#include "platform/diag.h"
#include "platform/diag_fields.h"
#include "platform/linux/message_id.h"
#include "platform/linux/systemd.h"
#include "platform/service.h"
#include "processes.h"

#include <sys/stat.h>

namespace {

using COsTest = CPlatformTest;
using CServiceTest = CPlatformTest;
using CDiagTest = CPlatformTest;

int askState(const char* name) {
    int state = -1;
    return osGetProcessState(name, &state) == 0 ? state : -1;
}

TEST_F(COsTest, OfSeveralThatAskAtOnceOnlyOneRuns) {
    std::vector<CChild> children;
    for (int i = 0; i < 8; ++i) {
        children.emplace_back([](const CLine& line) {
            line.hear();
            line.tell(askState("claimed") == OS_PROCESS_NOT_RUNNING ? 'n' : 'r');
            return hang(line);
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
    EXPECT_EQ(askState("claimed"), OS_PROCESS_RUNNING);
    children[answers.find('n')].end(SIGKILL);
    EXPECT_EQ(askState("claimed"), OS_PROCESS_NOT_RUNNING);
    EXPECT_EQ(askState("claimed"), OS_PROCESS_NOT_RUNNING); // the holder does not run for itself
}

// What a dead daemon leaves, and its signal to another process: among the command line's tests.
TEST_F(COsTest, SignalsDoNotPileUpOrBlockAndAKillSparesTheNewerEvent) {
    uint32_t handle = 0;
    uint32_t second = 0;
    ASSERT_EQ(osCreateEvent("stop", 0, &handle), 0);
    ASSERT_EQ(osOpenEvent("stop", &second), 0);
    EXPECT_EQ(osCreateEvent("stop", 0, &handle), OS_ERROR_EXISTS);
    for (int i = 0; i < 100000; ++i) { // more than a full pipe takes
        ASSERT_EQ(osSendEvent(handle), 0);
    }
    EXPECT_EQ(osReceiveEvent(second, 0), 0);
    EXPECT_NE(osReceiveEvent(second, 20), 0);
    EXPECT_EQ(osKillEvent(handle), 0);
    EXPECT_EQ(osOpenEvent("stop", &handle), ENOENT);
    EXPECT_EQ(osCreateEvent("stop", 0, &handle), 0);
    EXPECT_EQ(osKillEvent(second), 0); // of the old event: the newer one keeps the name
    EXPECT_EQ(osOpenEvent("stop", &handle), 0);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_NE(osReceiveEvent(second, 50), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
}

// A FIFO would hold up who opens it, and a plain file in an event's place would look like a signal for ever.
TEST_F(COsTest, AStrangersFilesAreNeitherWaitedForNorTakenForOurs) {
    for (const char* fifo : {"name.9", "mfw.9", "process.strange"}) {
        ASSERT_EQ(mkfifo(file(fifo).c_str(), 0666), 0);
    }
    put(file("event.strange"), "signal");
    uint32_t handle = 0;
    int state = -1;
    EXPECT_EQ(OvuMfwGetProcessHandle("", &handle), ESRCH);
    EXPECT_EQ(osOpenEvent("strange", &handle), EINVAL);
    EXPECT_EQ(osGetProcessState("strange", &state), EINVAL);
    EXPECT_EQ(state, -1);
    openEndpoint();
    EXPECT_NE(sendText(9, 1, "hello"), 0);
    EXPECT_TRUE(exists("name.9")) << "it is not ours to remove";
}

TEST_F(COsTest, ThreadsEnterOneByOneAndAllWakeUp) {
    COswLightweightMutex mutex;
    long counter = 0;
    const auto work = [&] {
        for (int n = 0; n < 20000; ++n) {
            const CScopedLock lock(mutex);
            ++counter;
            if (n % 64 == 0) {
                std::this_thread::yield(); // so that others find it held, and go to sleep
            }
        }
    };
    { const std::jthread threads[] = {std::jthread(work), std::jthread(work), std::jthread(work)}; }
    EXPECT_EQ(counter, 60000);
    EXPECT_EQ(mutex.trylock(), 1);
    EXPECT_EQ(mutex.trylock(), 0);
    EXPECT_EQ(mutex.unlock(), 1);
    EXPECT_EQ(mutex.unlock(), 0);
}

TEST_F(COsTest, ALongPathOrATightUmaskKeepsNoProcessesApart) {
    const std::string deep = file(std::string(200, 'd'));
    setenv("QEL_RUNTIME_DIR", deep.c_str(), 1);
    const mode_t before = umask(0077);
    uint32_t event = 0;
    int state = 0;
    EXPECT_EQ(osCreateEvent("stop", 0, &event), 0);
    EXPECT_EQ(osGetProcessState("tested", &state), 0);
    openEndpoint();
    umask(before);
    EXPECT_EQ(sendText(m_nOwn, 1, "hello"), 0);
    EXPECT_EQ(receiveText(), "hello");
    using enum std::filesystem::perms;
    for (const auto& made : std::filesystem::directory_iterator(deep)) {
        EXPECT_NE(made.status().permissions() & others_write, none) << made;
    }
    EXPECT_EQ(std::filesystem::status(deep).permissions(), owner_all);
}

// Ends the process, as the daemon's may: 10 + notice, or 1 where it runs on the main thread.
void endProcess(uint32_t event) {
    exit(gettid() == getpid() ? 1 : static_cast<int>(10 + event));
}

int serve(const CLine& line) {
    const bool started = OvuServiceStartService("tested", 1, 1, endProcess, 3) == 0;
    OvuServiceReport(OVU_SERVICE_STARTING, "busy", 5000000);
    OvuServiceReport(OVU_SERVICE_READY, "tested runs", 0);
    std::thread busy(pause); // started later, so the signals must not end up here either
    line.tell(started ? 's' : '?');
    return pause();
}

// The manager's socket is a file, or a name without one.
TEST_F(CServiceTest, ASignalGivesNoticeAndTheManagerIsTold) {
    const std::pair<int, int> expected[] = {{SIGTERM, OVU_CALLBACK_NOTIFY_SERVICE_STOP},
                                            {SIGINT, OVU_CALLBACK_NOTIFY_SERVICE_STOP},
                                            {SIGPWR, OVU_CALLBACK_NOTIFY_SERVICE_SHUTDOWN}};
    for (const std::string& name : {file("notify"), "@" + file("notify")}) {
        const CFileDescriptor manager = socketAt(name, SOCK_DGRAM, bind);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        for (const auto& [signal, notice] : expected) {
            CChild service(serve);
            ASSERT_EQ(service.hear(), 's');
            EXPECT_EQ(service.end(signal), 10 + notice) << "signal " << signal;
            EXPECT_EQ(datagram(manager), "STATUS=busy\nEXTEND_TIMEOUT_USEC=5000000000");
            EXPECT_EQ(datagram(manager), "READY=1\nSTATUS=tested runs");
            EXPECT_EQ(datagram(manager), "STOPPING=1");
        }
    }
}

TEST_F(CServiceTest, AManagerThatIsGoneOrDoesNotReadHoldsNobodyUp) {
    const CFileDescriptor manager = socketAt(file("notify"), SOCK_DGRAM, bind);
    for (const std::string& name : {file("notify"), file("nobody"), std::string("nowhere"), std::string("@"),
                                    "/" + std::string(200, 'd'), std::string()}) {
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        for (int i = 0; i < 2000; ++i) { // more than a queue takes
            tellSystemd("STATUS=busy");
        }
    }
    EXPECT_EQ(datagram(manager), "STATUS=busy");
    unsetenv("NOTIFY_SOCKET");
    tellSystemd("READY=1");
}

// As in sd_watchdog_enabled(3). An interval of an hour has begun when the child ends; one of a microsecond is
// over again and again.
TEST_F(CServiceTest, ALoopThatTurnsIsToldToAManagerThatWatchesItAndOnlyWhenDue) {
    const CFileDescriptor manager = socketAt(file("notify"), SOCK_DGRAM, bind);
    setenv("NOTIFY_SOCKET", file("notify").c_str(), 1);
    const auto fedWith = [&](const char* interval, const std::string& process) {
        CChild service([&](const CLine& line) {
            setenv("WATCHDOG_USEC", interval, 1);
            if (!process.empty()) {
                setenv("WATCHDOG_PID", process == "own" ? std::to_string(getpid()).c_str() : "1", 1);
            }
            for (int turn = 0; turn < 5; ++turn) {
                OvuServiceAlive();
                usleep(10);
            }
            line.tell('d');
            return pause();
        });
        EXPECT_EQ(service.hear(), 'd');
        int count = 0;
        for (std::string told; (told = datagram(manager)) != "none"; ++count) {
            EXPECT_EQ(told, "WATCHDOG=1");
        }
        return count;
    };
    EXPECT_EQ(fedWith("3600000000", ""), 1);
    EXPECT_EQ(fedWith("3600000000", "own"), 1);
    EXPECT_EQ(fedWith("3", "own"), 5);
    EXPECT_EQ(fedWith("3600000000", "another"), 0);
    for (const char* interval : {"", "0", "soon", "30s"}) {
        EXPECT_EQ(fedWith(interval, ""), 0);
    }
}

// In the place of systemctl, scripts that answer, do not, or wait for ever.
TEST_F(CServiceTest, TheManagersAnswerIsReadWholeAndAwaitedInVainNotForEver) {
    const auto says = [this](const std::string& script) {
        put(file("ctl"), "#!/bin/sh\n" + script + "\n");
        std::filesystem::permissions(file("ctl"), std::filesystem::perms::owner_all);
        return saysStopping(file("ctl").c_str());
    };
    EXPECT_TRUE(says("[ \"$*\" = is-system-running ] && echo stopping; exit 1"));
    EXPECT_TRUE(says("echo noise >&2; read line; printf stopp; sleep 0.1; echo ing; exec sleep 60"));
    for (const char* other : {"echo running", "echo stopping-not", "exit 0", "printf '%100s' stopping"}) {
        EXPECT_FALSE(says(other)) << other;
    }
    EXPECT_FALSE(saysStopping(file("none").c_str()));

    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(says("echo $$ >" + file("pid") + "; trap '' TERM; printf stopp; exec sleep 60"));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
    EXPECT_NE(kill(std::stoi(contents(file("pid"))), 0), 0); // ended and reaped
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

// Its other end may hang up on it, and it is to die of that.
TEST_F(CServiceTest, WhatWeStartHasNoneOfOurSignalSettings) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const auto pipeBefore = std::signal(SIGPIPE, SIG_IGN);
    put(file("ctl"), "#!/usr/bin/awk -f\nBEGIN { while (getline <\"/proc/self/status\")\n" // a shell unblocks
                     "if (/SigBlk:.*[^0\t]|SigIgn:.*[13579bdf]...$/) exit\nprint \"stopping\" }\n");
    std::filesystem::permissions(file("ctl"), std::filesystem::perms::owner_all);
    EXPECT_TRUE(saysStopping(file("ctl").c_str()));
    std::signal(SIGPIPE, pipeBefore);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(CDiagTest, LinesReachTheJournalAndAFullOneDoesNotBlock) {
    setenv("QEL_DIAG", file("journal").c_str(), 1);
    uint32_t handle = 0;
    EXPECT_NE(OvuDiagRegisterModule("a", "b", "c", "log", &handle), 0);
    const CFileDescriptor journal = socketAt(file("journal"), SOCK_DGRAM, bind);
    ASSERT_EQ(OvuDiagRegisterModule("a", "b", "c", "log", &handle), 0); // it came later than we did
    const OvuDiagField field = {"QEL_CODE", "7\0", 2};
    OvuDiagSetFields(&field, 1);
    EXPECT_EQ(OvuDiagAddLogEntry(handle, 2, 1, 31001, "plain"), 0);
    const std::string id = std::string(sMessageIdLead) + "00031001";
    const std::string modules = "QEL_MODULE=a\nQEL_MODULE=b\nQEL_MODULE=c\n";
    EXPECT_EQ(datagram(journal), "MESSAGE=plain\nPRIORITY=3\nSYSLOG_IDENTIFIER=log\nMESSAGE_ID=" + id +
                                     "\nQEL_EVENT=31001\nQEL_CODE=7" + std::string(1, '\0') + "\n" + modules);
    EXPECT_EQ(OvuDiagAddLogEntry(handle, 2, 2, 31002, "two\nlines"), 0);
    const std::string lengthFirst("MESSAGE\n\x09\0\0\0\0\0\0\0two\nlines\nPRIORITY=4\n", 37);
    const std::string second = datagram(journal);
    EXPECT_EQ(second.substr(0, lengthFirst.size()), lengthFirst);
    EXPECT_NE(second.find("QEL_EVENT=31002\n" + modules), second.npos) << "the fields were the first line's";
    int result = 0;
    for (int i = 0; i < 100000 && result == 0; ++i) {
        result = OvuDiagAddLogEntry(handle, 2, 4, 31003, "nobody reads this");
    }
    EXPECT_EQ(result, EAGAIN);
}

} // namespace
