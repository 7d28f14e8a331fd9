#include "client/voice.h"
#include "fake/fake_platform.h"
#include "messaging/wire/status.h"

#include <chrono>
#include <cstring>
#include <ctime>
#include <deque>
#include <sstream>
#include <unistd.h>

extern "C" int openFromC(qel_client** client);

namespace {

// What the client sends: class and sub-type, the word (of 32 bits) that counts, what it must be if not N.
const std::map<std::string, std::array<uint32_t, 4>> oRequests = {
    {"name", {0, 0, 12}},    {"init", {0, 1, 12}}, {"get", {0, 2, 12}},
    {"monitor", {0, 3, 12}}, {"ok", {1, 5, 7, 1}}, {"fail", {1, 5, 7, 0}}};
const std::map<std::string, uint32_t> oTypes = {
    {"late", 0},     {"enable", 1}, {"modify", 2},  {"disable", 3}, {"overdue", 4},
    {"stranger", 1}, {"cut", 1},    {"unknown", 5}, {"oam", 11},    {"wild", 0xFFFFFFFF}};

// The daemon's side of a conversation is a script, of which it plays a word each time the client receives:
//   name=N init get monitor ok fail   the client's next message must be this, an announcement of N pairs
//   -  C:D  late=C:D                  answers it: with nothing, with a feature, under the tag three before
//   enable=C:D modify=C:D>E disable=C:D overdue=C:D      notifies; stranger=C:D: somebody else does
//   cut=N unknown=C:D oam=C:D wild=C:D                   sends garbage: N bytes, or of a type that is none
//   hold=C:D (at first)  quiet  restart      holds a feature; does nothing; is another process from now on
class CConversation : public testing::Test, protected CVoice {
protected:
    CConversation() {
        m_rPlatform.reset();
        m_rPlatform.m_fnOnReceive = [this] { turn(); };
        m_rPlatform.m_oProcesses["qelserver"] = m_nDaemon;
    }

    void begin(const std::string& script, uint32_t answerTimeout = 0) {
        open(answerTimeout);
        std::istringstream words(script);
        m_vScript.assign(std::istream_iterator<std::string>(words), {});
        while (m_vScript.front().starts_with("hold=")) {
            turn();
        }
    }

    // Keeps the client announced, fetched and monitoring until the script has been played.
    void attend() {
        qel_run(m_pClient, nLong);
        EXPECT_TRUE(m_vScript.empty()) << "waits for " << m_vScript.front();
        EXPECT_EQ(m_rPlatform.m_vSent.size(), m_nTaken) << "sent more than is due";
    }

    void turn() {
        if (m_vScript.empty()) {
            qel_stop(m_pClient);
            return;
        }
        std::string word = m_vScript.front();
        std::string verb = word.substr(0, word.find('='));
        std::array<uint32_t, 3> n = {};
        std::sscanf(word.c_str() + (verb == word ? 0 : verb.size() + 1), "%u:%u>%u", &n[0], &n[1], &n[2]);
        takeQuestions();
        const size_t unseen = m_rPlatform.m_vSent.size() - m_nTaken;
        const bool isRequest = oRequests.count(verb) != 0;
        if (isRequest && unseen == 0) {
            return; // the client's turn
        }
        EXPECT_EQ(isRequest ? 0 : unseen, 0u) << "sent before " << word;
        if (isRequest) {
            expect(word, oRequests.at(verb), n[0]);
        } else if (verb == "restart") {
            m_rPlatform.m_oProcesses["qelserver"] = ++m_nDaemon;
        } else if (verb == "hold") {
            EXPECT_EQ(qel_hold(m_pClient, n[0], n[1]), 0);
        } else if (verb != "quiet") {
            send(verb, n);
        }
        m_vScript.pop_front();
    }

    // This daemon cannot be asked.
    void takeQuestions() {
        for (const SSent& sent : m_rPlatform.m_vSent) {
            if (sent.m_nType == nQelStatusMfwMsgId) {
                CStatusAnswer answer;
                answer.m_nResult = srUnknown;
                answer.m_nTag =
                    readBody<CStatusQuestion>(reinterpret_cast<const uint8_t*>(sent.m_sBody.data()),
                                              sent.m_sBody.size())
                        .m_nTag;
                CFakePlatform::handOver(m_rPlatform.m_oCallbacks.at(8), 8,
                                        {bytesOf(answer).data(), sizeof answer}, m_nDaemon);
            }
        }
        std::erase_if(m_rPlatform.m_vSent,
                      [](const SSent& one) { return one.m_nType == nQelStatusMfwMsgId; });
    }

    void expect(const std::string& word, const std::array<uint32_t, 4>& request, uint32_t pairs) {
        std::string hex = toHex(m_rPlatform.m_vSent[m_nTaken++].m_sBody);
        const auto& [type, subType, at, status] = request;
        size_t length = type == 0 ? 52 + 8 * pairs : hex.size() / 2;
        auto due = fmt::format("{:08x}{:08x}{:08x}{:08x}", length, type, subType, pairs + status);
        EXPECT_EQ(hex.substr(8, 24) + hex.substr(std::min<size_t>(8 * at, hex.size()), 8), due) << word;
        EXPECT_EQ(hex.size(), 2 * length) << word;
        m_nTag = static_cast<uint32_t>(std::stoul(hex.substr(32, 8), nullptr, 16));
    }

    void send(const std::string& verb, const std::array<uint32_t, 3>& n) {
        uint32_t type = oTypes.count(verb) ? oTypes.at(verb) : 0;
        uint32_t tag = verb == "late" ? m_nTag - 3 : m_nTag;
        std::string body = fromHex(fmt::format(
            "0000000000000024{:08x}00000000{:08x}00000000{:08x}{:08x}{:08x}", type, tag, n[0], n[1], n[2]));
        body.resize(verb == "cut" ? n[0] : body.size());
        CFakePlatform::handOver(m_rPlatform.m_oCallbacks.at(6), 6, body, verb == "stranger" ? 66 : m_nDaemon);
    }

    CFakePlatform& m_rPlatform = CFakePlatform::get();
    std::deque<std::string> m_vScript; // what is left of it
    uint32_t m_nDaemon = 0x1234;
    uint32_t m_nTag = 0; // of the client's latest message
    size_t m_nTaken = 0; // messages from the client that the script has seen
};

struct SRule {
    const char* m_szName;
    const char* m_szScript;
    const char* m_szTold; // and what is held in the end
    uint32_t m_nAnswerTimeout = 0;

    friend void PrintTo(const SRule& rule, std::ostream* out) { *out << rule.m_szName; }
};
class CRule : public CConversation, public ::testing::WithParamInterface<SRule> {};

} // namespace

// The component refuses 13 and gives no answer about 14.
TEST_P(CRule, Holds) {
    m_fnAnswer = [](const qel_notification& n, char*) {
        return n.code == 13 ? QEL_REFUSED : n.code == 14 ? QEL_NO_REPLY : QEL_OK;
    };
    begin(GetParam().m_szScript, GetParam().m_nAnswerTimeout);
    attend();
    qel_pair pairs[4] = {};
    for (int i = 0; i < qel_features(m_pClient, pairs, 4); ++i) {
        m_sTold += fmt::format("{}{}:{}", i == 0 ? "holds " : " ", pairs[i].code, pairs[i].data);
    }
    EXPECT_EQ(m_sTold, GetParam().m_szTold);
    EXPECT_EQ(qel_state(m_pClient), QEL_STATE_MONITORING);
}

const SRule aRules[] = {
    {"ANotificationAmidPagingIsToldAndAnsweredOnce",
     "name=0 - init - get enable=9:1 9:1 " // overtaken by its own page: no reply is awaited any more
     "get enable=8:1 1:1 ok 8:1 get - "    // on no page: answered before the next request
     "monitor disable=1:1 - ok 1:1",       // between the last page and the start of monitoring
     "enable 9:1, enable 1:1, enable 8:1, disable 1:1, holds 8:1 9:1"},
    {"NoReplyIsSentThatTheDaemonNoLongerAwaits",
     "name=0 - init - get enable=16:1 overdue=16:1 - monitor - " // overdue before the component is told
     "enable=14:1 quiet overdue=14:1 "                           // answered by nothing
     "enable=15:1 overdue=15:1 quiet " // overdue while the component still works on it
     "enable=15:1 ok -",               // comes again: held by now, answered in silence
     "enable 16:1, overdue 16:1, enable 14:1, overdue 14:1, enable 15:1, overdue 15:1, holds 15:1 16:1"},
    {"ANotificationIsJudgedByWhatIsHeld",
     "hold=1:5 name=1 - init - get 1:5 get - monitor - enable=1:5 ok - " // held exactly so: a repetition
     "enable=1:6 ok - "                       // a list put new data in place of the old
     "modify=1:6>7 ok - modify=1:6>7 ok - "   // the second a repetition
     "disable=1:6 ok - disable=1:6 ok - "     // before the new data was in force; then not held
     "modify=1:6>8 ok - "                     // of what was never taken up
     "enable=13:1 fail - enable=13:1 fail - " // refused, so not held, and offered again
     "enable=2:0 ok - enable=0:3 ok -",       // data may be 0, and so may a code
     "modify 1:5>6, modify 1:6>7, disable 1:7, enable 1:8, enable 13:1, enable 13:1, enable 2:0, "
     "enable 0:3, holds 0:3 1:8 2:0"},
    {"EachDifferenceAfterARestartIsToldOnce",
     "name=0 - init - get 1:1 get 2:1 get 3:1 get 13:1 get - monitor - restart "
     "name=3 - init - get 1:1 get 2:2 get 4:1 get 13:1 get - "
     "name=0 - init - get 1:1 get 2:2 get 4:1 get 13:1 get - " // again, without 3 that seems to be gone
     "monitor - enable=3:1 ok -",
     "enable 1:1, enable 2:1, enable 3:1, enable 13:1, enable 4:1, enable 13:1, modify 2:1>2, "
     "disable 3:1, enable 3:1, holds 1:1 2:2 3:1 4:1"},
    {"TheListIsFetchedAnewWhenTheDaemonDiesAmidPaging",
     "name=0 - init - get 1:1 get restart name=1 - init - get 1:2 get 2:1 get - monitor -",
     "enable 1:1, enable 2:1, modify 1:1>2, holds 1:2 2:1"},
    {"ALatePageIsNoAnswerAndNoFeatureIsSkipped", // as would happen if the page alone were asked for again
     "name=0 - init - get name=0 - init - get late=5:5 6:6 get - monitor -", "enable 6:6, holds 6:6", 200},
    {"ASkippedPageIsNoWithdrawal", // a withdrawn feature left the daemon's table during the paging
     "hold=1:1 hold=2:1 name=2 - init - get 1:1 get - name=0 - init - get 1:1 get 2:1 get - monitor -",
     "holds 1:1 2:1"},
    {"OneCodeInForceTwiceIsNoChange",
     "hold=1:1 name=1 - init - get 1:2 get 1:1 get 3:1 get 3:2 get - monitor -",
     "enable 3:1, enable 3:2, enable 1:2, holds 1:1 1:2 3:1 3:2"},
    {"OneOfTwoDataValuesIsWithdrawnOnlyIfItIsMissingTwice", // the other one is replaced
     "hold=1:1 hold=1:2 name=2 - init - get 1:3 get - name=0 - init - get 1:3 get 1:2 get - monitor - "
     "restart name=2 - init - get 1:4 get - name=0 - init - get 1:4 get - monitor -",
     "modify 1:1>3, modify 1:2>4, disable 1:3, holds 1:4"},
    {"ANotificationFromBeforeTheAnnouncementIsIgnored", // it is about an earlier life of the component
     "name=0 enable=5:5 - init - get - monitor -", ""},
    {"GarbageAndStrangersAreIgnored",
     "name=0 - init - get - monitor - cut=1 cut=23 cut=24 cut=35 "
     "unknown=66:6 oam=66:6 wild=66:6 late=66:6 stranger=66:6 enable=1:1 ok -",
     "enable 1:1, holds 1:1"},
};
INSTANTIATE_TEST_SUITE_P(Conversation, CRule, ::testing::ValuesIn(aRules),
                         [](const auto& rule) { return std::string(rule.param.m_szName); });

TEST_F(CConversation, AnAnnouncementHasTheLayoutOfTheWire) {
    begin("hold=102:4294967295 hold=101:5 name=2 -");
    EXPECT_EQ(qel_announce(m_pClient, nLong), 0);
    // The client's handle is 1; its process id, and "Voice" in 20 bytes.
    const auto who = fmt::format("00000001 {:08x} 566f6963 65000000 00000000 00000000 00000000", getpid());
    EXPECT_EQ(toHex(m_rPlatform.m_vSent.front().m_sBody),
              toHex(fromHex("00000000 00000044 00000000 00000000 00000001" + who +
                            "00000002 00000065 00000005 00000066 ffffffff")));
}

TEST_F(CConversation, AnAbsentDaemonIsWaitedForAsLongAsAskedAndFoundLater) {
    m_rPlatform.m_oProcesses.clear();
    begin("name=0 - init quiet");
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(qel_announce(m_pClient, 50), QEL_ENODAEMON);
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(50));
    EXPECT_LT(took, std::chrono::milliseconds(500));
    EXPECT_EQ(qel_shutdown(m_pClient, nullptr), QEL_ENODAEMON);
    m_rPlatform.m_oProcesses["qelserver"] = m_nDaemon;
    EXPECT_EQ(qel_announce(m_pClient, nLong), 0);
    EXPECT_EQ(qel_state(m_pClient), QEL_STATE_ANNOUNCED);
    EXPECT_EQ(qel_fetch(m_pClient, 0), QEL_ETIMEDOUT);
}

// As behind a queue: every answer takes the daemon longer than the client waits at first.
TEST_F(CConversation, ASlowDaemonIsWaitedForLongerEachTimeUntilItsAnswersCount) {
    using CTime = std::chrono::steady_clock::time_point;
    begin("never", 20);
    std::vector<CTime> asked;
    m_rPlatform.m_fnOnReceive = [&] {
        const CTime now = std::chrono::steady_clock::now();
        takeQuestions();
        const auto& sent = m_rPlatform.m_vSent;
        asked.resize(sent.size(), now);
        if (m_nTaken < sent.size() && now - asked[m_nTaken] >= std::chrono::milliseconds(200)) {
            const std::string tag = toHex(sent[m_nTaken++].m_sBody.substr(16, 4));
            m_nTag = static_cast<uint32_t>(std::stoul(tag, nullptr, 16));
            send("answer", {});
        }
        usleep(1000);
    };
    EXPECT_EQ(qel_announce(m_pClient, nLong), 0);
    EXPECT_EQ(qel_fetch(m_pClient, nLong), 0);
    EXPECT_EQ(qel_monitor(m_pClient, nLong), 0);
    EXPECT_LE(asked.size(), 8u) << "4 questions, and those given up before";
}

TEST_F(CConversation, AFloodDoesNotOutlastTheTimeLimit) {
    begin("name=0 - init - get - monitor -");
    attend();
    m_fnAnswer = [](const qel_notification&, char*) {
        usleep(10000);
        return QEL_NO_REPLY;
    };
    const auto start = std::chrono::steady_clock::now();
    size_t sent = 0;
    m_rPlatform.m_fnOnReceive = [&] {
        for (int i = 0; i < 100; ++i, ++sent) {
            send("enable", {1, 1});
        }
        if (std::chrono::steady_clock::now() - start > std::chrono::seconds(100)) {
            qel_stop(m_pClient);
        }
    };
    EXPECT_EQ(qel_run(m_pClient, 100), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(600));
    m_rPlatform.m_fnOnReceive = [&, flood = m_rPlatform.m_fnOnReceive] {
        flood();
        send("overdue", {1, 1}); // so there is nothing to answer, which would end a call
    };
    size_t told = m_sTold.size() / std::strlen("enable 1:1, ");
    m_fnAnswer = [&](const qel_notification& n, char*) {
        told += n.kind == QEL_ENABLE;
        return QEL_REFUSED;
    };
    int next = -1;
    EXPECT_GT(qel_dispatch(m_pClient, &next), 0);
    EXPECT_EQ(next, 0) << "more has come meanwhile";
    m_rPlatform.m_fnOnReceive = [] {};
    while (next == 0) {
        EXPECT_GT(qel_dispatch(m_pClient, &next), 0);
    }
    EXPECT_EQ(told, sent) << "all that was there";
}

TEST_F(CConversation, ExpensiveLookUpsAreRare) {
    m_rPlatform.m_oProcesses.clear();
    open();
    int count = 0;
    m_rPlatform.m_fnOnLookup = [&count] {
        ++count;
        for (const auto start = std::clock(); std::clock() - start < CLOCKS_PER_SEC / 500;) {
        }
    };
    m_rPlatform.m_fnOnReceive = [] { usleep(1000); };
    EXPECT_EQ(qel_run(m_pClient, 1200), QEL_ENODAEMON);
    EXPECT_EQ(count, 1) << "2 ms of the processor each: once in 2 seconds";
}

TEST_F(CConversation, WhatACallbackThrowsIsARefusal) {
    begin("name=0 - init - get - monitor - enable=1:1 fail - enable=1:1 ok -");
    m_fnAnswer = [this](const qel_notification&, char* text) -> int {
        if (m_sTold.size() > 12) {
            return QEL_OK;
        }
        *text = 'x';
        throw 5;
    };
    attend();
    EXPECT_EQ(m_rPlatform.m_vSent[4].m_sBody.size(), 33u) << "without a text";
    EXPECT_EQ(qel_features(m_pClient, nullptr, 0), 1);
}

TEST_F(CConversation, CallbacksCannotReenterTheClient) {
    begin("name=0 - init - get 1:1 get - monitor -");
    m_fnAnswer = [this](const qel_notification&, char*) {
        for (int rc : {qel_run(m_pClient, 0), qel_shutdown(m_pClient, nullptr), qel_hold(m_pClient, 5, 5)}) {
            EXPECT_EQ(rc, QEL_EBUSY);
        }
        qel_close(m_pClient);
        EXPECT_EQ(qel_features(m_pClient, nullptr, 0), 0);
        qel_stop(m_pClient);
        return QEL_OK;
    };
    EXPECT_EQ(qel_run(m_pClient, nLong), QEL_ESTOPPED); // stopped before it was up
    attend();                                           // goes on where it was
    EXPECT_EQ(m_sTold, "enable 1:1, ");
}

TEST_F(CConversation, BadArgumentsAreRefused) {
    qel_client* other = nullptr;
    for (const char* name : {"", "SeventeenLetters!", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(qel_open(name, nullptr, &other), QEL_EINVAL);
    }
    struct {
        qel_options m_oKnown = {};
        uint64_t m_nLater = 0;
    } options;
    for (const auto& [size, reserved, later] :
         {std::array<uint32_t, 3>{0, 0, 0}, {sizeof(qel_options), 1, 0}, {sizeof options, 0, 1}}) {
        options.m_oKnown.size = size;
        options.m_oKnown.reserved = static_cast<int>(reserved);
        options.m_nLater = later;
        EXPECT_EQ(qel_open("Voice", &options.m_oKnown, &other), QEL_EINVAL) << size;
    }
    EXPECT_EQ(openFromC(&m_pClient), 0);
    EXPECT_EQ(qel_fd(m_pClient), QEL_EPLATFORM); // the scripted one has none
    EXPECT_EQ(qel_open("Second", nullptr, &other), QEL_EBUSY);
    EXPECT_EQ(other, nullptr);
    EXPECT_EQ(qel_hold(m_pClient, 0, 0), QEL_EINVAL); // ends a list on the wire
    EXPECT_EQ(qel_wait(nullptr, 0), QEL_EINVAL);
    qel_close(m_pClient);
    EXPECT_EQ(qel_open("SixteenLetters!!", nullptr, &m_pClient), 0);
}
