// Long random lives of the daemon's heart, held against its invariants after every step.
//
// QEL_TEST_STEPS and QEL_TEST_SEEDS in the environment set how long they are and how many.
#include "world.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <random>
#include <set>

namespace {

uint32_t setting(const char* name, uint32_t otherwise) {
    const char* value = std::getenv(name);
    return value != nullptr ? static_cast<uint32_t>(std::strtoul(value, nullptr, 10)) : otherwise;
}

// What a run has seen, so that a run which never gets anywhere does not pass.
struct SSeen {
    std::set<int> m_vStates;
    bool m_bRecordInTwoSlots = false;
    bool m_bWithdrawn = false;
    size_t m_nMostComponents = 0;
};

class CSequenceTest : public CHeartTest {
protected:
    void step() {
        const auto& components = control().components().m_vItems;
        if (components.size() > 8) {
            shutDown(components[0]->m_oHeader.m_nHandle);
            return;
        }
        const uint32_t handle = 1 + below(6);
        const std::function<void()> steps[] = {
            [&] { announceSome(handle); },
            [&] { announceSome(handle); },
            [&] { initList(handle, below(8) == 0 ? name() : ""); },
            [&] { fetch(handle, below(16) == 0 ? name() : ""); },
            [&] { fetch(handle); },
            [&] { monitor(handle, below(16) == 0 ? name() : ""); },
            [&] { reply(handle, 1); },
            [&] { reply(handle, 1); },
            [&] { reply(handle, below(3)); },
            [&] { maybe(4, [&] { shutDown(handle); }); },
            [&] { maybe(4, [&] { drawList(); }); },
            [&] { keep(); },
            [&] { control().audit(); },
            [&] { control().audit(); },
            [&] { control().timeout(); },
            [&] { somethingRare(handle); },
        };
        m_nStep = below(16);
        steps[m_nStep]();
    }

    // What is wrong; empty if nothing is.
    std::string violation() {
        const auto& components = control().components().m_vItems;
        m_oSeen.m_nMostComponents = std::max(m_oSeen.m_nMostComponents, components.size());
        for (const CFeatureEntry* entry : control().features().m_vItems) {
            m_oSeen.m_bWithdrawn |= entry->m_eStatus == CFeatureEntry::fsDeleted;
            if (const std::string wrong = violationIn(*entry); !wrong.empty()) {
                return wrong;
            }
        }
        const std::set<CFeatureEntry*> inTable(control().features().m_vItems.begin(),
                                               control().features().m_vItems.end());
        for (const CComponent* comp : components) {
            const auto& held = comp->m_aFeatures.m_vItems;
            const std::set<CFeatureEntry*> once(held.begin(), held.end());
            if (once.size() != held.size()) {
                return "a component holds a feature twice";
            }
            if (!std::includes(inTable.begin(), inTable.end(), once.begin(), once.end())) {
                return "a component holds a feature that is not in the table";
            }
        }
        return "";
    }

    SSeen m_oSeen;
    std::mt19937 m_oRandom;
    uint32_t m_nStep = 0;

private:
    static constexpr uint32_t nCodes = 6;
    static constexpr uint32_t nData = 3;

    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(m_oRandom() % limit); }

    template <typename Call>
    void maybe(uint32_t chances, Call function) {
        if (below(chances) == 0) {
            function();
        }
    }

    const char* name() {
        static const char* const aNames[] = {"Voice", "Gateway", "Tracing",
                                             "ALL",   "Anchor",  "a_name_that_is_long"};
        return aNames[below(6)];
    }

    CFeatureEntry* draw() {
        static const CNames aConcerned[] = {{"Voice"}, {"Gateway", "Voice"}, {"Tracing", "Gateway"}, {}};
        return fresh(1 + below(nCodes), below(nData), aConcerned[below(4)]);
    }

    // Under one of two process ids: often as a process that was restarted.
    void announceSome(uint32_t handle) {
        std::string pairs;
        const uint32_t count = below(3);
        for (uint32_t i = 0; i < count; ++i) {
            pairs += words({1 + below(nCodes), below(nData)});
        }
        announce(name(), 1 + below(2), handle, count, pairs);
    }

    void drawList() {
        std::map<std::pair<uint32_t, uint32_t>, CFeatureEntry*> entries;
        for (uint32_t i = below(9); i > 0; --i) {
            CFeatureEntry* entry = draw();
            if (!entries.emplace(std::pair{entry->m_nCode, entry->m_nData}, entry).second) {
                delete entry;
            }
        }
        std::vector<CFeatureEntry*> list;
        for (const auto& [pair, entry] : entries) {
            list.push_back(entry);
        }
        std::shuffle(list.begin(), list.end(), m_oRandom);
        newList(control(), list);
    }

    // The source places an entry into the table itself.
    void keep() {
        CFeatureEntry* entry = draw();
        if (control().findFeatureByCodeData(entry->m_nCode, entry->m_nData) != nullptr) {
            delete entry;
            return;
        }
        entry->m_bSourced = 1;
        control().addFeature(entry);
    }

    void somethingRare(uint32_t handle) {
        platform().advance(1 + below(15));
        const auto& components = control().components().m_vItems;
        if (below(4) == 0 && !components.empty()) {
            control().auditComp(components[below(static_cast<uint32_t>(components.size()))]);
        }
        maybe(8, [&] { platform().m_oDead = {handle}; });
        maybe(50, [] { control().auditComponent(); });
        maybe(400, [] {
            const std::vector<CFeatureEntry*> entries = control().features().m_vItems;
            control().clearFeatureArray();
            std::for_each(entries.begin(), entries.end(), [](CFeatureEntry* entry) { delete entry; });
        });
    }

    std::string violationIn(const CFeatureEntry& entry) {
        const auto& components = control().components().m_vItems;
        std::map<const CComponent*, const CCompStatus*> records;
        std::map<const CCompStatus*, int> slots;
        for (const CCompStatus* status : entry.m_vCompStatus) {
            if (status == nullptr) {
                return "a slot is null";
            }
            if (std::find(components.begin(), components.end(), status->m_pComponent) == components.end()) {
                return "a record of a component that is not in the table";
            }
            if (records.emplace(status->m_pComponent, status).first->second != status) {
                return "two records of one component";
            }
            if (++slots[status] > 2) {
                return "a record in three slots";
            }
            m_oSeen.m_bRecordInTwoSlots |= slots[status] == 2;
            if (std::max({status->m_nEnableTries, status->m_nDisableTries, status->m_nModifyTries}) > 3) {
                return "more than three sends";
            }
            m_oSeen.m_vStates.insert(status->m_eStatus);
        }
        return "";
    }
};

TEST_F(CSequenceTest, InvariantsHoldThroughoutLongLives) {
    const uint32_t steps = setting("QEL_TEST_STEPS", 100000);
    const uint32_t seeds = setting("QEL_TEST_SEEDS", 4);
    for (uint32_t seed = 1; seed <= seeds; ++seed) {
        m_oSeen = {};
        m_oRandom.seed(seed);
        platform().reset();
        platform().m_bKeepLog = platform().m_bKeepSent = false;
        platform().m_oProcesses = {{"voice", 1}, {"tracing", 2}};
        for (uint32_t i = 0; i < steps; ++i) {
            step();
            ASSERT_EQ(violation(), "") << "seed " << seed << " step " << i << ": " << m_nStep;
        }
        if (steps >= 10000) {
            EXPECT_EQ(m_oSeen.m_vStates, (std::set<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
            EXPECT_TRUE(m_oSeen.m_bRecordInTwoSlots && m_oSeen.m_bWithdrawn);
            EXPECT_GE(m_oSeen.m_nMostComponents, 6u);
        }
        while (!control().components().m_vItems.empty()) {
            shutDown(control().components().m_vItems[0]->m_oHeader.m_nHandle);
        }
        for (const CFeatureEntry* entry : control().features().m_vItems) {
            EXPECT_TRUE(entry->m_vCompStatus.empty()) << "a record outlives its component";
        }
        empty(control());
    }
}

} // namespace
