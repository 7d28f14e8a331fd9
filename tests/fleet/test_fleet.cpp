#include "fleet/CFleetView.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <random>

namespace {

constexpr char sDigest[] = "00000000000000aa";

// What the agent tells of an appliance where the list has come to the given end.
std::string state(char outcome) {
    const auto daemon = [](int delivered, int failed, int underWay, const char* problems) {
        return fmt::format(
            R"("desired":{{"topic":"qel/1/f/desired/group/g","digest":"{0}","result":"in place"}},)"
            R"("daemon":{{"running":true}},"list":{{"in_force":true,"digest":"{0}","serial":7}},)"
            R"("deliveries":{{"delivered":{1},"failed":{2},"under_way":{3}}},)"
            R"("problem_count":{2},"problems":[{4}])",
            sDigest, delivered, failed, underWay, problems);
    };
    const auto whole = [](bool online, const std::string& rest) {
        return fmt::format(R"({{"schema":1,"groups":["g"],"online":{}{}{}}})", online,
                           rest.empty() ? "" : ",", rest);
    };
    switch (outcome) {
    case 'D':
        return whole(true, daemon(3, 0, 0, ""));
    case 'R': // a component refuses
        return whole(
            true,
            daemon(2, 1, 0, R"({"component":"Gateway","code":202,"why":"refused","reason":"no module"})"));
    case 'G':
        return whole(true, daemon(2, 1, 0, R"({"component":"Gateway","code":202,"why":"no answer"})"));
    case 'U':
        return whole(true, daemon(2, 0, 1, ""));
    case 'L': // the appliance refuses the list, and has another in force, with nothing to complain of
        return whole(
            true, fmt::format(R"("desired":{{"digest":"{}","result":"refused","errors":[{{"text":"no"}}]}},)"
                              R"("daemon":{{"running":true}},"list":{{"in_force":true,"digest":"bb"}},)"
                              R"("deliveries":{{"delivered":3}})",
                              sDigest));
    case 'O': // another list
        return whole(
            true,
            R"("daemon":{"running":true},"list":{"in_force":true,"digest":"bb"},"deliveries":{"delivered":3})");
    case 'S': // the list differs from the one before in nothing that the daemon delivers
        return whole(
            true, fmt::format(R"("daemon":{{"running":true}},"list":{{"in_force":true,"digest":"bb",)"
                              R"("read_digest":"{}","result":"unchanged"}},"deliveries":{{"delivered":3}})",
                              sDigest));
    case '-':
        return whole(false, R"("left":"2026-11-23T00:00:00Z")");
    }
    return "";
}

CReports reportsOf(std::string_view outcomes) {
    CReports reports;
    for (size_t i = 0; i < outcomes.size(); ++i) {
        if (auto report = readReport(state(outcomes[i]))) {
            reports.emplace(fmt::format("a{:05}", i), *report);
        }
    }
    return reports;
}

SRollout rolloutOf(size_t count) {
    SRollout rollout;
    rollout.m_sDigest = sDigest;
    for (size_t i = 0; i < count; ++i) {
        rollout.m_vAppliances.push_back(fmt::format("a{:05}", i));
    }
    rollout.m_nSuccess = 75;
    rollout.m_nStopAt = 25;
    rollout.m_nAtLeast = 4;
    return rollout;
}

TEST(Rollout, GoesOnOrStopsAsTheAnswersSay) {
    struct SCase {
        const char* m_szOutcomes; // '?': has told nothing at all
        double m_nStep;           // per cent that the step reaches
        bool m_bLate;
        EVerdict m_eVerdict;
        const char* m_szReason;
    };
    const SCase aCases[] = {
        {"OOOO", 100, false, EVerdict::wait, ""},
        {"DSDO", 100, false, EVerdict::finish, ""},
        {"DDDOOOOO", 50, false, EVerdict::next, ""},
        {"DDOO", 100, false, EVerdict::wait, ""},
        {"DDUU", 100, false, EVerdict::wait, ""},
        {"RROOOOOO", 100, false, EVerdict::wait, ""}, // too few have answered
        {"DRLG", 100, false, EVerdict::stop,
         "2 refused, 1 gave up, 0 fell silent of 4 that answered: more than 25 %"},
        {"DDDR", 100, false, EVerdict::finish, ""}, // not more than a quarter
        {"DDDDDDRR", 100, false, EVerdict::finish, ""},
        {"RDDDDD", 1, false, EVerdict::stop,
         "1 refused, 0 gave up, 0 fell silent of 1 that answered: more than 25 %"},
        {"DDD-", 100, false, EVerdict::finish, ""},
        {"DD--", 100, false, EVerdict::stop,
         "0 refused, 0 gave up, 2 fell silent of 4 that answered: more than 25 %"},
        {"DD??", 100, false, EVerdict::stop,
         "0 refused, 0 gave up, 2 fell silent of 4 that answered: more than 25 %"},
        {"DDOO", 100, true, EVerdict::stop,
         "0 refused, 0 gave up, 2 fell silent of 4 that answered: more than 25 %"},
    };
    for (const SCase& row : aCases) {
        SCOPED_TRACE(fmt::format("{} {}", row.m_szOutcomes, row.m_nStep));
        SRollout rollout = rolloutOf(std::string_view(row.m_szOutcomes).size());
        rollout.m_vSteps = row.m_nStep == 100 ? std::vector{100.0} : std::vector{row.m_nStep, 100.0};
        const SJudgement judgement =
            judge(rollout, reportsOf(row.m_szOutcomes), row.m_bLate ? rollout.m_nPatience : 0);
        EXPECT_EQ(judgement.m_eVerdict, row.m_eVerdict);
        EXPECT_EQ(judgement.m_sReason, row.m_szReason);
    }
    SRollout strict = rolloutOf(4);
    strict.m_nSuccess = 100;
    EXPECT_EQ(judge(strict, reportsOf("DDDR"), 0).m_sReason,
              "1 refused, 0 gave up, 0 fell silent of 4: 100 % cannot be reached");
}

TEST(Rollout, WhoWasAwayDoesNotCountUntilHeIsBack) {
    SRollout rollout = rolloutOf(4);
    EXPECT_TRUE(noteAway(rollout, reportsOf("DO--"), 0));
    rollout.m_vAppliances.resize(4);
    EXPECT_EQ(judge(rollout, reportsOf("DD--"), 0).m_eVerdict, EVerdict::finish);
    EXPECT_EQ(judge(rollout, reportsOf("----"), 0).m_oCounts.m_nSilent, 2U);
    EXPECT_TRUE(noteReturned(rollout, reportsOf("DDO-")));
    EXPECT_EQ(judge(rollout, reportsOf("DDO-"), 0).m_eVerdict, EVerdict::wait);
    EXPECT_EQ(judge(rollout, reportsOf("DD--"), 0).m_oCounts.m_nSilent, 1U) << "fell silent after its return";
    SRollout nobody = rolloutOf(2);
    noteAway(nobody, reportsOf("--"), 0);
    EXPECT_EQ(judge(nobody, reportsOf("--"), 0).m_sReason, "nobody of this step is there");
}

// Thousands of appliances, each of which answers at a random moment; a share of them badly. Whatever the dice
// say: no step begins before the share of the one before was there, the rollout ends, and it ends well only
// if few were bad.
TEST(Rollout, NeverGoesOnWithoutItsShare) {
    for (uint32_t seed = 0; seed < 20; ++seed) {
        SCOPED_TRACE(seed);
        std::minstd_rand chance(seed + 1);
        const size_t count = 2000;
        const size_t badPerMille = seed * 4;
        SRollout rollout = rolloutOf(count);
        rollout.m_sId = std::to_string(seed);
        rollout.m_vSteps = {5, 25, 100};
        rollout.m_nSuccess = 95;
        rollout.m_nStopAt = 4;
        rollout.m_nAtLeast = 50;
        CReports reports = reportsOf(std::string(count, 'O'));
        orderAppliances(rollout, reports);
        std::vector<char> ends;
        for (size_t i = 0; i < count; ++i) {
            ends.push_back(chance() % 1000 < badPerMille ? "RGL-"[chance() % 4] : 'D');
        }
        std::vector<bool> told(count);
        SJudgement judgement;
        for (int turn = 0; turn < 2000; ++turn) {
            for (size_t i = 0; i < reachOf(rollout, rollout.m_nStep); ++i) {
                if (!told[i] && chance() % 8 == 0) {
                    told[i] = true;
                    reports[rollout.m_vAppliances[i]] = *readReport(state(ends[i]));
                }
            }
            judgement = judge(rollout, reports, 0);
            const SRolloutCounts& counts = judgement.m_oCounts;
            if (judgement.m_eVerdict == EVerdict::next || judgement.m_eVerdict == EVerdict::finish) {
                ASSERT_GE(counts.m_nDelivered * 100, counts.m_nReached * 95);
                ASSERT_LE(counts.bad() * 100, counts.answered() * 4);
            }
            if (judgement.m_eVerdict == EVerdict::finish || judgement.m_eVerdict == EVerdict::stop) {
                break;
            }
            rollout.m_nStep += judgement.m_eVerdict == EVerdict::next;
        }
        const bool isStopped = judgement.m_eVerdict == EVerdict::stop;
        EXPECT_TRUE(isStopped || judgement.m_eVerdict == EVerdict::finish);
        EXPECT_TRUE(seed != 0 || !isStopped);
        EXPECT_TRUE(badPerMille < 70 || isStopped);
        EXPECT_EQ(judgement.m_oCounts.m_nReached == count, rollout.m_nStep == 2);
    }
}

// Whatever somebody has written to the broker: it is read, or it is none.
TEST(Rollout, ReadsWhatItWroteAndNothingElse) {
    SRollout rollout = rolloutOf(3);
    rollout.m_sGroup = "g";
    rollout.m_vSteps = {12.5, 100};
    rollout.m_vAway = {"a00001"};
    rollout.m_vLeftAlone = {{"x", "why"}};
    rollout.m_eState = ERolloutState::paused;
    const std::string text = printRollout(rollout);
    ASSERT_TRUE(readRollout(text));
    EXPECT_EQ(printRollout(*readRollout(text)), text);
    for (size_t i = 0; i < text.size(); ++i) {
        std::string other = text;
        other[i] = other[i] == '9' ? '[' : '9';
        if (const auto read = readRollout(other)) {
            EXPECT_LT(read->m_nStep, read->m_vSteps.size());
            EXPECT_EQ(read->m_vSteps.back(), 100);
        }
        EXPECT_FALSE(readRollout(text.substr(0, i)));
        (void)readReport(state('R').substr(0, i));
    }
    const auto withBeat = [&](const std::string& beat) {
        std::string other = text;
        const std::string key = "\"heartbeat\":";
        return readRollout(other.replace(other.find(key), key.size() + 1, key + beat));
    };
    EXPECT_FALSE(withBeat("-9223372036854775808")) << "no difference to it would be a number";
    EXPECT_FALSE(withBeat("1e300"));
    EXPECT_EQ(withBeat("18446744073709551615").value().m_tBeat, INT64_MAX);
    CFleetView view("f");
    view.take("qel/1/f/state/../x", state('D'));
    view.take("qel/1/f/state/a\x1b[2J", state('D'));
    view.take("qel/1/other/state/a", state('D'));
    view.take("qel/1/f/rollout/other", text);
    EXPECT_TRUE(view.reports().empty());
    EXPECT_TRUE(view.rollouts().empty());
    EXPECT_EQ(view.unreadable().size(), 1U);
}

TEST(Report, TellsWhatIsWrongInALine) {
    EXPECT_EQ(problemOf(*readReport(state('R'))), "Gateway refuses 202 \"no module\"");
    EXPECT_EQ(problemOf(*readReport(state('L'))), "refuses the list: no");
    EXPECT_EQ(problemOf(*readReport(state('D'))), "");
    EXPECT_EQ(sourceOf(*readReport(state('D'))), "group g");
    EXPECT_EQ(seenOf(*readReport(state('-')), 1795392000 + 3 * 86400), "3 d");
    EXPECT_EQ(seenOf(*readReport(R"({"online":false,"connected":"2026-11-23T00:00:00Z"})"), 1795392000 + 119),
              "<119 s");
}

} // namespace
