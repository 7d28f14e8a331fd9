#include "features/world.h"
#include "source/CHandOver.h"
#include "source/CNamePool.h"
#include "support/scarce_memory.h"

#include <fmt/format.h>
#include <map>
#include <random>
#include <set>
#include <sstream>

namespace {

// A list reads "CODE DATA *COMPONENTS, CODE DATA :COMPONENTS"; the star is for sourced. A component's name is
// one letter.
class CHandOverTest : public CHeartTest {
protected:
    CHandOverTest() {
        platform().m_bKeepLog = false;
        for (const char* name : {"G", "P", "V"}) {
            component(name, static_cast<uint32_t>(*name)).notifyAllFeatures();
        }
    }

    // The features are handed over in any order. Whether a restart is needed.
    bool give(const std::string& text) {
        CFreshList list = parse(text);
        std::shuffle(list.begin(), list.end(), m_oRandom);
        std::erase_if(m_oKept, [&list](const std::string& kept) {
            return std::ranges::none_of(list, [&kept](const SFreshFeature& one) {
                const auto pair = fmt::format("{} {}", one.m_pEntry->m_nCode, one.m_pEntry->m_nData);
                return std::ranges::any_of(one.m_pEntry->m_vCompNames,
                                           [&](const char* name) { return kept == name + pair; });
            });
        });
        return m_oHandOver.apply(list).value().m_bRestart;
    }

    CFreshList parse(const std::string& text) {
        CFreshList list;
        std::istringstream words(text);
        uint32_t code = 0;
        uint32_t data = 0;
        for (std::string names; words >> code >> data >> names;) {
            CNames concerned;
            for (const char name : names.substr(1, names.find(',') - 1)) {
                concerned.push_back(m_oNames.intern(std::string(1, name)));
            }
            list.push_back({std::unique_ptr<CFeatureEntry>(fresh(code, data, concerned)), names[0] == '*'});
        }
        return list;
    }

    // Passes of the daemon; what is sent is answered unless lost.
    void passes(
        uint32_t count, const std::function<bool()>& isLost = [] { return false; }) {
        for (; count > 0; --count) {
            platform().advance(8);
            control().audit();
            for (const SSent& sent : platform().takeSent()) {
                CComponent* component = control().findCompByMFW(sent.m_nHandle);
                remember(component->m_szName, sent.m_sBody);
                component->m_nReplyStatus = nReplyOk;
                if (!isLost()) {
                    component->replyFeatureArray();
                }
            }
            control().timeout();
            platform().takeSent(); // resent ones say nothing new
            m_oHandOver.carryOn();
        }
    }

    // Its process ends; another one of its name announces itself, and fetches what it is to have, or not all
    // of it.
    void restart(const std::string& name, uint32_t pages) {
        CComponent* ended = control().findCompByName(name.c_str());
        control().delComponent(ended);
        delete ended;
        std::erase_if(m_oInForce, [&name](const std::string& held) { return held.starts_with(name); });
        CComponent& started = component(name.c_str(), static_cast<uint32_t>(name[0]));
        started.notifyAllFeatures();
        SFeature page{};
        while (pages-- > 0 && started.getNextFeatureList(&page.m_nCode, &page.m_nData)) {
            m_oInForce.insert(fmt::format("{}{} {}", name, page.m_nCode, page.m_nData));
        }
    }

    // The table stands for the list alone; by what they were told last, everybody has what is in force, and
    // nobody has what is not.
    void expectSettled(const std::string& list) {
        std::set<std::string> standing;
        std::set<std::string> concerned;
        for (const CFeatureEntry* entry : control().features().m_vItems) {
            if (entry != nullptr) {
                const std::string pair = fmt::format("{} {}", entry->m_nCode, entry->m_nData);
                const std::set<std::string> names(entry->m_vCompNames.begin(), entry->m_vCompNames.end());
                standing.insert(
                    fmt::format("{} {}{}", pair, entry->m_bSourced == 1 ? "*" : ":", fmt::join(names, "")));
                EXPECT_EQ(entry->m_eStatus, CFeatureEntry::fsActive) << pair;
                EXPECT_EQ(entry->m_nNewData, 0u) << pair;
                for (const std::string& name : names) {
                    concerned.insert(name + pair);
                }
            }
        }
        EXPECT_TRUE(std::ranges::includes(m_oInForce, concerned)) << "somebody lacks what is in force";
        if (m_bOneDataACode) {
            EXPECT_EQ(m_oInForce, concerned) << "somebody has what is not in force";
        }
        EXPECT_EQ(fmt::format("{}", fmt::join(standing, ", ")), list);
        EXPECT_EQ(m_oHandOver.waiting(), 0u);
        m_oKept = concerned;
    }

    // What the control holds, without what only the log knows.
    static CTexts table() {
        CTexts rows;
        for (const CFeatureEntry* entry : control().features().m_vItems) {
            std::string row = fmt::format("{} {} {} {} {}", entry->m_nCode, entry->m_nData, entry->m_nNewData,
                                          static_cast<int>(entry->m_eStatus), entry->m_bSourced);
            row += fmt::format(" {}", fmt::join(entry->m_vCompNames, ""));
            for (const CCompStatus* record : entry->m_vCompStatus) {
                row +=
                    fmt::format(" {}{}", record->m_pComponent->m_szName, static_cast<int>(record->m_eStatus));
            }
            rows.push_back(row);
        }
        return rows;
    }

    CNamePool m_oNames;
    CHandOver m_oHandOver{control()};
    std::mt19937 m_oRandom{1};
    // No list has a code with several data values: whatever a component is told of a code replaces what it
    // had of it.
    bool m_bOneDataACode = false;
    // By component: "+CODE DATA" to enable, "-CODE DATA" to disable, "~CODE DATA +CODE DATA" to modify.
    std::map<std::string, std::string> m_oTold;

private:
    void remember(const std::string& name, const std::string& body) {
        const auto message =
            readBody<CQelServerMessage>(reinterpret_cast<const uint8_t*>(body.data()), body.size());
        const uint32_t type = message.m_oHeader.m_nType;
        const uint32_t code = message.m_nCode;
        const auto with = [code](uint32_t data) { return fmt::format("{} {}", code, data); };
        if (m_bOneDataACode) {
            const auto prefix = fmt::format("{}{} ", name, code);
            std::erase_if(m_oInForce, [&](const std::string& held) { return held.starts_with(prefix); });
        }
        if (type != nQelServerNotifyMsgType) {
            m_oTold[name] += (type == nQelServerDisableMsgType ? " -" : " ~") + with(message.m_nData);
            EXPECT_FALSE(type == nQelServerDisableMsgType && m_oKept.contains(name + with(message.m_nData)))
                << name << " is interrupted in " << with(message.m_nData);
            m_oInForce.erase(name + with(message.m_nData));
        }
        if (type != nQelServerDisableMsgType) {
            const auto pair = with(type == nQelServerModifyMsgType ? message.m_nExtra : message.m_nData);
            m_oTold[name] += " +" + pair;
            m_oInForce.insert(name + pair);
        }
    }

    std::set<std::string> m_oInForce; // as told last
    std::set<std::string> m_oKept;    // in force, and in every list since the table was settled
};

TEST_F(CHandOverTest, EachIsToldOfWhatConcernsItAndOfNothingElse) {
    const struct {
        const char* m_sRule;
        std::vector<std::string> m_vSteps; // the first list settles; "half": a pass, one answer
        const char* m_sTold;               // what V | G are told of those
    } aCases[] = {
        {"a kept one is not told again", {"1 10 *V, 2 20 :V", "1 10 *V, 2 20 :V"}, " +2 20 |"},
        {"a change right after a hand-over is told", {"1 10 *V", "1 10 *V", "1 11 *V"}, " ~1 10 +1 11 |"},
        {"set back is told", {"1 10 *PV", "1 11 *PV", "half", "1 10 *PV"}, " ~1 10 +1 11 ~1 11 +1 10 |"},
        {"set back anew", {"1 5 *PV", "1 6 *PV", "half", "1 5 *PV, 1 7 *P"}, " ~1 5 +1 6 -1 6 +1 5 |"},
        {"a change to 0, which cannot be told, is a new feature", {"1 10 *V", "1 0 *V"}, " +1 0 |"},
        {"what becomes sourced is not told again", {"1 10 :V", "1 10 *V"}, " |"},
        {"what is sourced no longer is told again", {"1 10 *V", "1 10 :V"}, " +1 10 |"},
        {"only an added component is told", {"1 10 *V", "1 10 *GV"}, " | +1 10"},
        {"who is added with a change is told the new data", {"1 10 *V", "1 11 *GV"}, " ~1 10 +1 11 | +1 11"},
        {"and so is who was added before", {"1 10 *V", "1 10 *GV", "1 11 *GV"}, " +1 11 | +1 11"},
        {"a dropped one is told", {"1 10 *GV", "1 10 *V"}, " | -1 10"},
        {"and so with a change for the others", {"1 10 *GV", "1 11 *V"}, " ~1 10 +1 11 | -1 10"},
        {"in mid-change of the new data",
         {"1 10 *GV", "1 11 *GV", "half", "1 10 *G"},
         " ~1 10 +1 11 -1 11 | ~1 10 +1 11 ~1 11 +1 10"},
        {"who was never told is left alone", {"1 10 *V", "1 10 *GV", "1 11 *V"}, " ~1 10 +1 11 |"},
        {"one at a time", {"1 10 *GV", "1 10 *V", "1 10 :"}, " -1 10 | -1 10"},
        {"who is dropped and named again is told both",
         {"1 10 *GV", "1 10 *V", "1 10 *GV"},
         " | -1 10 +1 10"},
        {"and in this order, with other data", {"1 10 *GV", "1 10 *V", "", "1 9 *G"}, " -1 10 | -1 10 +1 9"},
    };
    for (const auto& row : aCases) {
        const auto allButFirst = [isLost = false]() mutable { return std::exchange(isLost, true); };
        SCOPED_TRACE(row.m_sRule);
        give(row.m_vSteps[0]);
        passes(20);
        m_oTold.clear();
        for (size_t i = 1; i < row.m_vSteps.size(); ++i) {
            if (row.m_vSteps[i] == "half") {
                passes(1, allButFirst);
            } else {
                give(row.m_vSteps[i]);
            }
        }
        passes(20);
        EXPECT_EQ(m_oTold["V"] + " |" + m_oTold["G"], row.m_sTold);
        expectSettled(row.m_vSteps.back());
    }
}

// 206 and 306 are the codes that need a restart, whether the merge brings it in or not.
TEST_F(CHandOverTest, AFeatureThatNeedsARestartIsReported) {
    const std::pair<const char*, bool> aLists[] = {
        {"206 1 :V", true},           {"206 1 :V, 7 2 :V", false}, {"", false},
        {"306 1 *GV", true},          {"306 1 *V", false},         {"306 2 *V", true},
        {"306 1 *V, 206 1 *V", true}, {"306 1 *V", false}};
    for (const auto& [list, isNeeded] : aLists) {
        EXPECT_EQ(give(list), isNeeded) << list;
        passes(5);
    }
}

// Without memory a list changes nothing and can be handed over again, or it comes through all the same.
TEST_F(CHandOverTest, WhateverAllocationFailsTheListComesThrough) {
    bool isThrough = false;
    for (size_t nth = 1; !isThrough; ++nth) {
        SCOPED_TRACE(nth);
        m_oTold.clear();
        give("1 10 *GPV, 2 20 :GV, 3 30 *GP");
        passes(30);
        give("1 10 *GP, 2 20 :G, 4 40 *V");
        CFreshList list = parse("1 11 *GPV, 3 31 :PV, 206 1 :G");
        const auto before = table();
        {
            const CScarceMemory scarce(nth);
            const bool isDone = m_oHandOver.apply(list).has_value();
            isThrough = !CScarceMemory::hasFailed();
            const CPlentyOfMemory plenty;
            if (!isDone) {
                EXPECT_EQ(table(), before);
                EXPECT_TRUE(m_oHandOver.apply(list).has_value());
            }
        }
        passes(30);
        EXPECT_EQ(m_oTold["V"].find("+4 40"), std::string::npos) << "told of what went before it was told";
        expectSettled("1 11 *GPV, 206 1 :G, 3 31 :PV");
        give("");
        passes(30);
    }
}

// Lists come while the last one is still under way, and replies get lost.
TEST_F(CHandOverTest, TheTableComesToStandForTheLastOfRandomLists) {
    const auto upTo = [this](uint32_t limit) { return static_cast<uint32_t>(m_oRandom() % (limit + 1)); };
    for (int round = 0; round < 1000 && !HasFailure(); ++round) {
        SCOPED_TRACE(round);
        m_bOneDataACode = round < 500;
        std::string list;
        for (uint32_t lists = 1 + upTo(3); lists > 0; --lists) {
            list.clear();
            const uint32_t step = m_bOneDataACode ? 4 : 1;
            for (uint32_t i = m_bOneDataACode ? upTo(3) : 0; i < 16; i += step) {
                std::string names = upTo(1) == 1 ? "*GPV" : ":GPV";
                std::erase_if(names, [&](char name) { return std::isalpha(name) && upTo(2) == 0; });
                const auto feature = fmt::format("{} {} {}", 1 + i / 4, i % 4, names);
                list += upTo(3) != 0 ? "" : (list.empty() ? "" : ", ") + feature;
            }
            give(list);
            passes(upTo(6), [&upTo] { return upTo(3) == 0; });
            if (upTo(5) == 0) {
                restart(std::string(1, "GPV"[upTo(2)]), upTo(8));
            }
        }
        passes(80);
        expectSettled(list);
    }
}

} // namespace
