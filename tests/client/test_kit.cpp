// qelctl daemon, with qelctl component as the component under test.
#include "client/qelclient.hpp"
#include "ctl/CPlayedDaemon.h"
#include "support/files.h"

#include <fmt/format.h>
#include <fnmatch.h>

namespace {

// Bodies of components; `name` and `status` where the message has them.
template <typename T>
T body(uint32_t type, uint32_t subType, uint32_t handle) {
    T message;
    message.m_oHeader.m_nType = type;
    message.m_oHeader.m_nSubType = subType;
    message.m_oHeader.m_nTag = 7;
    message.m_oHeader.m_nHandle = handle;
    return message;
}

class CPlayed : public testing::Test {
protected:
    template <typename T>
    std::string hear(const T& message) {
        const auto heard = m_oDaemon.hear(reinterpret_cast<const uint8_t*>(&message), sizeof message);
        std::string text = heard.m_oDeed ? describe(*heard.m_oDeed) : "none";
        if (heard.m_oAnswer) {
            EXPECT_EQ(heard.m_oAnswer->m_oHeader.m_nTag, 7u);
            text += fmt::format(", answered {}:{}", uint32_t{heard.m_oAnswer->m_nCode},
                                uint32_t{heard.m_oAnswer->m_nData});
        }
        return text;
    }
    std::string request(uint32_t subType, uint32_t handle = 5, uint32_t process = 1) {
        auto message = body<CQelNameMessage>(nQelClientRequestMsgType, subType, handle);
        message.m_nProcessId = process;
        std::memcpy(message.m_szName, "Voice", 5);
        return hear(message);
    }
    std::string reply(uint32_t status = nReplyOk) {
        auto message = body<CQelReplyMessage>(nQelClientReplyMsgType, WriteReplyMsgType, 5);
        message.m_nStatus = status;
        return hear(message);
    }

    CPlayedDaemon m_oDaemon;
};

TEST_F(CPlayed, AnswersAsTheDaemonDoes) {
    EXPECT_EQ(request(InitListMsgType), "none") << "the handle is unknown";
    EXPECT_EQ(request(CompNameMsgType), "announce \"Voice\" holding nothing, answered 0:0");
    m_oDaemon.setList({{1, 1}, {2, 1}, {3, 1}});
    EXPECT_EQ(request(nQelClientGetFeatureMsgType), "page, answered 1:1");
    request(CompNameMsgType, 5, 2); // another process goes on with the next page, without InitList
    EXPECT_EQ(request(nQelClientGetFeatureMsgType), "page, answered 2:1");
    EXPECT_EQ(reply(), "stray, answered 0:0");
    m_oDaemon.notify(nQelServerNotifyMsgType, {3, 1}, 0);
    m_oDaemon.notify(nQelServerModifyMsgType, {2, 1}, 9);
    m_oDaemon.notify(nQelServerNotifyMsgType, {4, 1}, 0);
    m_oDaemon.notify(nQelServerDisableMsgType, {1, 7}, 0);
    EXPECT_EQ(m_oDaemon.giveUp(4)->m_nCode, 4u);
    EXPECT_FALSE(m_oDaemon.giveUp(4));
    EXPECT_EQ(request(nQelClientGetFeatureMsgType), "page, answered 4:1") << "1 has gone, so they move up";
    EXPECT_EQ(request(InitListMsgType, 6), "none") << "of another handle";
    EXPECT_EQ(reply(2), "refuse 3:1, answered 3:1");
    request(InitListMsgType);
    EXPECT_EQ(request(nQelClientGetFeatureMsgType), "page, answered 2:9") << "which settles the modification";
    EXPECT_EQ(reply(), "accept 1:7, answered 1:7");
    EXPECT_EQ(reply(), "stray, answered 0:0");
}

class CKit : public testing::Test {
protected:
    CKit() { unsetenv("QEL_RUNTIME_DIR"); }
    // With a component that refuses 13. --take-over, because the played daemon cannot tell whose the name is.
    std::string
    play(const std::string& script, const std::string& options = "",
         const std::string& component = "-- " QEL_CTL
                                        " component -q Voice --fetch --monitor --wait --take-over "
                                        "--refuse 13") {
        put(m_oDirectory.file("script"), script);
        return attempt("cd " + m_oDirectory.path() + "; " QEL_CTL " daemon --within 60 --script script " +
                       options + " " + component);
    }

    const CTestDirectory m_oDirectory;
};

void expectLike(const std::string& text, const std::string& pattern) {
    EXPECT_EQ(fnmatch(pattern.c_str(), text.c_str(), 0), 0) << text;
}

// What the example's script does not do.
TEST_F(CKit, PlaysRestartsSilenceAndDelay) {
    expectLike(
        play("list 1:1 # and a comment\nexpect monitor\nkill\nexpect end 137\nrun\n"
             "expect announce \"Voice\"\nexpect monitor\nsilent 50ms\nenable 2:1\noverdue 2\nenable 2:1\n"
             "restart\nexpect announce Voice\nexpect monitor within 50s\nwait 1ms\nstop\n"
             "expect shutdown \"stopped at the prompt\"\nexpect end 0\n"),
        "TAP version 13\n1..18\nok 1 - list 1:1 (line 1)\n# <- announce as Voice*"
        "ok 18 - expect end 0 (line 18)\nstatus 0\n");
}

TEST_F(CKit, AFailureTellsWhatCameAndEndsThePlay) {
    const struct {
        const char* m_szScript;
        const char* m_szTold;
    } aFailures[] = {
        {"expect monitor\nenable 13:1\nexpect accept 13\nwait 1h",
         "script:4: '1h' is not a time, such as 5s or 200ms\nstatus 1\n"},
        {"expect monitor\nenable 13:1\nexpect accept 13\nwait 60s",
         "*\nnot ok 3 - expect accept 13 (line 3)\n#   expected: accept 13 within 60s\n"
         "#   came:     refuse 13:1 \"refused at the prompt\"\n# the last step was not run\nstatus 3\n"},
        {"enable 1:1\nexpect accept 1:1\nexpect monitor\nexpect accept within 1ms",
         "*\n#   came:     nothing\nstatus 4\n"},
        {"expect monitor\nenable 1:1\nexpect nothing for 60s", "*\n#   came:     accept 1:1\nstatus 3\n"},
        {"expect monitor\nenable 1:1\nexpect shutdown", "*\n#   came:     accept 1:1\nstatus 3\n"},
        {"expect announce Voice holding 1:1 within 1ms", "*#   came:     *\nstatus 4\n"},
        {"expect monitor\noverdue 1", "*\n#   came:     none is\nstatus 3\n"},
        {"expect monitor\nkill\nexpect end 0", "*\n#   came:     end 137\nstatus 3\n"},
    };
    for (const auto& failure : aFailures) {
        expectLike(play(failure.m_szScript), failure.m_szTold);
    }
    expectLike(play("expect monitor", "", "-- false"),
               "*\n#   came:     nothing, then the component's end with status 1\nstatus 3\n");
    EXPECT_EQ(
        play("expect monitor\noverdue 1", "-q"),
        "not ok 2 - overdue 1 (line 2)\n#   expected: that a reply about 1 is awaited\n#   came:     none "
        "is\nstatus 3\n");
    expectLike(play("expect monitor\noverdue 1", "--json"),
               "*{\"schema\":1,\"command\":\"daemon\",\"event\":\"end\",\"good\":false,*}\nstatus 3\n");
}

TEST_F(CKit, AScriptIsCheckedWholeBeforeAnythingRuns) {
    EXPECT_EQ(
        play("wait 9s\nexect x\nexpect acept\nenable 5\nmodify 5:1 6\ndisable 0:0\ndie\nenable 5:1\nstart\n"
             "start\nstop\nexpect announce \"Vo\nexpect nothing\noverdue -1\nlist 1:1 x\n",
             "", ""),
        "script:2: 'exect' is unknown here; is 'expect' meant?\n"
        "script:3: 'acept' is unknown here; is 'accept' meant?\n"
        "script:4: '5' is not CODE:DATA\n"
        "script:5: 'to' and the new data are missing\n"
        "script:6: '0:0' is not CODE:DATA\n"
        "script:8: the daemon is dead here, and needs a 'start' before\n"
        "script:10: the daemon lives here already\n"
        "script:11: the component must be started by qelctl for that: -- COMMAND\n"
        "script:12: a quotation mark is missing\n"
        "script:13: 'for' and a time are missing\n"
        "script:14: '-1' is not a code of 0 to 4294967295\n"
        "script:15: 'x' is too much\nstatus 1\n");
    EXPECT_EQ(play("# nothing\n"), "script: there is no step in it\nstatus 1\n");
}

// The C++ header, without a daemon; examples/voice has the rest.
TEST_F(CKit, ClientOwnsWhatItOpensAndHandsItOn) {
    setenv("QEL_RUNTIME_DIR", m_oDirectory.file("run").c_str(), 1);
    qel::Client first;
    EXPECT_EQ(first.run(qel::Time(0)), QEL_EINVAL);
    EXPECT_FALSE(first.features());
    EXPECT_EQ(first.open("Voice", {nullptr, nullptr, qel::Time(-2), false}), QEL_EINVAL);
    ASSERT_EQ(first.open("Voice"), 0);
    EXPECT_EQ(first.open("Voice"), QEL_EBUSY);
    EXPECT_EQ(first.hold(3, 7), 0);
    qel::Client second(std::move(first));
    EXPECT_EQ(first.hold(3, 8), QEL_EINVAL);
    EXPECT_EQ(first.open("Other"), QEL_EBUSY) << "one in a process";
    EXPECT_EQ(second.features()->at(0).data, 7u);
    second.stop();
    EXPECT_EQ(second.run(qel::Time(int64_t{1} << 31)), QEL_ESTOPPED);
    qel::Time next(-1);
    EXPECT_EQ(second.dispatch(next), 0);
    EXPECT_GE(next.count(), 0);
    first = std::move(second);
    EXPECT_EQ(first.state(), qel::State::seeking);
    first.close();
    EXPECT_EQ(second.open("Voice"), 0);
}

TEST_F(CKit, TakesNobodysPlace) {
    EXPECT_EQ(play("wait 1s", "", ""),
              "qelctl: QEL_RUNTIME_DIR must name the directory in which daemon and component "
              "are to meet\nstatus 1\n");
    setenv("QEL_RUNTIME_DIR", m_oDirectory.file("run").c_str(), 1);
    put(m_oDirectory.file("other"), "wait 1ms");
    expectLike(play("expect end 1", "", "-- " QEL_CTL " daemon --script other; ls run"),
               "*qelctl: a daemon runs there already\n*handles\nstatus 0\n");
}

} // namespace
