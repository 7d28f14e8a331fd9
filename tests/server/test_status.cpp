// What whoever asks is told, page by page, while the tables change.
#include "base/clock.h"
#include "features/counters.h"
#include "features/delivery.h"
#include "features/world.h"
#include "messaging/endpoint/CMFWServer.h"
#include "messaging/wire/holdings.h"
#include "messaging/wire/status.h"
#include "server/loop/CQelServer.h"
#include "server/status/CWalk.h"
#include "server/status/recorder.h"
#include "server/status/status.h"
#include "source/CFeatureSource.h"
#include "source/list/list_digest.h"
#include "support/files.h"
#include "support/scarce_memory.h"

#include <algorithm>
#include <ctime>
#include <fmt/format.h>
#include <map>
#include <random>
#include <thread>
#include <unistd.h>

namespace {

constexpr uint32_t nAsker = 0x77;

struct SPage {
    CStatusAnswer m_oAnswer;
    std::vector<SStatusRecord> m_vRecords;
    std::string m_sBody; // which the records lie in
};

class CStatusTest : public CHeartTest {
protected:
    CStatusTest() {
        CMFWServer::instance()->init();
        startAnswering(*CMFWServer::instance(), nullptr);
    }
    ~CStatusTest() override { setDeliveryWitness(nullptr); }

    static SPage ask(std::string_view body) {
        platform().takeSent();
        platform().takeLog();
        CFakePlatform::handOver(platform().m_oCallbacks.at(nQelStatusMfwMsgId), nQelStatusMfwMsgId, body,
                                nAsker);
        SPage page;
        const auto sent = platform().takeSent();
        EXPECT_EQ(takeLines(), CTexts{}) << "asking is not logged";
        EXPECT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent.at(0).m_nHandle, nAsker);
        EXPECT_EQ(sent.at(0).m_nType, nQelStatusMfwMsgId);
        page.m_sBody = sent.at(0).m_sBody;
        std::span<const uint8_t> rest(reinterpret_cast<const uint8_t*>(page.m_sBody.data()),
                                      page.m_sBody.size());
        EXPECT_LE(rest.size(), nMaxStatusAnswer);
        page.m_oAnswer = readBody<CStatusAnswer>(rest.data(), rest.size());
        rest = rest.subspan(sizeof page.m_oAnswer);
        while (!rest.empty()) {
            page.m_vRecords.push_back(takeRecord(rest).value());
        }
        EXPECT_EQ(page.m_vRecords.size(), page.m_oAnswer.m_nCount);
        return page;
    }
    static SPage ask(const CStatusQuestion& question) {
        const auto body = bytesOf(question);
        return ask(std::string_view(body.data(), body.size()));
    }

    static CStatusQuestion about(EStatusQuestion what, uint32_t filter = 0, uint32_t code = 0,
                                 std::string_view component = "") {
        CStatusQuestion question;
        question.m_nQuestion = what;
        question.m_nTag = 5;
        question.m_nFilter = filter;
        question.m_nCode = code;
        component.copy(question.m_szComponent, nNameFieldSize);
        return question;
    }

    // "code data component state sends why text" of each delivery.
    static CTexts deliveries(uint32_t filter = 0, uint32_t code = 0, std::string_view component = "") {
        CTexts told;
        for (const SStatusRecord& one : ask(about(sqDeliveries, filter, code, component)).m_vRecords) {
            const auto record = readRecord<CStatusDelivery>(one);
            told.push_back(fmt::format("{} {} {} {} {} {} {}", uint32_t{record.m_nCode},
                                       uint32_t{record.m_nData}, fieldText(record.m_szComponent),
                                       uint32_t{record.m_nState}, uint32_t{record.m_nSends},
                                       uint32_t{record.m_nWhy}, one.m_sText));
        }
        return told;
    }

    // "component code data from>to cause: why text" of each step after the number; why only of failures.
    static CTexts steps(uint64_t after, uint32_t result = srOk) {
        auto question = about(sqTransitions);
        setNumber(question.m_oCursor.m_aWords, after);
        const SPage page = ask(question);
        EXPECT_EQ(page.m_oAnswer.m_nResult, result);
        EXPECT_TRUE(page.m_oAnswer.m_nMore == 1 || number(page.m_oAnswer.m_oCursor.m_aWords) == last());
        CTexts told;
        for (const SStatusRecord& one : page.m_vRecords) {
            const auto step = readRecord<CStatusTransition>(one);
            told.push_back(fmt::format(
                "{} {} {} {}>{} {}{}", fieldText(step.m_szComponent), uint32_t{step.m_nCode},
                uint32_t{step.m_nData}, uint32_t{step.m_nFrom}, uint32_t{step.m_nTo},
                aCauseWords[step.m_nCause],
                step.m_nWhy == swNone ? "" : fmt::format(": {} {}", uint32_t{step.m_nWhy}, one.m_sText)));
        }
        return told;
    }

    // "code data held under-way" of each pair in force, from all pages.
    static CTexts held(CStatusQuestion question) {
        CTexts told;
        for (uint32_t more = 1; more == 1;) {
            const SPage page = ask(question);
            for (const SStatusRecord& one : page.m_vRecords) {
                const auto pair = readRecord<CStatusHeld>(one);
                told.push_back(fmt::format("{} {} {} {}", +pair.m_nCode, +pair.m_nData, +pair.m_nHeld,
                                           +pair.m_nUnderWay));
            }
            question.m_oCursor = page.m_oAnswer.m_oCursor;
            more = page.m_oAnswer.m_nMore;
        }
        return told;
    }

    static CStatusSummary summary() {
        return readRecord<CStatusSummary>(ask(about(sqSummary)).m_vRecords.at(0));
    }
    static uint64_t last() { return number(summary().m_aLastTransition); }

    static std::map<std::string, uint64_t> counters() {
        std::map<std::string, uint64_t> all;
        for (const SStatusRecord& one : ask(about(sqCounters)).m_vRecords) {
            all[std::string(one.m_sText)] = number(readRecord<CStatusCounter>(one).m_aValue);
        }
        return all;
    }
};

TEST_F(CStatusTest, AConversationIsToldStepByStep) {
    const uint64_t before = last();
    auto counted = counters();
    feature(1, 10, EFStatus::fsActive, {"Voice"});
    feature(2, 20, EFStatus::fsNewAdd, {"Voice", "Gateway"});
    announce("Voice", 11, 0x21);
    announce("Gateway", 12, 0x22);
    monitor(0x21);
    receive(header(1, 5, 0x21) + words({0, 7}) + std::string("no module\0", 10));
    platform().advance(3);
    monitor(0x22);

    EXPECT_EQ(steps(before),
              (CTexts{"Voice 1 10 0>0 taken in", "Voice 2 20 0>0 taken in", "Gateway 2 20 0>0 taken in",
                      "Voice 1 10 0>1 told", "Voice 1 10 1>3 refused: 1 no module", "Voice 2 20 0>1 audit",
                      "Gateway 2 20 0>1 audit"}));
    const std::string refused = "1 10 Voice 3 0 1 no module", voice = "2 20 Voice 1 0 0 ",
                      gateway = "2 20 Gateway 1 0 0 ";
    EXPECT_EQ(deliveries(), (CTexts{refused, voice, gateway}));
    EXPECT_EQ(deliveries(sfCode, 2), (CTexts{voice, gateway}));
    EXPECT_EQ(deliveries(sfComponent, 0, "Voice"), (CTexts{refused, voice}));
    reply(0x22, 1);
    EXPECT_EQ(deliveries(sfOpen), (CTexts{refused, voice}));
    EXPECT_EQ(deliveries(sfOpen | sfFailed), CTexts{refused});
    EXPECT_EQ(deliveries(sfOpen | sfCode | sfComponent, 2, "Gateway"), CTexts{});

    reply(0x22, 1);
    receive(header(99, 1, 0x22));
    const std::pair<const char*, uint64_t> grown[] = {
        {"refused", 1},        {"accepted", 1},    {"overdue", 0},    {"given-up", 0},
        {"received.other", 1}, {"not-awaited", 1}, {"sent.failed", 0}};
    for (const auto& [name, by] : grown) {
        EXPECT_EQ(counters()[name] - counted[name], by) << name;
    }
}

TEST_F(CStatusTest, EachAnswerIsToldToTheByte) {
    nTableMoves = 0;
    EXPECT_TRUE(control().addFeature(nullptr)); // empty slots
    EXPECT_TRUE(control().addComponent(nullptr));
    CFeatureEntry& entry = feature(1, 10, EFStatus::fsModify, {"Voice", "X"});
    entry.m_sName = CString("One");
    entry.m_nNewData = 11;
    feature(1, 9, EFStatus::fsDeleted, {});
    CComponent& voice = component("Voice", 0x21);
    CCompStatus& delivery = record(entry, voice, CCompStatus::csModifying);
    delivery.m_nEnableTries = 4;
    delivery.m_nDisableTries = 2;
    platform().advance(1);
    voice.init({0, 0, 1, 5, 5, 0x21}, nullptr, 7, "no");
    voice.m_nProcessId = static_cast<uint32_t>(getpid());
    voice.m_tDead = 7;
    notePass();
    EXPECT_EQ(voice.m_tDead, 0u);
    voice.m_nProcessId = 0x7FFFFFFF;
    platform().m_nMicroseconds += 1000007;
    deliver(dvRefuse, entry, delivery);
    delivery.m_nModifyTries = 1;
    for (int pass = 0; pass < 2; ++pass) { // it stays dead since the first
        notePass();
        platform().advance(1);
    }
    const std::string page = "00000005 00000000 00000001 00000000 ",
                      noPage = "00000000 00000000 00000000 00000000 ",
                      atLeaver = "80000003 00000001 00000009 ffffffff ",
                      name = "566f6963 65000000 00000000 00000000 00000000 ";
    const std::string process = toHex(words({static_cast<uint32_t>(getpid())}));
    const std::pair<EStatusQuestion, std::string> answers[] = {
        // dots: what no two runs have in common
        {sqSummary, page + noPage + "00000040 00000005" + process +
                        "000f4240 000f4244 00000001 00000000 00000001"
                        "00000000 00000001 00000000 ........ ........ ........ ........ ........ .........."},
        {sqComponents, page + "00000002 00000021 7fffffff ffffffff 00000034 00000002" + name +
                           "7fffffff 00000021 00000001 000f4241 000f4242 00000007 6e6f"},
        {sqFeatures,
         "00000005 00000000 00000002 00000000" + atLeaver +
             "00000020 0000000b 00000001 0000000a 0000000b 00000001 00000001 00000000 4f6e6500566f6963650058"
             "00000020 00000000 00000001 00000009 00000000 00000003 00000001 00000001"},
        {sqDeliveries, page + atLeaver +
                           "00000044 00000002 00000001 0000000a 0000000b 00000001 0000000b 00000000"
                           "000f4242 00000001 00000001" +
                           name + "000f4242 6e6f"},
        {sqTransitions, page +
                            "........ ........ 00000000 00000000 00000044 00000002 ........ ........ 000f4242"
                            "00000007 00000001 0000000a 00000009 0000000b 00000003" +
                            name + "00000001 6e6f"},
        {sqTally, page + atLeaver +
                      "0000003c 00000000 00000000 00000000 00000000 00000000 00000000 00000000"
                      "00000000 00000000 00000000 00000000 00000000 00000001 00000000"}};
    for (auto [what, answer] : answers) {
        auto question = about(what);
        if (what == sqTransitions) {
            setNumber(question.m_oCursor.m_aWords, last() - 1);
        }
        std::string told = toHex(ask(question).m_sBody.substr(8));
        std::erase(answer, ' ');
        for (size_t i = answer.find('.'); i < told.size(); i = answer.find('.', i + 1)) {
            told[i] = '.';
        }
        EXPECT_EQ(told, answer) << what;
    }
    CBigEndian32 highFirst[2];
    setNumber(highFirst, 0x0123456789ABCDEF);
    EXPECT_EQ(highFirst[0], 0x01234567u);
    EXPECT_EQ(number(highFirst), 0x0123456789ABCDEFu);
}

// Why a delivery failed is told with the words of this refusal, not of an earlier one.
TEST_F(CStatusTest, AFailureIsToldWithItsReason) {
    uint64_t givenUp = counters()["given-up"];
    feature(3, 30, EFStatus::fsActive, {"Voice"});
    announce("Voice", 11, 0x21);
    monitor(0x21);
    reply(0x21, 9); // without a text
    EXPECT_EQ(deliveries(), CTexts{"3 30 Voice 3 0 1 "});
    const uint64_t refused = last();
    newList({fresh(3, 31)});
    for (int i = 0; i < 10; ++i) { // nobody answers
        control().audit();
        platform().advance(12);
        control().timeout();
    }
    EXPECT_EQ(deliveries(), CTexts{"3 31 Voice 11 0 2 "});
    EXPECT_EQ(counters()["given-up"], givenUp + 1);
    CFeatureEntry& silent = feature(4, 40, EFStatus::fsActive, {"Voice"});
    record(silent, *control().findCompByMFW(0x21), 0).m_nDisableTries = 1;
    for (uint32_t sends : {1U, 2U, 3U}) {
        control().audit();
        EXPECT_EQ(deliveries(sfCode, 4), CTexts{fmt::format("4 40 Voice 1 {} 0 ", sends)});
    }
    control().audit();
    EXPECT_EQ(deliveries(sfCode, 4), CTexts{"4 40 Voice 3 3 2 "}) << "three sends were not answered";
    EXPECT_EQ(counters()["given-up"], givenUp + 2);
    EXPECT_EQ(steps(refused - 1).at(0), "Voice 3 30 1>3 refused: 1 ");
    CComponent& voice = *control().findCompByMFW(0x21);
    for (const auto& text :
         {std::string(nMaxReplyTextLength, 'o'), std::string()}) { // in each place there is
        voice.init(voice.m_oHeader, nullptr, 7, text.c_str());
        for (uint32_t i = 0; i < nKeptReasons; ++i) {
            CFeatureEntry& other = feature(100 + i, text.empty() ? 2 : 1, EFStatus::fsActive, {"Voice"});
            EXPECT_EQ(deliver(dvRefuse, other, record(other, voice, 1)), ocTaken);
            if (i == 253 && !text.empty()) {
                EXPECT_EQ(deliveries(sfCode, 3), CTexts{"3 31 Voice 11 0 2 "}) << "one of 256 that are kept";
            }
        }
        EXPECT_TRUE(deliveries(sfCode, 100).back().ends_with(fmt::format("Voice 3 0 1 {}", text)));
    }
    EXPECT_EQ(deliveries(sfCode, 3), CTexts{"3 31 Voice 11 0 3 "}) << "it is not kept any more, and says so";
    EXPECT_EQ(steps(refused - 1).at(0), "Voice 3 30 1>3 refused: 3 ");
    const uint64_t failed = last();
    shutDown(0x21);
    EXPECT_EQ(steps(failed).at(0), "Voice 3 31 11>11 left") << "no failure of its own";
}

TEST_F(CStatusTest, TheRecorderTellsWhatItLost) {
    feature(1, 10, EFStatus::fsActive, {"Voice", "Gateway"});
    feature(1, 20, EFStatus::fsActive);
    feature(2, 20, EFStatus::fsActive);
    announce("Voice", 11, 0x21);
    announce("Gateway", 12, 0x22);
    uint64_t before = last();
    newList({fresh(1, 10), fresh(1, 20), fresh(2, 20)});
    EXPECT_EQ(steps(before), CTexts{}) << "they stay idle";
    for (CFeatureEntry* entry : control().features().m_vItems) {
        for (CCompStatus* record : entry->m_vCompStatus) {
            record->m_eStatus = CCompStatus::csEnabled;
        }
    }
    newList({});
    EXPECT_EQ(steps(before), (CTexts{"Voice 1 10 2>0 new list", "Gateway 1 10 2>0 new list",
                                     "Voice 1 20 2>0 new list", "Voice 2 20 2>0 new list"}));
    newList({});
    EXPECT_EQ(steps(before + 4), CTexts{});
    EXPECT_EQ(steps(before + 9, srGap), steps(0)) << "another daemon's number";
    for (size_t i = 0; i < nKeptTransitions; ++i) {
        deliver(dvTakeIn, *control().features().m_vItems[0],
                *control().features().m_vItems[0]->m_vCompStatus[i % 2]);
    }
    EXPECT_EQ(steps(last() - nKeptTransitions).size(), steps(before, srGap).size());
    EXPECT_EQ(steps(last() - 1), CTexts{"Gateway 1 10 6>6 taken in"});
    const uint64_t all = last();
    for (size_t i = 0; i < nMaxResets + 9; ++i) { // two records each
        for (CCompStatus* record : control().features().m_vItems[0]->m_vCompStatus) {
            record->m_eStatus = CCompStatus::csEnabled;
        }
        ++control().features().m_vItems[0]->m_nCode;
        control().features().m_vItems[0]->setCompStatus(CCompStatus::csIdle);
    }
    EXPECT_EQ(last() - all, nMaxResets + nMaxResets / 2 + 9) << "of a long list one step for each feature";
    EXPECT_TRUE(steps(last() - 1).at(0).starts_with(" "));
    before = last();
    const std::unique_ptr<CFeatureEntry> leaver(control().features().m_vItems[0]);
    control().delFeature(leaver.get());
    leaver->clear();
    EXPECT_EQ(steps(before).size(), 1u) << "one step for all";
}

// A record costs a look of its own: the page ends before an entry, or in it.
TEST_F(CStatusTest, APageEndsAfterSoManyLooks) {
    for (const uint32_t bare : {1u, 4097u}) {
        empty();
        CComponent& voice = component("Voice");
        for (uint32_t code = 1; code <= 4098; ++code) {
            CFeatureEntry& entry = feature(code, 1, EFStatus::fsActive, {});
            if (code != bare) {
                record(entry, voice, CCompStatus::csEnabled);
            }
        }
        const CStatusAnswer answer = ask(about(sqTally)).m_oAnswer;
        EXPECT_EQ(answer.m_nMore, 1u);
        EXPECT_EQ(answer.m_oCursor.m_aWords[0] & 0xFFFFFFu, 4096u) << bare;
    }
    for (uint32_t code = 4099; code <= 8193; ++code) { // one look each, whatever is asked for
        feature(code, 1, EFStatus::fsActive, {});
    }
    EXPECT_EQ(ask(about(sqFeatures, sfCode, 9000)).m_oAnswer.m_oCursor.m_aWords[1], 8192u);
}

TEST_F(CStatusTest, WhatAComponentHoldsIsToldPairByPairAndInSum) {
    CComponent& voice = component("Voice");
    // The feature's status, pending data and the record's state (-1: none). What is told: data (0: nothing, as
    // it is not in force), whether it is held, and whether something is under way where changes are told or not.
    const std::tuple<EFStatus, uint32_t, int, uint32_t, EHeld, bool, bool> rows[] = {
        {EFStatus::fsActive, 0, 2, 10, heHeld, false, false},
        {EFStatus::fsActive, 0, 3, 10, heRefused, false, false},
        {EFStatus::fsModify, 11, 10, 11, heHeld, false, false},
        {EFStatus::fsModify, 0, 11, 10, heRefused, false, false},
        {EFStatus::fsActive, 11, 1, 10, heNeither, true, true},
        {EFStatus::fsModify, 11, 2, 11, heHeld, true, false},
        {EFStatus::fsActive, 0, -1, 10, heNeither, true, true},
        {EFStatus::fsExisting, 0, 4, 10, heNeither, true, false},
        {EFStatus::fsActive, 0, 6, 10, heNeither, false, false},
        {EFStatus::fsDeleted, 0, 5, 0, heNeither, true, true},
        {EFStatus::fsDeleted, 0, -1, 0, heNeither, false, false}};
    CTexts pairs[2];
    uint32_t code = 0, underWay[2] = {};
    uint64_t digest = 0;
    for (const auto& [status, newData, state, data, kind, isTold, isQuiet] : rows) {
        CFeatureEntry& entry = feature(++code, 10, status);
        entry.m_nNewData = newData;
        if (state >= 0) {
            record(entry, voice, state);
        }
        digest += data != 0 ? digestOf({code, data}, kind) : 0;
        for (const bool isMonitored : {false, true}) {
            const bool isUnderWay = isMonitored ? isTold : isQuiet;
            underWay[isMonitored] += isUnderWay;
            if (data != 0) {
                pairs[isMonitored].push_back(
                    fmt::format("{} {} {:d} {:d}", code, data, uint32_t{kind}, isUnderWay));
            }
        }
    }
    feature(++code, 10, EFStatus::fsActive, {"Gateway"});
    const auto sum = [](std::string_view name) {
        const auto told = readRecord<CStatusHoldings>(ask(about(sqHoldings, 0, 0, name)).m_vRecords.at(0));
        return fmt::format("{} {} {} {} {} {} {}", +told.m_nHandle, +told.m_nProcessId, +told.m_nGone,
                           +told.m_nMonitors, +told.m_nInForce, +told.m_nUnderWay, number(told.m_aDigest));
    };
    for (const auto& [monitor, process, isGone] : {std::tuple{1U, 0x7FFFFFFF, 1}, {0U, getpid(), 0}}) {
        voice.m_bMonitor = static_cast<uint8_t>(monitor);
        voice.m_nProcessId = static_cast<uint32_t>(process);
        EXPECT_EQ(sum("Voice"),
                  fmt::format("33 {} {} {} 9 {} {}", process, isGone, monitor, underWay[monitor], digest));
        EXPECT_EQ(held(about(sqHeld, 0, 0, "Voice")), pairs[monitor]);
    }
    EXPECT_EQ(held(about(sqHeld, sfCode, 3, "Voice")), CTexts{"3 11 1 0"});
    EXPECT_EQ(sum("Nobody") + sum(""), "0 0 0 0 0 0 00 0 0 0 0 0 0");
}

// Each of these features counts as two looks, and more pairs than fit into a page.
TEST_F(CStatusTest, HoldingsArePagedByRoomAndByLooks) {
    CComponent& voice = component("Voice");
    CTexts pairs;
    for (uint32_t code = 1; code <= 8193; ++code) {
        record(feature(code, 1, EFStatus::fsActive, {"Voice", "X", "Y"}), voice, CCompStatus::csEnabled);
        pairs.push_back(fmt::format("{} 1 1 0", code));
    }
    EXPECT_EQ(held(about(sqHeld, 0, 0, "Voice")), pairs);
    auto question = about(sqHoldings, 0, 0, "Voice");
    for (const uint32_t last : {8192u, 8193u}) {
        const CStatusAnswer answer = ask(question).m_oAnswer;
        question.m_oCursor = answer.m_oCursor;
        EXPECT_EQ(answer.m_oCursor.m_aWords[0] & nPositions, last);
        EXPECT_EQ(answer.m_nMore, last == 8192 ? 1u : 0u);
    }
}

TEST_F(CStatusTest, AnAnswerThatCannotBeMadeOrSentIsNone) {
    const auto errors = counters()["sent.failed"];
    platform().fail("OvuMfwSendMessage", 11);
    const OvuMfwCallback callback = platform().m_oCallbacks.at(nQelStatusMfwMsgId);
    CFakePlatform::handOver(callback, nQelStatusMfwMsgId, "", nAsker);
    EXPECT_EQ(counters()["sent.failed"], errors + 1);
    callback(nQelStatusMfwMsgId, 0, nullptr, 0);
    const CScarceMemory scarce(1);
    CFakePlatform::handOver(callback, nQelStatusMfwMsgId, "", nAsker);
    EXPECT_TRUE(CScarceMemory::hasFailed());
    EXPECT_EQ(platform().takeSent().size(), 0u);
}

TEST_F(CStatusTest, AWaitIsNoWork) {
    using CPause = std::chrono::milliseconds;
    noteTurn(1);
    summary(); // begins work
    std::this_thread::sleep_for(CPause(2));
    noteTurn(1);
    EXPECT_GE(summary().m_nLatestTurn, 2000u);
    noteTurn(1);
    std::this_thread::sleep_for(CPause(2));
    noteTurn(1);
    EXPECT_EQ(summary().m_nLatestTurn, 0u);
    EXPECT_GE(summary().m_nBusiestTurn, 2000u);
    CQelServer server;
    server.init();
    server.checkSignal();
    EXPECT_EQ(oWorkBegan, decltype(oWorkBegan){}) << "what comes after the passes is a wait";
    std::map<uint32_t, uint32_t> untilPass; // at turns after one that lasted, of which 100 ms count
    uint32_t turn = 0;
    platform().m_fnReceiveEvent = [&] {
        if (++turn == 2 || turn == 213 || turn == 215) {
            untilPass[turn] = summary().m_nNextPass;
        }
        if (turn == 1 || turn == 212 || turn == 214) {
            std::this_thread::sleep_for(CPause(101));
        }
        return turn == 215;
    };
    server.run();
    EXPECT_EQ(untilPass, (std::map<uint32_t, uint32_t>{{2, 21200}, {213, 100}, {215, 21300}}));
}

TEST_F(CStatusTest, WhatIsNotUnderstoodIsSaidSo) {
    EXPECT_EQ(ask("").m_oAnswer.m_nResult, srUnknown);
    EXPECT_EQ(ask(about(static_cast<EStatusQuestion>(99))).m_oAnswer.m_nResult, srUnknown);
    auto newer = about(sqSummary);
    newer.m_nVersion = 2;
    const SPage page = ask(newer);
    EXPECT_EQ(page.m_oAnswer.m_nResult, srUnknown);
    EXPECT_EQ(page.m_oAnswer.m_nVersion, nStatusVersion);
    EXPECT_EQ(page.m_oAnswer.m_nTag, 5u);
}

TEST_F(CStatusTest, ANameTooLongForAPageDoesNotStopThePaging) {
    feature(1, 10, EFStatus::fsActive, {"Voice"}).m_sName =
        CString(std::string(nMaxStatusAnswer, 'x').c_str());
    const SPage page = ask(about(sqFeatures));
    EXPECT_EQ(page.m_oAnswer.m_nMore, 0u);
    ASSERT_EQ(page.m_vRecords.size(), 1u);
    EXPECT_EQ(page.m_vRecords[0].m_sText, std::string(1024, 'x') + std::string("\0Voice", 6));
}

TEST_F(CStatusTest, APageAfterALostCursorIsEmpty) {
    feature(1, 10, EFStatus::fsActive, {});
    announce("Voice", 11, 0x21);
    for (const EStatusQuestion what : {sqComponents, sqFeatures, sqDeliveries, sqTally, sqHoldings, sqHeld}) {
        announce("Gateway", 12, 0x22);
        const CStatusQuestion begin = about(what, what < sqHoldings ? 0u : uint32_t{sfComponent}, 0, "Voice");
        CStatusQuestion question = begin;
        const auto ends = {+[] { newList({}); },
                           +[] { shutDown(0x22); }}; // entries and records may have moved
        for (const auto end : ends) {
            question.m_oCursor = ask(begin).m_oAnswer.m_oCursor;
            shutDown(0x99); // a stranger's, which moves nothing
            EXPECT_EQ(ask(question).m_oAnswer.m_nResult, srOk) << what;
            EXPECT_EQ(ask(question).m_vRecords.size(), what == sqTally || what == sqHoldings ? 1u : 0u)
                << what << ": all was told but for a sum of nothing";
            end();
            EXPECT_EQ(ask(question).m_oAnswer.m_nResult, srChanged) << what;
        }
        question.m_oCursor.m_aWords[1] = 99;
        const SPage page = ask(question);
        EXPECT_EQ(page.m_oAnswer.m_nResult, srChanged) << what;
        EXPECT_EQ(page.m_vRecords.size(), 0u) << what;
    }
}

TEST_F(CStatusTest, TheEntryInForceIsNotTakenForTheOneThatLeft) {
    feature(0, 1, EFStatus::fsActive, {});
    CFeatureEntry& leaver = feature(0, 1, EFStatus::fsDeleted, {"Voice"});
    leaver.m_bSourced = 1;
    component("Voice");
    std::vector<CStatusQuestion> questions;
    for (const auto what : {sqFeatures, sqHoldings, sqHeld}) {
        CStatusQuestion& question = questions.emplace_back(about(what, 0, 0, "Voice"));
        question.m_oCursor = ask(question).m_oAnswer.m_oCursor;
        EXPECT_EQ(ask(question).m_oAnswer.m_nResult, srOk) << what;
    }
    control().delFeature(&leaver);
    delete &leaver;
    for (const CStatusQuestion& question : questions) {
        const SPage page = ask(question);
        EXPECT_EQ(page.m_oAnswer.m_nResult, srChanged);
        EXPECT_EQ(page.m_vRecords.size(), 0u);
    }
}

// Features come and go between the pages. Each delivery that stands all the while is told once, unless the
// asker is told to begin anew, and that only where the entry at the cursor went.
TEST_F(CStatusTest, PagesTellEachThatStaysOnce) {
    std::mt19937 random(1);
    int rounds[2] = {};
    for (int round = 0; round < 60; ++round) {
        empty();
        for (const char* name : {"A", "B", "C", "D", "E", "F", "G", "H"}) {
            component(name, static_cast<uint32_t>(*name));
        }
        const auto grow = [&](uint32_t code) {
            CFeatureEntry& entry = feature(code, 1, EFStatus::fsActive, {});
            for (CComponent* comp : control().components().m_vItems) {
                record(entry, *comp, CCompStatus::csEnabled);
            }
        };
        for (uint32_t code = 1; code <= 400; ++code) {
            grow(code);
        }
        std::map<uint32_t, int> told;
        std::set<uint32_t> gone;
        auto question = about(sqDeliveries, round % 3 == 0 ? uint32_t{sfComponent} : 0, 0, "D");
        SPage page;
        uint32_t at = 0; // the code at the cursor
        do {
            at = question.m_oCursor.m_aWords[1];
            page = ask(question);
            for (const SStatusRecord& one : page.m_vRecords) {
                ++told[readRecord<CStatusDelivery>(one).m_nCode];
            }
            question.m_oCursor = page.m_oAnswer.m_oCursor;
            for (int i = 0; i < 8; ++i) {
                const auto& table = control().features().m_vItems;
                const std::unique_ptr<CFeatureEntry> entry(table[random() % table.size()]);
                gone.insert(entry->m_nCode);
                control().delFeature(entry.get());
            }
            grow(1000 + static_cast<uint32_t>(told.size()));
        } while (page.m_oAnswer.m_nMore == 1);
        const bool isChanged = page.m_oAnswer.m_nResult == srChanged;
        ++rounds[isChanged];
        EXPECT_TRUE(!isChanged || gone.contains(at)) << round;
        for (uint32_t code = 1; code <= 400 && !isChanged; ++code) {
            EXPECT_TRUE(gone.contains(code) || told[code] == (round % 3 == 0 ? 1 : 8))
                << round << " " << code;
        }
    }
    EXPECT_GT(rounds[0], 20);
    EXPECT_GT(rounds[1], 0);
}

// Each step: what the file is made, and then "in force, kept, features, before, withdrawn, much; result,
// errors".
TEST_F(CStatusTest, TheListIsToldWithWhatBecameOfItsFile) {
    const auto list = [](uint32_t features) {
        std::string text = "# list\n";
        for (uint32_t code = 1; code <= features; ++code) {
            text += fmt::format("[[feature]]\ncode = {}\ndata = 1\ncomponents = []\n", code);
        }
        return text;
    };
    const CTestDirectory directory;
    const std::string path = directory.file("list");
    std::optional<CFeatureSource> source;
    const auto start = [&] {
        source.emplace(path, directory.file("state"), std::chrono::milliseconds(5));
        source->supply(control());
        startAnswering(*CMFWServer::instance(), &*source);
    };
    const auto before = counters();
    put(path, list(5));
    start();
    std::string inForce = list(5), text;
    CStatusList told;
    const auto look = [&] {
        const SPage page = ask(about(sqList));
        told = readRecord<CStatusList>(page.m_vRecords.at(0));
        text = page.m_vRecords[0].m_sText;
        return fmt::format("{} {} {} {} {} {}; {} {}", +told.m_nInForce, +told.m_nKept, +told.m_nFeatures,
                           +told.m_nBefore, +told.m_nWithdrawn, +told.m_nMuch,
                           aListResultWords.at(told.m_nResult), +told.m_nErrors);
    };
    EXPECT_EQ(look(), "1 0 5 0 0 0; taken 0");
    EXPECT_EQ(text, path);
    const struct {
        std::string m_sFile, m_sTold, m_sErrors;
        bool m_bTaken = false;
    } steps[] = {
        {"# the same\n" + list(5), "1 0 5 0 0 0; unchanged 0", ""},
        {"x = 1\n" + list(4) + "y = 1", "1 0 5 0 0 0; refused 2", "1: unknown key 'x'"},
        {list(4), "1 0 4 5 1 0; taken 0", "", true},
        {list(3), "1 0 3 4 1 1; taken 0", "", true},
        {"", "1 0 3 4 1 1; refused 1", "0: holds no feature"},
    };
    for (const auto& step : steps) {
        platform().advance(1);
        put(path, step.m_sFile);
        for (int turn = 0; turn < 100 && told.m_tRead != nowSeconds(); ++turn) {
            source->turn();
            source->takeMail();
            look();
        }
        inForce = step.m_bTaken ? step.m_sFile : inForce;
        EXPECT_EQ(look(), step.m_sTold);
        EXPECT_TRUE(text.starts_with(path + (step.m_sErrors.empty() ? "" : '\0' + step.m_sErrors))) << text;
        EXPECT_EQ(number(told.m_aDigest), listDigest(inForce));
        EXPECT_EQ(told.m_nSize, inForce.size());
        EXPECT_EQ(number(told.m_aReadDigest), listDigest(step.m_sFile));
        EXPECT_EQ(told.m_tLoaded == told.m_tRead, step.m_bTaken);
    }
    EXPECT_EQ(counters()["lists.taken"] - before.at("lists.taken"), 3u);
    EXPECT_EQ(counters()["lists.refused"] - before.at("lists.refused"), 2u);
    start();
    EXPECT_EQ(look(), "1 1 3 0 0 0; refused 1");
    for (const std::string first : {"k", "kk"}) { // of the errors' 4,095 and 4,096 bytes as many as fit
        std::string file = std::string(99, '\n') + first;
        for (int line = 100; line < 228; ++line) {
            file += fmt::format("{:012} = 1\n", line);
        }
        put(path, file);
        start();
        look();
        EXPECT_EQ(text.size() - path.size(), first == "k" ? 4097u : 4066u);
    }
    source.emplace(path, "", std::chrono::milliseconds(5)); // has read nothing
    for (const CFeatureSource* supply : {&*source, static_cast<CFeatureSource*>(nullptr)}) {
        startAnswering(*CMFWServer::instance(), supply);
        EXPECT_EQ(look(), "0 0 0 0 0 0; none 0");
        EXPECT_EQ(told.m_tRead, 0u);
    }
}

} // namespace
