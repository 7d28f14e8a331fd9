// qelctl against a daemon of the test's own, which answers the language for looking from tables.
#include "ctl/CDaemonView.h"
#include "ctl/commands.h"
#include "ctl/json.h"
#include "fake/fake_platform.h"
#include "support/files.h"

#include <csignal>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <set>
#include <sstream>

namespace {

using SText = std::string;

template <typename T>
SText record(T words, const SText& text = "") {
    words.m_oRecord = {sizeof words, static_cast<uint32_t>(text.size())};
    return SText(bytesOf(words).data(), sizeof words) + text;
}

SText summary(uint64_t lastTransition) {
    CStatusSummary words;
    words.m_nProcessId = 77;
    words.m_tNow = 1041;
    words.m_nNextPass = 3500;
    setNumber(words.m_aLastTransition, lastTransition);
    return record(words, "9.9");
}

SText listState(EListResult result, uint32_t isInForce, const SText& errors = "") {
    CStatusList words;
    words.m_nInForce = isInForce;
    words.m_tLoaded = 1000;
    words.m_nKept = 1;
    words.m_nFeatures = 4;
    words.m_nBefore = 9;
    words.m_nWithdrawn = 5;
    words.m_nMuch = isInForce;
    words.m_tRead = 1020;
    words.m_nResult = result;
    words.m_nErrors = 3;
    words.m_nVerified = isInForce;
    setNumber(words.m_aSerial, 0x100000002);
    SText("0123456789abcdef").copy(words.m_szKeyId, sizeof words.m_szKeyId);
    SText("CN=\033").copy(words.m_szSigner, sizeof words.m_szSigner);
    return record(words, "a\033.toml" + errors);
}

SText component(const char* name, uint32_t pid, uint32_t monitors, uint32_t dead = 0) {
    CStatusComponent words;
    SText(name).copy(words.m_szName, nNameFieldSize);
    words.m_nProcessId = pid;
    words.m_nMonitors = monitors;
    words.m_tDead = dead;
    return record(words);
}

SText feature(uint32_t code, uint32_t data, const SText& name, const SText& concerned) {
    CStatusFeature words;
    words.m_nCode = code;
    words.m_nData = data;
    words.m_nStatus = 2;
    SText text = name + "," + concerned;
    std::replace(text.begin(), text.end(), ',', '\0');
    return record(words, text);
}

SText delivery(uint32_t code, const char* name, uint32_t state, uint32_t why = swNone,
               const SText& text = "") {
    CStatusDelivery words;
    words.m_nCode = code;
    words.m_nData = 1;
    words.m_nState = state;
    words.m_nWhy = why;
    words.m_nMonitors = 1;
    words.m_tSince = words.m_tLast = 1000;
    SText(name).copy(words.m_szComponent, nNameFieldSize);
    return record(words, text);
}

SText transition(uint64_t number, uint32_t from, uint32_t to, uint32_t cause, uint32_t why = 0,
                 const SText& text = "") {
    CStatusTransition words;
    setNumber(words.m_aNumber, number);
    words.m_tSeconds = 1000 + static_cast<uint32_t>(number);
    words.m_nCode = 161;
    words.m_nData = 1;
    words.m_nFrom = from;
    words.m_nTo = to;
    words.m_nCause = cause;
    words.m_nWhy = why;
    SText("Door\033").copy(words.m_szComponent, nNameFieldSize);
    return record(words, text);
}

// Door is hostile and silent, Gate refuses 202, Tape is dead, Mute alive and does not monitor.
class CLooking : public testing::Test {
protected:
    CLooking() {
        setenv("TZ", "UTC", 1);
        setenv("COLUMNS", "100", 1);
        m_rPlatform.reset();
        m_rPlatform.m_fnOnReceive = [this] { answer(); };
        m_rPlatform.m_oProcesses["qelserver"] = m_nDaemon;
        m_oTables[sqSummary] = {summary(7)};
        m_oTables[sqComponents] = {component("Door\033", 4711, 1), component("Gate", 12, 1),
                                   component("Tape", 13, 1, 900), component("Mute", 14, 0)};
        m_oTables[sqFeatures] = {feature(102, 1, "Calls", "Gate,Tape"), feature(161, 1, "", "Door\033"),
                                 feature(202, 1, "Trunks\007", "Gate,Mute,Away"),
                                 feature(7, 1, "New", "Gate,Tape")};
        CStatusDelivery mute;
        mute.m_nCode = 202;
        mute.m_nData = 1;
        SText("Mute").copy(mute.m_szComponent, nNameFieldSize);
        m_oTables[sqDeliveries] = {delivery(102, "Gate", 2), delivery(102, "Tape", 1),
                                   delivery(161, "Door\033", 3, swNoAnswer),
                                   delivery(202, "Gate", 3, swRefused, "no \033module"), record(mute)};
        m_oTables[sqTransitions] = {transition(6, 0, 1, 6), transition(7, 1, 3, 1)};
        CStatusCounter counter;
        setNumber(counter.m_aValue, 5);
        m_oTables[sqCounters] = {record(counter, "refused")};
    }

    // What the script says of each answer: "page" is a good one of m_nPage records, which is also what comes when
    // the script has been played; anything else is a fault.
    void answer() {
        if (m_nTaken == m_rPlatform.m_vSent.size()) {
            return;
        }
        const SSent sent = m_rPlatform.m_vSent[m_nTaken++];
        ASSERT_EQ(sent.m_nType, nQelStatusMfwMsgId);
        const auto question = readBody<CStatusQuestion>(reinterpret_cast<const uint8_t*>(sent.m_sBody.data()),
                                                        sent.m_sBody.size());
        SText word = "page";
        m_oScript >> word;
        ++m_oAsked[question.m_nQuestion];
        if (word == "replaced") {
            m_rPlatform.m_oDead.insert(m_nDaemon);
            m_rPlatform.m_oProcesses["qelserver"] = ++m_nDaemon;
        }
        SText body = compose(question, word);
        if (word == "stranger" || word == "late") {
            SText wrong = body;
            wrong[11] = static_cast<char>(wrong[11] - (word == "late" ? 1 : 0)); // the tag
            wrong[19] = 99;                                                      // many records
            deliver(wrong, word == "late" ? m_nDaemon : 66);
        }
        if (word != "silent" && word != "replaced") {
            deliver(word == "cut" ? body.substr(0, body.size() - 1) : body, m_nDaemon);
        }
    }

    SText compose(const CStatusQuestion& question, const SText& word) {
        auto table = m_oTables[question.m_nQuestion];
        if (question.m_nQuestion == sqTally) {
            CStatusTally tally;
            const bool isOfOne = (question.m_nFilter & sfComponent) != 0;
            tally.m_aDeliveries[0] =
                m_bMany ? (isOfOne ? 40 : 5000) : static_cast<uint32_t>(m_oTables[sqDeliveries].size());
            tally.m_aDeliveries[3] = m_bMany ? 2 : 0;
            table = {record(tally)};
        }
        if (question.m_nQuestion == sqDeliveries && (question.m_nFilter & sfOpen) != 0) {
            const bool isFailed = (question.m_nFilter & sfFailed) != 0;
            std::erase_if(table, [isFailed](const SText& one) { // by the state
                return one[27] == 2 || (isFailed && one[27] != 3);
            });
        } else {
            m_bWhole = m_bWhole || question.m_nQuestion == sqDeliveries;
        }
        CStatusAnswer head;
        head.m_nQuestion = question.m_nQuestion + (word == "other" ? 1 : 0);
        head.m_nTag = question.m_nTag;
        const bool isKnown = word != "unknown" && (!table.empty() || question.m_nQuestion != sqList);
        head.m_nResult = !isKnown ? srUnknown : word == "changed" ? srChanged : srOk;
        const bool isOfTransitions = question.m_nQuestion == sqTransitions;
        size_t at = isOfTransitions ? 0 : uint32_t{question.m_oCursor.m_aWords[0]};
        const uint64_t after = number(question.m_oCursor.m_aWords);
        if (isOfTransitions) {
            at = after >= m_nFirst - 1
                     ? static_cast<size_t>(std::min<uint64_t>(after - (m_nFirst - 1), table.size()))
                     : 0;
            const bool isGap = after + 1 < m_nFirst || after >= m_nFirst + table.size();
            head.m_nResult = isGap ? srGap : srOk;
            at = isGap ? 0 : at;
        }
        SText records;
        size_t end =
            head.m_nResult == srOk || head.m_nResult == srGap ? std::min(at + m_nPage, table.size()) : at;
        for (size_t i = at; i < end; ++i) {
            records += table[i];
        }
        head.m_nCount = static_cast<uint32_t>(end - at);
        head.m_nMore = end < table.size() ? 1 : 0;
        head.m_oCursor = question.m_oCursor;
        if (isOfTransitions) {
            setNumber(head.m_oCursor.m_aWords, m_nFirst - 1 + end);
        } else if (word != "stuck") {
            head.m_oCursor.m_aWords[0] = static_cast<uint32_t>(end);
        }
        return SText(bytesOf(head).data(), sizeof head) + records;
    }

    void deliver(const SText& body, uint32_t from) {
        CFakePlatform::handOver(m_rPlatform.m_oCallbacks.at(nQelStatusMfwMsgId), nQelStatusMfwMsgId, body,
                                from);
    }

    // What a command prints on standard output, and its exit status.
    template <typename T>
    SText run(int (*command)(const T&), const T& options) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int status = command(options);
        m_sErrors = testing::internal::GetCapturedStderr();
        return testing::internal::GetCapturedStdout() + fmt::format("status {}\n", status);
    }

    CFakePlatform& m_rPlatform = CFakePlatform::get();
    std::map<uint32_t, std::vector<SText>> m_oTables;
    std::istringstream m_oScript;
    uint32_t m_nDaemon = 0x1234;
    uint64_t m_nFirst = 6; // number of the oldest transition
    size_t m_nPage = 2;
    size_t m_nTaken = 0;
    std::map<uint32_t, size_t> m_oAsked; // how often each question was
    size_t m_oAskedBefore = 0;
    bool m_bMany = false;  // are under way, by the tally
    bool m_bWhole = false; // deliveries were asked for whatever their state
    SText m_sErrors;
};

TEST_F(CLooking, ReadsWholeTablesFromTheDaemonAskedOrSaysWhyNot) {
    const struct {
        const char* m_szScript;
        EAsked m_eAsked;
        size_t m_nRecords;
        size_t m_nQuestions;
    } aCases[] = {
        {"page page page", EAsked::answered, 5, 3},
        {"page changed page page page", EAsked::answered, 5, 5},
        {"changed page changed page changed page changed page changed", EAsked::changing, 0, 9},
        {"page replaced page page page", EAsked::answered, 5, 5},
        {"stranger late stranger", EAsked::answered, 5, 3},
        {"page unknown", EAsked::unknown, 0, 2},
        {"page cut", EAsked::damaged, 0, 2},
        {"other", EAsked::damaged, 0, 1},
        {"stuck", EAsked::damaged, 0, 1},
        {"page silent", EAsked::noAnswer, 0, 2},
    };
    for (const auto& example : aCases) {
        m_oScript = std::istringstream(example.m_szScript);
        const size_t before = m_rPlatform.m_vSent.size();
        // Longer than the half second after which the daemon is looked up again, where it goes.
        const bool isLong = SText(example.m_szScript).find("replaced") != SText::npos;
        CStatusQuery query(std::chrono::milliseconds(isLong ? 5000 : 50));
        std::vector<SDeliveryView> records;
        EXPECT_EQ(query.askAll(makeQuestion(sqDeliveries), records), example.m_eAsked) << example.m_szScript;
        EXPECT_EQ(records.size(), example.m_nRecords) << example.m_szScript;
        EXPECT_EQ(m_rPlatform.m_vSent.size() - before, example.m_nQuestions) << example.m_szScript;
    }
    m_rPlatform.m_oProcesses.clear();
    EXPECT_EQ(run(runStatus, SStatusOptions{}), "status 2\n");
    EXPECT_EQ(m_sErrors, "qelctl: the daemon is not running\n");
}

TEST_F(CLooking, TheMatrixTellsProblemsFirstAndFitsTheLine) {
    EXPECT_EQ(run(runStatus, SStatusOptions{}),
              "CODE  DATA  NAME     Door?                  Gate                  Tape       Mute\n"
              " 161     1  -        GAVE UP 3 sends, 41 s  .                     .          .\n"
              " 202     1  Trunks?  .                      REFUSED \"no ?module\"  .          queued\n"
              " 102     1  Calls    .                      ok                    sent 41 s  .\n"
              "   7     1  New      .                      queued                -          .\n"
              "2 problems, 3 under way, 1 delivered; Tape (pid 13) is dead since 00:15:00\n"
              "status 3\n");
    setenv("COLUMNS", "46", 1);
    EXPECT_EQ(run(runStatus, SStatusOptions{}),
              "CODE  DATA  NAME     COMPONENT  STATE\n"
              " 161     1  -        Door?      GAVE UP 3 s...\n"
              " 202     1  Trunks?  Gate       REFUSED \"no...\n"
              " 202     1  Trunks?  Mute       queued\n"
              " 102     1  Calls    Tape       sent 41 s\n"
              "   7     1  New      Gate       queued\n"
              "2 problems, 3 under way, 1 delivered; Tape (pid 13) is dead since 00:15:00\n"
              "status 3\n");
    setenv("COLUMNS", "100", 1);
    EXPECT_TRUE(m_bWhole) << "what waits to be taken in shows nowhere else";
    m_bWhole = false;
    m_oTables[sqFeatures].pop_back();
    EXPECT_PRED_FORMAT2(testing::IsSubstring,
                        "\n 102     1  Calls    .                      ok                    sent 41 s  .\n"
                        "2 problems, 2 under way, 1 delivered; ",
                        run(runStatus, SStatusOptions{}));
    EXPECT_FALSE(m_bWhole);
    SStatusOptions one;
    one.m_sArgument = "Calls";
    EXPECT_EQ(run(runStatus, one), "102:1 Calls: active\n"
                                   "COMPONENT  STATE      SINCE     PROCESS\n"
                                   "Gate       ok         00:16:40  alive, monitoring\n"
                                   "Tape       sent 41 s  00:16:40  dead since 00:15:00\n"
                                   "status 4\n");
    one.m_sArgument = "Gat";
    EXPECT_EQ(run(runStatus, one), "status 1\n");
    EXPECT_EQ(m_sErrors, "qelctl: no feature and no component is called 'Gat'; did you mean 'Gate'?\n");
    m_bMany = true;
    CStatusSummary large;
    large.m_aFeatures[2] = 10000;
    large.m_nComponents = 4;
    m_oTables[sqSummary] = {record(large, "9.9")};
    m_bWhole = false;
    const SText counted = "2 problems, 4960 under way, 0 delivered; Tape (pid 13) is dead since 00:15:00\n"
                          "status 3\n";
    EXPECT_EQ(run(runStatus, SStatusOptions{}),
              "CODE  DATA  NAME     COMPONENT  STATE\n"
              " 161     1  -        Door?      GAVE UP 3 sends, 0 s\n"
              " 202     1  Trunks?  Gate       REFUSED \"no ?module\"\n"
              "what is under way is too much for a line each; --all shows it\n" +
                  counted);
    EXPECT_FALSE(m_bWhole);
}

TEST_F(CLooking, AListThatIsNotInForceShowsAtOnceAndInTheStatus) {
    for (auto& [question, table] : m_oTables) {
        table.resize(question == sqSummary ? 1 : 0);
    }
    const SText errors("\0003: no \ncode\0000: bad", 19);
    const struct {
        EListResult m_eResult;
        uint32_t m_nInForce;
        SText m_sTold;
    } aCases[] = {
        {lrTaken, 1, "no problems, 0 delivered\nstatus 0\n"},
        {lrUnreadable, 1,
         "-- the file was not readable at 00:17:00; it is going to be read again\n"
         "a?.toml:3: no ?code\na?.toml: bad\na?.toml: 1 more error\n"
         "no problems, 0 delivered\nstatus 4\n"},
        {lrRefused, 1,
         "-- the file was refused at 00:17:00\na?.toml:3: no ?code\na?.toml: bad\n"
         "a?.toml: 1 more error\nno problems, 0 delivered\nstatus 3\n"},
        {lrNone, 0, "no problems, 0 delivered\nstatus 3\n"},
    };
    for (const auto& example : aCases) {
        m_oTables[sqList] = {listState(example.m_eResult, example.m_nInForce, errors)};
        const SText inForce =
            "a?.toml: 4 features of the list kept from an earlier run, in force since 00:16:40\n"
            "-- serial 4294967298, signed by CN=? (key 0123456789abcdef); digest 0000000000000000\n"
            "-- it withdrew 5 of 9 features, more than a fifth\n";
        EXPECT_EQ(run(runStatus, SStatusOptions{}),
                  (example.m_nInForce ? inForce : "a?.toml: no list is in force\n") + example.m_sTold);
    }
}

TEST_F(CLooking, WhyTellsWhatHappenedAndWhatComesNext) {
    const auto why = [this](const char* feature, const char* comp) {
        SWhyOptions options;
        options.m_sFeature = feature;
        options.m_sComponent = comp;
        return run(runWhy, options);
    };
    EXPECT_EQ(why("161:1", "Door\033"),
              "161:1 at Door? (pid 4711): gave up\n"
              "  Now:   Door? did not answer; it was given up at 00:16:40 after 3 sends.\n"
              "  Next:  it is not told again before the next list.\n"
              "  Steps: the latest; the daemon no longer keeps what was before\n"
              "    00:16:46.000  queued -> sent (audit)\n"
              "    00:16:47.000  sent -> gave up (told)\n"
              "status 3\n");
    const struct {
        const char* m_szFeature;
        const char* m_szComponent;
        const char* m_szSays;
        const char* m_szStatus;
    } aCases[] = {
        {"202", "Gate", "Gate refused at 00:16:40: \"no ?module\".", "status 3\n"},
        {"New", "Gate", "one of the next audits tells it; the next audit is in about 4 s.", "status 4\n"},
        {"102", "Tape", "its answer is awaited for 10 seconds, until 00:16:50.", "status 4\n"},
        {"202", "Mute", "it has the feature when it fetches its list, or is told when it begins to monitor.",
         "status 4\n"},
        {"102", "Gate", "Since 00:16:40: it has the feature.", "status 0\n"},
        {"202", "Away", "Away has not announced itself", "status 4\n"},
        {"102", "Mute", "feature 102 does not concern Mute", "status 1\n"},
        {"999", "Mute", "no feature and no component is called '999'", "status 1\n"},
        {"Gate", "102", "'Gate' is a component; the feature comes first\n", "status 1\n"},
    };
    for (const auto& example : aCases) {
        const SText output = why(example.m_szFeature, example.m_szComponent);
        EXPECT_NE((output + m_sErrors).find(example.m_szSays), SText::npos) << output << m_sErrors;
        EXPECT_TRUE(output.ends_with(example.m_szStatus)) << output;
    }
}

TEST_F(CLooking, WatchLosesNothingAndTellsGapsAndRestarts) {
    SWatchOptions options;
    options.m_sSince = "3";
    options.m_nSeconds = 0.9;
    m_nPage = 1;
    m_rPlatform.m_fnOnReceive = [this] {
        if (m_oAsked[sqTransitions] == 3) { // everything was read; another daemon comes
            m_nFirst = 1;
            m_oTables[sqTransitions] = {transition(1, 9, 11, 3, swRefused, "no \033module"),
                                        transition(2, 9, 11, 3, swNotKept)};
        }
        answer();
    };
    EXPECT_EQ(
        run(runWatch, options),
        "-- gap: 2 transitions no longer kept\n"
        "00:16:46.000      161:1  Door?             queued -> sent (audit)\n"
        "00:16:47.000      161:1  Door?             sent -> gave up (told)\n"
        "-- the daemon was restarted (pid 77); its transitions begin anew\n"
        "00:16:41.000      161:1  Door?             modifying -> modify refused (refused) \"no ?module\"\n"
        "00:16:42.000      161:1  Door?             modifying -> modify refused (refused, its words are not "
        "kept any more)\n"
        "status 3\n");
    options.m_sArgument = "Mute"; // has no transitions
    options.m_sSince = "0";
    options.m_nSeconds = 0.1;
    EXPECT_EQ(run(runWatch, options), "status 0\n");
}

// Ten thousand steps, as fast as they are read; then more at once than the daemon keeps.
TEST_F(CLooking, WatchKeepsUpWithAFullPaceAndCountsWhatABurstCosts) {
    constexpr uint64_t nSteps = 10000, nBurst = 6000;
    std::vector<SText>& kept = m_oTables[sqTransitions];
    kept.clear();
    m_nFirst = 1;
    m_nPage = 1000;
    uint64_t last = 0;
    const auto happen = [&](uint64_t count) {
        for (const uint64_t end = last + count; last < end;) {
            kept.push_back(transition(++last, 0, 1, 6));
        }
        const size_t dropped = kept.size() - std::min(kept.size(), nKeptTransitions);
        kept.erase(kept.begin(), kept.begin() + static_cast<ptrdiff_t>(dropped));
        m_nFirst += dropped;
    };
    happen(3000);
    m_rPlatform.m_fnOnReceive = [&] {
        const SText sent = m_nTaken < m_rPlatform.m_vSent.size() ? m_rPlatform.m_vSent[m_nTaken].m_sBody : "";
        const auto question =
            readBody<CStatusQuestion>(reinterpret_cast<const uint8_t*>(sent.data()), sent.size());
        const bool isAllTold = number(question.m_oCursor.m_aWords) == last;
        if (question.m_nQuestion == sqTransitions && last < nSteps) {
            happen(m_nPage);
        } else if (question.m_nQuestion == sqTransitions && isAllTold) {
            last == nSteps ? happen(nBurst) : static_cast<void>(raise(SIGTERM));
        }
        answer();
    };
    SText expected;
    for (uint64_t step = 1; step <= nSteps + nBurst; ++step) {
        if (step == nSteps + 1) {
            step += nBurst - nKeptTransitions;
            expected += "-- gap: 1904 transitions no longer kept\n";
        }
        const uint64_t second = 1000 + step;
        expected +=
            fmt::format("{:02}:{:02}:{:02}.000      161:1  Door?             queued -> sent (audit)\n",
                        second / 3600, second / 60 % 60, second % 60);
    }
    SWatchOptions options;
    options.m_sSince = "0";
    EXPECT_TRUE(run(runWatch, options) == expected + "status 0\n");
}

TEST_F(CLooking, WaitCountsNoRefusalAsDelivered) {
    const struct {
        const char* m_szFirst;
        const char* m_szSecond;
        bool m_bDelivered;
        int m_nStatus;
    } aCases[] = {
        {"", "", true, exitRefused}, // at last: something is under way
        {"102", "Gate", true, exitOk},   {"102", "", true, exitNotYet},
        {"202", "", true, exitRefused},  {"202", "", false, exitNotYet}, // Mute may fetch it yet
        {"161", "", false, exitOk},      {"202", "Mute", true, exitNotYet},
        {"Mute", "", false, exitNotYet}, {"999", "", true, exitNotYet},
        {"Away", "", true, exitNotYet},  {"161:1", "Door\033", true, exitRefused},
    };
    for (const auto& example : aCases) {
        SWaitOptions options;
        options.m_sFirst = example.m_szFirst;
        options.m_sSecond = example.m_szSecond;
        options.m_bDelivered = example.m_bDelivered;
        options.m_nSeconds = 0.02;
        EXPECT_TRUE(run(runWait, options).ends_with(fmt::format("status {}\n", example.m_nStatus)))
            << example.m_szFirst << " " << example.m_szSecond;
    }
    // The new list's last delivery arrives while it is waited for.
    SWaitOptions options;
    options.m_sFirst = "New";
    m_rPlatform.m_fnOnReceive = [this] {
        if (m_oAsked[sqSummary] == m_oAskedBefore + 3) {
            m_oTables[sqDeliveries].push_back(delivery(7, "Gate", 2));
            m_oTables[sqSummary] = {summary(8)};
        }
        answer();
    };
    m_oAskedBefore = m_oAsked[sqSummary];
    EXPECT_EQ(run(runWait, options).substr(0, 15), "delivered after");
}

void collectKeys(const CJson& value, std::set<SText>& keys) {
    for (const auto& [key, item] : value.items()) {
        if (value.is_object()) {
            keys.insert(key);
        }
        if (item.is_structured() && key != "counters") { // which has the daemon's own keys
            collectKeys(item, keys);
        }
    }
}

TEST_F(CLooking, EachKeyOfJsonIsDocumented) {
    SStatusOptions status;
    SWhyOptions why;
    SWatchOptions watch;
    SWaitOptions wait;
    why.m_sFeature = "161";
    why.m_sComponent = "Door\033";
    watch.m_sSince = "5";
    watch.m_nSeconds = 0.01;
    wait.m_nSeconds = 0;
    m_oTables[sqList] = {listState(lrRefused, 1, SText("\0002: bad", 7))};
    status.m_bJson = why.m_bJson = watch.m_bJson = wait.m_bJson = true;
    std::set<SText> keys;
    std::vector<CJson> documents;
    for (const SText& output :
         {run(runStatus, status), run(runWhy, why), run(runWatch, watch), run(runWait, wait)}) {
        const SText text = output.substr(0, output.find("status "));
        const size_t line = text.find("}\n{"); // watch prints a document in each
        documents.push_back(CJson::parse(line == SText::npos ? text : text.substr(0, line + 1)));
        EXPECT_EQ(documents.back()["schema"], nJsonSchema);
        collectKeys(documents.back(), keys);
    }
    const SText page = contents(QEL_DOCS "/json.md");
    for (const SText& key : keys) {
        EXPECT_NE(page.find("| `" + key + "` |"), SText::npos) << key;
    }
    const CJson& refused = documents[0]["deliveries"][3];
    EXPECT_EQ(refused.dump(),
              R"({"code":202,"data":1,"component":"Gate","state":"refused","progress":"failed",)"
              R"("since":1000,"sends":0,"why":"refused","reason":"no \u001bmodule"})");
    EXPECT_EQ(documents[0]["counters"]["refused"], 5);
    EXPECT_EQ(documents[2]["cause"], "audit");
}

TEST_F(CLooking, MetricsCountEachStateAndNoNameBreaksThem) {
    m_oTables[sqComponents].push_back(component("a\\\"\n\xff", 15, 1));
    m_oTables[sqComponents].push_back(component("a\\\"\n\xfe", 16, 1)); // the same, as UTF-8
    CStatusCounter counter;
    setNumber(counter.m_aValue, uint64_t{1} << 40);
    m_oTables[sqCounters] = {record(counter, "sent.failed"), record(counter, "sent.active-features"),
                             record(counter, "accepted"), record(counter, "of-tomorrow")};
    const SText text = run(runMetrics, SMetricsOptions{});
    for (const char* line :
         {"qel_up 1", "qel_deliveries{component=\"Gate\",state=\"refused\"} 1",
          "qel_deliveries{component=\"Gate\",state=\"gave_up\"} 0",
          "qel_deliveries{component=\"Door\033\",state=\"gave_up\"} 1",
          "qel_deliveries{component=\"Tape\",state=\"idle\"} 1", "qel_component_alive{component=\"Tape\"} 0",
          "qel_component_alive{component=\"a\\\\\\\"\\n\xEF\xBF\xBD\"} 1", "qel_next_audit_seconds 3.5",
          "qel_send_errors_total 1099511627776", "# TYPE qel_send_errors counter",
          "qel_messages_sent_total{kind=\"active_features\"} 1099511627776",
          "qel_delivery_outcomes_total{outcome=\"accepted\"} 1099511627776",
          "qel_other_events_total{event=\"of_tomorrow\"} 1099511627776"}) {
        const SText whole = SText("\n") + line + "\n";
        const size_t at = text.find(whole);
        EXPECT_NE(at, SText::npos) << line << " is missing in\n" << text;
        EXPECT_EQ(text.find(whole, at + 1), SText::npos) << line;
    }
    EXPECT_TRUE(text.ends_with("\n# EOF\nstatus 0\n"));
    const CTestDirectory directory;
    SMetricsOptions options;
    options.m_sOutput = directory.file("qel.prom");
    put(options.m_sOutput, "before");
    m_oScript = std::istringstream("cut"); // a daemon that is there, and cannot be understood
    EXPECT_EQ(run(runMetrics, options), "status 1\n");
    EXPECT_EQ(contents(options.m_sOutput), "before");
    m_rPlatform.m_oProcesses.clear();
    EXPECT_EQ(run(runMetrics, options), "status 2\n");
    EXPECT_TRUE(contents(options.m_sOutput).ends_with("\nqel_up 0\n# EOF\n"));
    options.m_sOutput = directory.path(); // in place of a directory or a device it writes nothing
    EXPECT_EQ(run(runMetrics, options), "status 1\n");
}

TEST_F(CLooking, NothingOfATextIsMarkupOfThePage) {
    const SText hostile = "</script><!--<script>&";
    m_oTables[sqFeatures].push_back(feature(9, 1, hostile, "Gate,</script>"));
    m_oTables[sqDeliveries].push_back(delivery(9, "Gate", 3, swRefused, hostile));
    const SText page = run(runPage, SPageOptions{});
    const SText begin = "<script type=\"application/json\" id=\"data\">";
    const size_t from = page.find(begin) + begin.size();
    const SText data = page.substr(from, page.find('<', from) - from);
    EXPECT_TRUE(SText(page, from + data.size()).starts_with("</script>\n<script>\n'use strict'"));
    const CJson read = CJson::parse(data);
    EXPECT_EQ(read["features"].back()["name"], hostile);
    EXPECT_EQ(read["features"].back()["absent"], CJson::array({"</script>"}));
    const CJson& row = read["deliveries"]["rows"].back();
    EXPECT_EQ(row.back(), hostile);
    EXPECT_EQ(read["components"][row[1].get<size_t>()]["name"], "Gate");
    EXPECT_EQ(read["states"][row[2].get<size_t>()]["word"], "refused");
}

} // namespace
