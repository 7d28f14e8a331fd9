// Whole conversations through the dispatcher: bytes in, bytes and log lines out.
#include "world.h"

#include "features/counters.h"

#include <algorithm>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <tuple>
#include <utility>

namespace {

using CHostileBodyTest = CHeartTest;

// "1:10 3:30" to entries, each made by `make`.
CEntries entriesOf(std::istream& pairs, const std::function<CFeatureEntry*(uint32_t, uint32_t)>& make) {
    CEntries entries;
    uint32_t code = 0;
    uint32_t data = 0;
    for (char colon = 0; pairs >> code >> colon >> data;) {
        entries.push_back(make(code, data));
    }
    return entries;
}

class CConversationTest : public CHeartTest {
protected:
    // Does what a line of the script says.
    void perform(const std::string& line) {
        std::istringstream words(line);
        std::string verb;
        words >> verb >> verb;
        line[0] == '<' ? receive(fromHex(line.substr(2))) : m_oVerbs.at(verb)(words);
    }

    // What the daemon logged and sent since the last call. The endpoint logs each send: there the message
    // stands.
    std::string transcript() {
        std::string text;
        const std::vector<SSent> sent = platform().takeSent();
        auto message = sent.begin();
        for (const SLogged& line : platform().takeLog()) {
            if (line.m_nEvent == 31153 && message != sent.end()) {
                text += "-> " + std::to_string(message->m_nHandle) + ": " + toHex(message->m_sBody) + "\n";
                ++message;
            } else if (m_oLeftOut.count(line.m_nEvent) == 0) {
                text += textOf(line) + "\n";
                noteSeen({textOf(line)});
            }
        }
        return text + std::exchange(m_sResult, "");
    }

private:
    std::set<uint32_t> m_oLeftOut; // events
    std::string m_sResult;         // what the last step told besides
    const decltype(aCounters) m_aCountedBefore = aCounters;
    const std::map<std::string, std::function<void(std::istream&)>> m_oVerbs = {
        {"features", [](auto& pairs) { entriesOf(pairs, [](auto... pair) { return &feature(pair...); }); }},
        {"list",
         [this](auto& pairs) {
             const CEntries entries = entriesOf(pairs, [](auto... pair) { return fresh(pair...); });
             m_sResult = "result " + std::to_string(newList(entries)) + "\n";
         }},
        {"counters",
         [this](auto&) {
             for (size_t i = 0; i < nCounters; ++i) {
                 m_sResult += std::string(aCounterNames[i]) + " " +
                              std::to_string(aCounters[i] - m_aCountedBefore[i]) + "\n";
             }
         }},
        {"advance", [](auto& words) { platform().advance(*std::istream_iterator<uint32_t>(words)); }},
        {"audit", [](auto&) { control().audit(); }},
        {"timeout", [](auto&) { control().timeout(); }},
        {"tables", [this](auto&) { m_sResult = tables(); }},
        {"empty", [](auto&) { empty(), platform().takeLog(); }},
        {"hole", [](auto&) { EXPECT_TRUE(control().addFeature(nullptr)); }},
        {"known", // two of them run; the lock fails, which hinders nothing
         [](auto&) {
             platform().m_oProcesses = {{"anchor", 0x51}, {"voice", 0x52}};
             platform().fail("osLockLwtMutex", 1);
             control().auditComponent();
         }},
        {"brief", [this](auto&) {
             m_oLeftOut = {31011, 31014};
         }}};
};

TEST_F(CConversationTest, AWholeConversationGoesByItsScriptToTheByte) {
    std::ifstream script(QEL_TEST_SCRIPT);
    std::string done;
    std::string expected;
    for (std::string line; std::getline(script, line);) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        if (line[0] == '-') { // blanks between bytes are free
            const auto bytes = std::find(line.begin(), line.end(), ':') + 2;
            line.erase(std::remove(bytes, line.end(), ' '), line.end());
        }
        if (line[0] == '<' || line[0] == '!') {
            EXPECT_EQ(transcript(), std::exchange(expected, "")) << "after: " << done;
            perform(done = line);
        } else {
            expected += line + "\n";
        }
    }
    EXPECT_EQ(transcript(), expected) << "after: " << done;
    EXPECT_NE(done, "") << QEL_TEST_SCRIPT;
    for (const CFeatureEntry* entry : control().features().m_vItems) {
        EXPECT_EQ(entry != nullptr ? entry->m_nNewData : 0, 0u) << "no modification is left pending";
    }
}

TEST_F(CConversationTest, WhatIsSentOfACodeMakesTheHeldPairOutOfDate) {
    CComponent& voice = component("Voice");
    voice.setKnownPairs(std::vector<SFeature>{{6, 60}, {7, 70}, {8, 80}, {8, 81}});
    voice.sendMessage(1, 7, 71); // other data
    voice.sendMessage(3, 6, 60); // another type, of the pair held
    voice.sendMessage(1, 8, 81); // held
    EXPECT_EQ(told(), (CTexts{"33: 1 7 71 0", "33: 3 6 60 0"}));
    voice.sendMessage(1, 6, 60);
    voice.sendMessage(1, 7, 70);
    voice.sendMessage(1, 8, 80);
    EXPECT_EQ(told(), (CTexts{"33: 1 6 60 0", "33: 1 7 70 0"}));
    CQelServerMessage message;
    EXPECT_EQ(CComponent::fillMessageHeader(&message, 1, 0, 5), 1);
    EXPECT_EQ(CComponent::fillMessageHeader(nullptr, 1, 0, 5), 0);
}

// --- Messages that lie about themselves; bytes at random are among the random lives ---

TEST_F(CHostileBodyTest, NoMorePairsAreTakenThanThereAreAndFit) {
    std::string pairs;
    for (uint32_t i = 0; i < 150; ++i) {
        pairs += words({i + 1, i + 2}); // the answer 0, 0 would make a pair of code 0 out of date
    }
    using CRow = std::tuple<uint32_t, size_t, uint32_t>; // pairs claimed, bytes sent, pairs taken
    for (const auto& [claimed, bytes, taken] : {CRow{0xFFFFFFFF, 1200, 100},
                                                {4000000000, 16, 2},
                                                {101, 808, 100},
                                                {3, 23, 2},
                                                {2, 1200, 2},
                                                {5, 0, 0}}) {
        announce("Voice", 77, 0x21, claimed, pairs.substr(0, bytes));
        const CComponent& voice = *control().findCompByMFW(0x21);
        ASSERT_EQ(voice.m_nKnownCount, taken) << claimed;
        EXPECT_EQ(taken == 0 ? 1 : voice.m_aKnown[taken - 1].m_nData, taken + 1);
        CTexts lines = takeLines();
        std::erase_if(lines, [](const std::string& line) { return !line.starts_with("2 31017"); });
        EXPECT_EQ(testing::PrintToString(lines),
                  taken == claimed ? "{}"
                                   : "{ \"2 31017 Name Msg claims " + std::to_string(claimed) +
                                         " pairs, took " + std::to_string(taken) + "\" }");
        EXPECT_EQ(told(), CTexts{"33: 0 0 0 0"});
    }
}

// 5000 bytes go on past the smallest record there can be.
TEST_F(CHostileBodyTest, AReplyTextIsLoggedWholeAndStoredIfItFits) {
    announce("Voice", 77, 0x21);
    const CComponent& voice = *control().findCompByMFW(0x21);
    for (const size_t length : {501u, 5000u, 1000000u, 500u, 499u}) {
        told();
        const std::string text(length, 't');
        receive(header(1, WriteReplyMsgType, 0x21) + words({0, 3}) + text);
        EXPECT_EQ(platform().logged(31030), CTexts{"WriteReplyMsgType (3 " + text.substr(0, 8192) + ")"});
        EXPECT_EQ(voice.m_szReplyText, length <= 500 ? text : "");
    }
    EXPECT_EQ(voice.m_nReplyStatus, 3u);
}

} // namespace
