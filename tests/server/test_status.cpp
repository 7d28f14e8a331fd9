// What whoever asks is told, page by page, while the tables change.
#include "base/clock.h"
#include "features/delivery.h"
#include "features/world.h"
#include "messaging/endpoint/CMFWServer.h"
#include "messaging/wire/status.h"
#include "server/status/status.h"
#include "source/CFeatureSource.h"
#include "source/list/list_digest.h"
#include "support/files.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <random>

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
            told.push_back(std::to_string(record.m_nCode) + " " + std::to_string(record.m_nData) + " " +
                           std::string(fieldText(record.m_szComponent)) + " " +
                           std::to_string(record.m_nState) + " " + std::to_string(record.m_nSends) + " " +
                           std::to_string(record.m_nWhy) + " " + std::string(one.m_sText));
        }
        return told;
    }

    // "component code data from>to cause" of each step after the number.
    static CTexts steps(uint64_t after, uint32_t result = srOk) {
        auto question = about(sqTransitions);
        setNumber(question.m_oCursor.m_aWords, after);
        const SPage page = ask(question);
        EXPECT_EQ(page.m_oAnswer.m_nResult, result);
        CTexts told;
        for (const SStatusRecord& one : page.m_vRecords) {
            const auto step = readRecord<CStatusTransition>(one);
            told.push_back(std::string(fieldText(step.m_szComponent)) + " " + std::to_string(step.m_nCode) +
                           " " + std::to_string(step.m_nData) + " " + std::to_string(step.m_nFrom) + ">" +
                           std::to_string(step.m_nTo) + " " + std::string(aCauseWords[step.m_nCause]));
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
                      "Voice 1 10 0>1 told", "Voice 1 10 1>3 refused", "Voice 2 20 0>1 audit",
                      "Gateway 2 20 0>1 audit"}));
    const std::string refused = "1 10 Voice 3 0 1 no module", voice = "2 20 Voice 1 0 0 ",
                      gateway = "2 20 Gateway 1 0 0 ";
    EXPECT_EQ(deliveries(), (CTexts{refused, voice, gateway}));
    EXPECT_EQ(deliveries(sfCode, 2), (CTexts{voice, gateway}));
    EXPECT_EQ(deliveries(sfComponent, 0, "Voice"), (CTexts{refused, voice}));
    reply(0x22, 1);
    EXPECT_EQ(deliveries(sfOpen), (CTexts{refused, voice}));
    EXPECT_EQ(deliveries(sfOpen | sfCode | sfComponent, 2, "Gateway"), CTexts{});

    const auto tallied = readRecord<CStatusTally>(ask(about(sqTally)).m_vRecords.at(0));
    EXPECT_EQ(tallied.m_aDeliveries[1] * 100 + tallied.m_aDeliveries[2] * 10 + tallied.m_aDeliveries[3],
              111u);

    const auto components = ask(about(sqComponents));
    const auto first = readRecord<CStatusComponent>(components.m_vRecords.at(0));
    EXPECT_EQ(fieldText(first.m_szName), "Voice");
    EXPECT_EQ(first.m_nProcessId, 11u);
    EXPECT_EQ(first.m_nReply, 7u);
    EXPECT_EQ(summary().m_tNow - first.m_tHeard, 3u);
    EXPECT_EQ(components.m_vRecords.at(0).m_sText, "no module");

    const auto features = ask(about(sqFeatures, sfCode, 2));
    EXPECT_EQ(features.m_vRecords.at(0).m_sText, std::string_view("\0Voice\0Gateway", 14));
    EXPECT_EQ(readRecord<CStatusFeature>(features.m_vRecords.at(0)).m_nSourced, 1u);
    EXPECT_EQ(summary().m_aFeatures[EFStatus::fsNewAdd], 1u);

    const std::pair<const char*, uint64_t> grown[] = {{"received.name", 2},
                                                      {"received.start-monitor", 2},
                                                      {"received.write-reply", 2},
                                                      {"sent.notify", 3},
                                                      {"sent.answer", 6},
                                                      {"refused", 1},
                                                      {"accepted", 1},
                                                      {"sent.failed", 0},
                                                      {"received.other", 0},
                                                      {"given-up", 0}};
    for (const auto& [name, by] : grown) {
        EXPECT_EQ(counters()[name] - counted[name], by) << name;
    }
}

// Why a delivery failed is told with the words of this refusal, not of an earlier one.
TEST_F(CStatusTest, AFailureIsToldWithItsReason) {
    feature(3, 30, EFStatus::fsActive, {"Voice"});
    announce("Voice", 11, 0x21);
    monitor(0x21);
    reply(0x21, 9); // without a text
    EXPECT_EQ(deliveries(), CTexts{"3 30 Voice 3 0 1 "});
    newList({fresh(3, 31)});
    for (int i = 0; i < 10; ++i) { // nobody answers
        control().audit();
        platform().advance(12);
        control().timeout();
    }
    EXPECT_EQ(deliveries(), CTexts{"3 31 Voice 11 0 2 "});
    for (uint32_t i = 0; i < nKeptReasons; ++i) {
        CFeatureEntry& other = feature(100 + i, 1, EFStatus::fsActive, {"Voice"});
        record(other, *control().findCompByMFW(0x21), 1);
        EXPECT_EQ(deliver(dvRefuse, other, *other.m_vCompStatus[0]), ocTaken);
    }
    EXPECT_EQ(deliveries(sfCode, 3), CTexts{"3 31 Voice 11 0 3 "}) << "it is not kept any more, and says so";
}

TEST_F(CStatusTest, TheRecorderTellsWhatItLost) {
    feature(1, 10, EFStatus::fsActive, {"Voice", "Gateway"});
    announce("Voice", 11, 0x21);
    announce("Gateway", 12, 0x22);
    const uint64_t before = last();
    newList({fresh(1, 11)});
    EXPECT_EQ(steps(before), CTexts{}) << "they stay idle";
    for (CCompStatus* record : control().features().m_vItems[0]->m_vCompStatus) {
        record->m_eStatus = CCompStatus::csEnabled;
    }
    newList({fresh(1, 12)});
    EXPECT_EQ(steps(before), CTexts{" 1 10 2>0 new list"}) << "one step for all";
    EXPECT_EQ(steps(before + 1), CTexts{});
    EXPECT_EQ(steps(before + 9, srGap), steps(0)) << "another daemon's number";
    for (size_t i = 0; i < nKeptTransitions; ++i) {
        deliver(dvTakeIn, *control().features().m_vItems[0],
                *control().features().m_vItems[0]->m_vCompStatus[i % 2]);
    }
    EXPECT_EQ(steps(last() - nKeptTransitions).size(), steps(before, srGap).size());
    EXPECT_EQ(steps(last() - 1), CTexts{"Gateway 1 10 0>0 taken in"});
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
    for (const EStatusQuestion what : {sqComponents, sqFeatures, sqDeliveries, sqTally}) {
        auto question = about(what);
        question.m_oCursor = {{1, 99, 99, 0}};
        const SPage page = ask(question);
        EXPECT_EQ(page.m_oAnswer.m_nResult, srChanged) << what;
        EXPECT_EQ(page.m_vRecords.size(), 0u) << what;
    }
}

TEST_F(CStatusTest, TheEntryInForceIsNotTakenForTheOneThatLeft) {
    feature(1, 1, EFStatus::fsActive, {});
    CFeatureEntry& leaver = feature(1, 1, EFStatus::fsDeleted, {"Voice"});
    leaver.m_bSourced = 1;
    auto question = about(sqFeatures);
    question.m_oCursor = ask(question).m_oAnswer.m_oCursor;
    EXPECT_EQ(ask(question).m_oAnswer.m_nResult, srOk);
    control().delFeature(&leaver);
    delete &leaver;
    EXPECT_EQ(ask(question).m_oAnswer.m_nResult, srChanged);
}

// Features come and go between the pages. Each delivery that stands all the while is told once, unless the
// asker is told to begin anew, and that only where the entry at the cursor went.
TEST_F(CStatusTest, PagesTellEachThatStaysOnce) {
    std::mt19937 random(1);
    for (const char* name : {"A", "B", "C", "D", "E", "F", "G", "H"}) {
        component(name, static_cast<uint32_t>(*name));
    }
    int rounds[2] = {};
    for (int round = 0; round < 60; ++round) {
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
                CFeatureEntry* entry =
                    control().features().m_vItems[random() % control().features().m_vItems.size()];
                gone.insert(entry->m_nCode);
                control().delFeature(entry);
                delete entry;
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
        for (CComponent* comp : control().components().m_vItems) {
            comp->clearFeatureArray();
        }
        while (!control().features().m_vItems.empty()) {
            CFeatureEntry* entry = control().features().m_vItems.back();
            control().delFeature(entry);
            delete entry;
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
    startAnswering(*CMFWServer::instance(), nullptr);
    EXPECT_EQ(look(), "0 0 0 0 0 0; none 0");
}

} // namespace
