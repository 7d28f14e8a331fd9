// Long random lives of the daemon's heart: held against its invariants after every step, and against lives in
// which merge and passes have no memory for their indexes, and search.
//
// QEL_TEST_STEPS in the environment sets how long the former are.
#include "world.h"

#include "features/delivery.h"
#include "server/log/log.h"
#include "support/scarce_memory.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <functional>
#include <map>
#include <random>
#include <set>

namespace {

using enum CCompStatus::ECStatus;

// The states of all records, as the steps of the delivery tell them.
class CWitnessed {
public:
    static void see(EDeliveryEvent cause, const CFeatureEntry&, const CCompStatus& record,
                    CCompStatus::ECStatus from) {
        const CPlentyOfMemory plenty;
        auto& states = get().m_oStates;
        const auto known = states.try_emplace(&record, csIdle).first;
        get().m_bContinuous &= known->second == from;
        known->second = record.m_eStatus;
        if (cause == dvRemove || cause == dvForget) {
            states.erase(known);
        }
    }
    static CWitnessed& get() {
        static CWitnessed witnessed;
        return witnessed;
    }

    // Whether they are the states of the records in the table, and of no others.
    bool isTrue(const CEntries& table) const {
        std::set<const CCompStatus*> records;
        for (const CFeatureEntry* entry : table) {
            records.insert(entry->m_vCompStatus.begin(), entry->m_vCompStatus.end());
        }
        return m_bContinuous && records.size() == m_oStates.size() &&
               std::ranges::all_of(records, [this](const CCompStatus* record) {
                   const auto known = m_oStates.find(record);
                   return known != m_oStates.end() && known->second == record->m_eStatus;
               });
    }

private:
    std::map<const CCompStatus*, int> m_oStates;
    bool m_bContinuous = true; // every step began where the one before had ended
};

class CRandomLivesTest : public CHeartTest {
protected:
    CRandomLivesTest() {
        CWitnessed::get() = {};
        setDeliveryWitness(CWitnessed::see);
    }
    ~CRandomLivesTest() override { setDeliveryWitness(nullptr); }

    void start(uint32_t seed) {
        empty();
        platform().reset();
        platform().m_oProcesses = {{"voice", 1}, {"tracing", 2}};
        m_oRandom.seed(seed);
    }

    // The first or the second allocation fails, both of an index.
    template <typename Operation>
    void starve(bool isStarved, Operation operation) {
        const CScarceMemory scarce(isStarved ? 1 + ++m_nStarved % 2 : 0, CScarceMemory::knThrowing);
        operation();
    }

    void step(bool isStarved = false) {
        const uint32_t handle = 1 + below(6);
        const std::function<void()> steps[] = {
            [&] { announceSome(handle); },
            [&] { request(InitListMsgType, handle, below(8) == 0 ? name() : ""); },
            [&] { request(nQelClientGetFeatureMsgType, handle, below(32) == 0 ? name() : ""); },
            [&] { request(nQelClientStartMonitorMsgType, handle, below(16) == 0 ? name() : ""); },
            [&] { reply(handle, below(4) == 0 ? below(3) : 1); },
            [&] { receive(hostileBody()); },
            [&] { starve(isStarved, [] { control().audit(); }); },
            [&] { starve(isStarved, [] { control().timeout(); }); },
            [&] { below(4) == 0 ? shutDown(handle) : drawSome(isStarved); },
            [&] { somethingRare(handle); },
        };
        steps[below(std::size(steps))]();
    }

    // What is wrong; empty if nothing is.
    std::string violation() {
        const CEntries& table = control().features().m_vItems;
        const auto& components = control().components().m_vItems;
        if (!CWitnessed::get().isTrue(table)) {
            return "a state changed, or a record came or went, of which the delivery told nothing";
        }
        for (const CFeatureEntry* entry : table) {
            std::map<const CComponent*, std::set<const CCompStatus*>> records;
            for (const CCompStatus* status : entry->m_vCompStatus) {
                records[status->m_pComponent].insert(status);
                const auto slots = std::ranges::count(entry->m_vCompStatus, status);
                if (std::ranges::count(components, status->m_pComponent) != 1) {
                    return "a record of a component that is not in the table";
                }
                if (slots > 2 || records[status->m_pComponent].size() > 1) {
                    return "two records of one component, or one in three slots";
                }
                if (std::max({status->m_nEnableTries, status->m_nDisableTries, status->m_nModifyTries}) > 3) {
                    return "more than three sends";
                }
                m_bInTwoSlots |= slots == 2;
                m_vStates.insert(status->m_eStatus);
            }
        }
        for (const CComponent* comp : components) {
            for (const CFeatureEntry* entry : comp->m_aFeatures.m_vItems) {
                if (std::ranges::count(comp->m_aFeatures.m_vItems, entry) +
                        std::ranges::count(table, entry) !=
                    2) {
                    return "a component holds a feature twice, or one that is not in the table";
                }
            }
        }
        return "";
    }

    uint32_t below(size_t limit) { return static_cast<uint32_t>(m_oRandom() % limit); }

    // What the lives have seen, so that those which never get anywhere do not pass.
    std::set<int> m_vStates;
    bool m_bInTwoSlots = false;

private:
    uint32_t code() { return std::array{1u, 2u, 3u, 4u, 5u, 206u}[below(6)]; }
    const char* name() {
        return std::array{"Voice", "Gateway", "Tracing", "ALL", "Anchor", "a_name_that_is_long"}[below(6)];
    }
    CFeatureEntry* draw() {
        static const CNames aConcerned[] = {{"Voice"}, {"Gateway", "Voice"}, {"Tracing", "Gateway"}, {}};
        return fresh(code(), below(3), aConcerned[below(4)]);
    }

    // Under one of two process ids: often as a process that was restarted.
    void announceSome(uint32_t handle) {
        const uint32_t count = below(3);
        const std::string pairs = words({code(), below(3)}) + words({code(), below(3)});
        announce(name(), 1 + below(2), handle, count, pairs.substr(0, 8 * count));
    }

    std::string hostileBody() {
        std::string body = header(below(12) == 0 ? 11 : below(2), below(8), below(6));
        body.resize(below(below(16) == 0 ? 3000 : 100));
        for (size_t i = below(8) == 0 ? 0 : 24; i < body.size(); ++i) { // most heads lead somewhere
            body[i] = static_cast<char>(below(4) == 0 ? below(256) : 0);
        }
        return body;
    }

    // A new list, or an entry that the source itself places into the table.
    void drawSome(bool isStarved) {
        const CEntries& table = control().features().m_vItems;
        const bool isList = below(3) == 0;
        CEntries list;
        for (uint32_t i = isList ? below(9) : 1; i > 0; --i) {
            CFeatureEntry* entry = draw();
            const bool stands =
                std::ranges::any_of(table, [&](auto* other) { return other->id() == entry->id(); });
            !isList&& stands ? delete entry : list.push_back(entry);
        }
        if (isList) {
            CList merged{list};
            starve(isStarved,
                   [&] { logEvent(svInfo, 31115, "result %d", control().addFeatureList(merged)); });
            std::ranges::for_each(merged.m_vItems, [](CFeatureEntry* entry) { delete entry; });
        } else if (!list.empty()) {
            list[0]->m_bSourced = 1;
            EXPECT_TRUE(control().addFeature(list[0]));
        }
    }

    void somethingRare(uint32_t handle) {
        platform().advance(1 + below(15));
        platform().m_oDead = {below(8) == 0 ? handle : 0};
        if (below(50) == 0) {
            control().auditComponent();
        }
        if (below(400) == 0) {
            const CEntries entries = control().features().m_vItems;
            control().clearFeatureArray();
            std::ranges::for_each(entries, [](CFeatureEntry* entry) { delete entry; });
        }
    }

    std::mt19937 m_oRandom;
    size_t m_nStarved = 0;
};

TEST_F(CRandomLivesTest, InvariantsHoldThroughoutLongLives) {
    const char* steps = std::getenv("QEL_TEST_STEPS");
    for (uint32_t seed = 1; seed <= 4; ++seed) {
        start(seed);
        platform().m_bKeepLog = platform().m_bKeepSent = false;
        for (int i = 0; i < (steps != nullptr ? std::atoi(steps) : QEL_TEST_DEFAULT_STEPS); ++i) {
            step();
            ASSERT_EQ(violation(), "") << "seed " << seed << " step " << i;
        }
        while (!control().components().m_vItems.empty()) {
            shutDown(control().components().m_vItems[0]->m_oHeader.m_nHandle);
        }
        EXPECT_EQ(violation(), "") << "a record outlives its component";
    }
    EXPECT_EQ(m_vStates, (std::set<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    EXPECT_TRUE(m_bInTwoSlots);
}

TEST_F(CRandomLivesTest, MergeAndPassesDoTheSameWithoutTheirIndexes) {
    const auto life = [this](uint32_t seed, bool isStarved) {
        CTexts steps;
        start(seed);
        for (int i = 0; i < 400; ++i) {
            step(isStarved);
            const CEntries& table = control().features().m_vItems;
            if (below(4) == 0 && !table.empty()) { // states that a life seldom or never comes to
                table[below(table.size())]->setCompStatus(static_cast<CCompStatus::ECStatus>(below(14)));
            }
            const auto noted = std::pair(platform().logged(31115), platform().logged(31117));
            steps.push_back(testing::PrintToString(noted) + testing::PrintToString(told()) + tables());
        }
        return steps;
    };
    for (uint32_t seed = 0; seed < 300; ++seed) {
        const CTexts usual = life(seed, false);
        const CTexts starved = life(seed, true);
        const auto [here, there] = std::ranges::mismatch(usual, starved);
        ASSERT_TRUE(here == usual.end()) << "seed " << seed << " step " << here - usual.begin() << ":\n"
                                         << *here << "\nwithout memory:\n"
                                         << *there;
    }
}

} // namespace
