#include "integration/daemon.h"

#include <random>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

using CCommandLineTest = CDaemonTest;

TEST_F(CCommandLineTest, AHostWithoutEventOrRuntimeDirectoryIsReported) {
    std::filesystem::create_directory(file("event.QELEVENTSERVER1")); // it exists, but cannot be opened
    EXPECT_EQ(attempt("-stop"),
              fmt::format("Failed to create event ({0}, 0xffffffff)\nstatus {0}\n", EISDIR));
    EXPECT_EQ(attempt("-run"), "status 1\n");
    EXPECT_TRUE(isLike(log(), "*: failed to create event.\n*: can't init server object.\n"));
    std::filesystem::remove(file("log"));

    setenv("QEL_RUNTIME_DIR", file("none/none").c_str(), 1);
    EXPECT_EQ(attempt("-stop"), "status 0\n");
    EXPECT_TRUE(isLike(attempt("-run"), "osGetProcessState error ?*\nstatus 1\n"));
    EXPECT_EQ(countInLog(": failed to init message framework.\n"), 1u) << "an unknown state starts it";
}

TEST_F(CCommandLineTest, WhatAStopOrAKilledDaemonLeftDoesNotEndTheNextOne) {
    EXPECT_TRUE(isLike(attempt("-stop"), "Sending stop event (0x*)\nstatus 0\n")); // creates the event
    EXPECT_TRUE(isLike(attempt("-stop"), "Sending stop event (0x*)\nstatus 0\n")); // opens it
    for (int i = 0; i < 3; ++i) {
        startDaemon();
        EXPECT_NE(ask(nameMessage(1, "Phone")), "none") << "a signal left in the old event must not end it";
        EXPECT_EQ(m_oDaemon->end(SIGKILL), 128 + SIGKILL);
        EXPECT_TRUE(exists("event.QELEVENTSERVER1"));
    }
    startDaemon();
    EXPECT_EQ(attempt("-run"), "Another instance of Qel server is running\nstatus 1\n");
    EXPECT_NE(ask(nameMessage(1, "Phone")), "none");
    stopDaemon();
    EXPECT_TRUE(isLike(log(), "*: recv stop event\n" + sStamp + "main thread exited\n*"));
    EXPECT_FALSE(exists("event.QELEVENTSERVER1"));
}

TEST_F(CCommandLineTest, OnlyTheExactWordDebugs) {
    const std::string started = sStamp + "run qel service.\n";
    startDaemon("-debug");
    stopDaemon(false);
    EXPECT_TRUE(isLike(contents(file("output")), started + "*"));
    EXPECT_EQ(contents(file("output")).find("OvuServiceStartService"), std::string::npos);
    EXPECT_EQ(log(), "");
    startDaemon("-Debug");
    stopDaemon();
    EXPECT_TRUE(isLike(log(), started + sStamp + "OvuServiceStartService return 0\n*"));
}

TEST_F(CCommandLineTest, TheServiceManagerHearsOfTheReadingAndThenOfTheFirstTurnIfThereIsOne) {
    std::string list;
    for (uint32_t code = 1; code <= 3000; ++code) {
        list += feature(code, 1, "Phone");
    }
    writeList(list);
    const CFileDescriptor manager = socketAt(file("notify"), SOCK_DGRAM, bind);
    setenv("NOTIFY_SOCKET", file("notify").c_str(), 1);
    setenv("WATCHDOG_USEC", "3600000000", 1);
    std::string told;
    const auto isTold = [&] { return (told = datagram(manager)) != "none"; };
    const std::string reading = "STATUS=reading the feature list\nEXTEND_TIMEOUT_USEC=600000000";
    launchDaemon();
    EXPECT_TRUE(eventually(isTold));
    EXPECT_EQ(told, reading);
    EXPECT_TRUE(eventually(isTold));
    EXPECT_EQ(told, "READY=1\nSTATUS=serving");
    EXPECT_TRUE(eventually(isTold));
    EXPECT_EQ(told, "WATCHDOG=1");
    EXPECT_TRUE(findDaemon());
    EXPECT_EQ(countInLog("3000 features, handed over"), 1u);
    stopDaemon();
    EXPECT_FALSE(isTold()) << told;

    std::filesystem::create_directory(file("event.QELEVENTSERVER1"));
    EXPECT_EQ(attempt("-run"), "status 1\n");
    EXPECT_EQ(datagram(manager), reading);
    EXPECT_FALSE(isTold()) << told;
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
}

TEST_F(CCommandLineTest, AFullLogAPipeWithoutReaderOrAHangupDoNotEndIt) {
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const std::string full(1000, '.');
    const rlimit tight{full.size(), limit.rlim_max};
    put(file("log"), full);
    for (const char* option : {static_cast<const char*>(nullptr), "-debug"}) {
        mkfifo(file("output").c_str(), 0600);
        CFileDescriptor reader(open(file("output").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        setrlimit(RLIMIT_FSIZE, &tight);
        startDaemon(option);
        setrlimit(RLIMIT_FSIZE, &limit);
        reader.close();
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(kill(m_oDaemon->process(), SIGHUP), 0);
            ASSERT_NE(ask(nameMessage(1, "Phone")), "none");
        }
        std::filesystem::remove(file("output"));
        stopDaemon();
    }
    EXPECT_EQ(log(), full);
}

// Keeps the daemon at work with whatever a component can say, and reads only now and then.
int flood(const CLine&) {
    for (uint32_t tag = 0;; ++tag) {
        uint32_t daemon = 0;
        OvuMfwGetProcessHandle("qelserver", &daemon);
        const std::string bodies[] = {nameMessage(tag, "Phone"),   request(nGetFeature, tag),
                                      request(nStartMonitor, tag), reply(nWriteReply, tag, 1),
                                      reply(nShutdown, tag, 0),    oamRequest(tag)};
        sendText(daemon, 6, bodies[tag % std::size(bodies)]);
        OvuMfwProcessNextMessage(1);
    }
}

// QEL_TEST_SIGTERMS in the environment: how often, 60 by default.
TEST_F(CCommandLineTest, TerminatedAtAnyMomentItEndsWell) {
    const char* times = std::getenv("QEL_TEST_SIGTERMS");
    writeList(feature(1, 1, "Phone") + feature(2, 2, "Phone", "sourced = true") + feature(3, 3, "ALL"));
    const CChild one = startPeer("one", flood);
    const CChild other = startPeer("other", flood);
    std::mt19937 random(11);
    for (int i = times != nullptr ? std::atoi(times) : 60; i > 0; --i) {
        launchDaemon();
        ASSERT_TRUE(eventually([this] { return countInLog(": OvuServiceStartService return 0\n") == 1; }));
        usleep(static_cast<useconds_t>(random() % 120000));
        ASSERT_EQ(m_oDaemon->end(random() % 4 == 0 ? SIGINT : SIGTERM), 0);
        ASSERT_EQ(contents(file("output")), "");
        EXPECT_EQ(countInLog(": the Callback event is 'OVU_CALLBACK_NOTIFY_SERVICE_STOP'\n"), 1u);
        std::filesystem::remove(file("log"));
    }
}

} // namespace
