#include "table_fixture.h"

#include <random>

namespace {

class CRandomLists : public CTableTest, public testing::WithParamInterface<unsigned> {
protected:
    uint32_t upTo(uint32_t limit) { return std::uniform_int_distribution<uint32_t>(0, limit)(m_oRandom); }

    CWanted anyList() {
        std::map<std::pair<uint32_t, uint32_t>, SWanted> features;
        for (uint32_t left = upTo(8); left > 0; --left) {
            SWanted feature{1 + upTo(3), upTo(3), {}, upTo(1) == 1};
            for (const char* name : {"Voice", "Gateway", "Paging"}) {
                if (upTo(2) != 0) {
                    feature.m_oNames.insert(name);
                }
            }
            features.insert_or_assign({feature.m_nCode, feature.m_nData}, feature);
        }
        CWanted list;
        for (const auto& [pair, feature] : features) {
            list.push_back(feature);
        }
        return list;
    }

    // The list's order is the operator's.
    CWanted shuffled(CWanted list) {
        std::shuffle(list.begin(), list.end(), m_oRandom);
        return list;
    }

    std::mt19937 m_oRandom{GetParam()};
};

// Lists come while the last one is still under way, replies get lost; once things settle, the table stands
// for the last list and nothing else, and no component was told last to disable what it is to have.
TEST_P(CRandomLists, TableStandsForTheLastOne) {
    for (const char* name : {"Voice", "Gateway", "Paging"}) {
        announce(name);
    }
    for (int round = 0; round < 40; ++round) {
        CWanted list;
        for (uint32_t lists = 1 + upTo(3); lists > 0; --lists) {
            list = anyList();
            give(shuffled(list));
            for (uint32_t count = upTo(6); count > 0; --count) {
                pass([this] { return upTo(3) != 0; });
            }
        }
        passes(80);
        ASSERT_EQ(standing(), list) << "round " << round;
        ASSERT_EQ(m_oHandOver.waiting(), 0u);
        for (const CFeatureEntry* entry : m_oControl.features().m_vItems) {
            ASSERT_EQ(entry->m_eStatus, CFeatureEntry::fsActive)
                << "round " << round << ": " << entry->m_nCode;
        }
        for (const SWanted& feature : list) {
            for (const std::string& name : feature.m_oNames) {
                ASSERT_TRUE(isInForceAt(name, feature))
                    << "round " << round << ": " << feature << " at " << name;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, CRandomLists, testing::Range(1u, 26u));

} // namespace
