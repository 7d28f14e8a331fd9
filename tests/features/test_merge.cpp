// The merge of a new list: against a plain walk on random tables, and case by case.
#include "random_world.h"
#include "world.h"

#include "server/log.h"

#include <algorithm>

namespace {

using EFStatus = CFeatureEntry::EFStatus;
using CEntries = std::vector<CFeatureEntry*>;
constexpr uint32_t nEvent = 31115;

template <typename Test>
CFeatureEntry* firstOf(const CEntries& entries, Test test) {
    const auto found = std::find_if(entries.begin(), entries.end(),
                                    [&](CFeatureEntry* entry) { return entry != nullptr && test(*entry); });
    return found != entries.end() ? *found : nullptr;
}

CFeatureEntry* withPair(const CEntries& entries, const CFeatureEntry& pair) {
    return firstOf(entries, [&](const CFeatureEntry& entry) {
        return entry.m_nCode == pair.m_nCode && entry.m_nData == pair.m_nData;
    });
}

CFeatureEntry* withCodeButNot(const CEntries& entries, uint32_t code, EFStatus status) {
    return firstOf(entries, [&](const CFeatureEntry& entry) {
        return entry.m_nCode == code && entry.m_eStatus != status;
    });
}

// The merge as one would walk it by hand, looking through everything for everything.
class CPlainMerge {
public:
    CPlainMerge(CQelControl& control, CEntries& list)
        : m_oControl(control), m_vTable(control.features().m_vItems), m_vList(list) {}

    int run() {
        for (CFeatureEntry* entry : m_vTable) {
            if (entry != nullptr && !(isMatched(*entry) && entry->m_bSourced == 1)) {
                entry->m_eStatus = EFStatus::fsDeleted;
                entry->setCompStatus(CCompStatus::csIdle);
                logEvent(svInfo, nEvent, "deleted feature %d %d", entry->m_nCode, entry->m_nData);
                m_nResult = 2;
            }
        }
        for (const CFeatureEntry* listed : m_vList) {
            CFeatureEntry* entry = listed != nullptr ? withPair(m_vTable, *listed) : nullptr;
            if (entry != nullptr && entry->m_eStatus != EFStatus::fsDeleted) {
                entry->m_eStatus = EFStatus::fsExisting;
                logEvent(svInfo, nEvent, "existing feature %d %d", entry->m_nCode, entry->m_nData);
            }
        }
        for (CFeatureEntry*& listed : m_vList) {
            if (listed != nullptr) {
                bringIn(listed);
            }
        }
        return m_nResult;
    }

private:
    bool isMatched(const CFeatureEntry& entry) {
        if (withPair(m_vList, entry) != nullptr) {
            return true;
        }
        CFeatureEntry* claimed = withCodeButNot(m_vList, entry.m_nCode, EFStatus::fsModify);
        if (claimed != nullptr) {
            claimed->m_eStatus = EFStatus::fsModify;
        }
        return claimed != nullptr;
    }

    void bringIn(CFeatureEntry*& listed) {
        CFeatureEntry* entry = withPair(m_vTable, *listed);
        if (entry != nullptr && entry->m_eStatus != EFStatus::fsDeleted) {
            return;
        }
        const bool isReused = entry != nullptr;
        if (isReused) {
            again(*entry);
            logEvent(svInfo, nEvent, "reuse newadd feature %d %d ", entry->m_nCode, entry->m_nData);
        } else if ((entry = withCodeButNot(m_vTable, listed->m_nCode, EFStatus::fsExisting)) == nullptr) {
            again(*listed);
            m_oControl.addFeature(listed);
            logEvent(svInfo, nEvent, "newadd feature %d %d", listed->m_nCode, listed->m_nData);
        } else if (entry->m_eStatus == EFStatus::fsDeleted) {
            again(*entry);
            entry->m_nData = listed->m_nData;
            logEvent(svInfo, nEvent, "newadd feature (disable reuse) %d %d", listed->m_nCode,
                     listed->m_nData);
        } else {
            modify(*entry, listed->m_nData);
        }
        if (!isReused && (listed->m_nCode == 206 || listed->m_nCode == 306)) {
            logEvent(svInfo, nEvent, "found feature %d %d in reboot list", listed->m_nCode, listed->m_nData);
            m_nResult = 1;
        }
        if (entry != nullptr) {
            delete listed;
        }
        listed = nullptr;
    }

    static void again(CFeatureEntry& entry) {
        entry.m_eStatus = EFStatus::fsNewAdd;
        entry.setCompStatus(CCompStatus::csIdle);
    }

    void modify(CFeatureEntry& entry, uint32_t data) {
        m_nResult = data < entry.m_nData ? 2 : m_nResult;
        logEvent(svInfo, nEvent, "modify feature %d %d  (%d)", entry.m_nCode, entry.m_nData, data);
        entry.m_eStatus = EFStatus::fsModify;
        entry.m_nNewData = data;
        if (entry.setCompStatus(CCompStatus::csIdle) == 0) {
            entry.m_eStatus = EFStatus::fsExisting;
            entry.m_nData = data;
            entry.m_nNewData = 0;
            logEvent(svInfo, nEvent, "treated as replied feature %d %d", entry.m_nCode, data);
        }
    }

    CQelControl& m_oControl;
    const CEntries& m_vTable;
    CEntries& m_vList;
    int m_nResult = 0;
};

using CMergeTest = CHeartTest;

TEST_F(CMergeTest, FindsWhatThePlainWalkFinds) {
    for (uint32_t seed = 0; seed < 20000; ++seed) {
        CRandomWorld plain(seed);
        const int plainResult = CPlainMerge(plain.m_oControl, plain.m_aList.m_vItems).run();
        const std::string plainLog = transcript();
        CRandomWorld world(seed);
        ASSERT_EQ(world.m_oControl.addFeatureList(world.m_aList), plainResult) << "seed " << seed;
        ASSERT_EQ(transcript(), plainLog) << "seed " << seed;
        ASSERT_EQ(world.state(), plain.state()) << "seed " << seed;
    }
}

TEST_F(CMergeTest, TheSameListAgainPushesWhatAListBroughtAndLeavesWhatTheSourceKeeps) {
    size_t left = 0;
    feature(control(), 2, 20);
    EXPECT_EQ(newList(control(), {fresh(1, 10), fresh(2, 20)}, &left), 0);
    EXPECT_EQ(left, 1u);
    EXPECT_EQ(newList(control(), {fresh(1, 10), fresh(2, 20)}, &left), 2);
    EXPECT_EQ(left, 1u);
    EXPECT_EQ(newList(control(), {}), 2);
    EXPECT_EQ(transcript(), "4 31115 existing feature 2 20\n4 31115 newadd feature 1 10\n"
                            "4 31115 deleted feature 1 10\n4 31115 existing feature 2 20\n"
                            "4 31115 reuse newadd feature 1 10 \n"
                            "4 31115 deleted feature 2 20\n4 31115 deleted feature 1 10\n");
    empty(control());
    EXPECT_EQ(newList(control(), {}), 0);
}

TEST_F(CMergeTest, OneNewEntryIsClaimedByOneOldOne) {
    for (const uint8_t sourced : {uint8_t{1}, uint8_t{0}}) {
        CFeatureEntry& first = *feature(control(), 1, 10);
        CFeatureEntry& second = *feature(control(), 1, 11);
        first.m_bSourced = second.m_bSourced = sourced;
        record(first, *component(control(), "Voice"), CCompStatus::csEnabled);
        EXPECT_EQ(newList(control(), {fresh(1, 12)}), 2);
        EXPECT_EQ(first.m_eStatus, sourced == 1 ? EFStatus::fsModify : EFStatus::fsNewAdd);
        EXPECT_EQ(first.m_nNewData, sourced == 1 ? 12u : 0u);
        EXPECT_EQ(first.m_nData, sourced == 1 ? 10u : 12u);
        EXPECT_EQ(second.m_eStatus, EFStatus::fsDeleted);
        empty(control());
    }
}

TEST_F(CMergeTest, TheResultIsWhatCameLast) {
    feature(control(), 5, 50);
    EXPECT_EQ(newList(control(), {fresh(206, 1)}), 1); // 5 was withdrawn before
    empty(control());
    feature(control(), 5, 50);
    EXPECT_EQ(newList(control(), {fresh(306, 1), fresh(5, 49)}), 2);
    EXPECT_EQ(control().features().m_vItems[0]->m_nData, 49u); // nobody had to be waited for
    EXPECT_EQ(platform().logged(nEvent).back(), "treated as replied feature 5 49");
    empty(control());
    feature(control(), 5, 50);
    EXPECT_EQ(newList(control(), {fresh(5, 51)}), 0);
    EXPECT_EQ(control().features().m_vItems[0]->m_eStatus, EFStatus::fsExisting);
}

} // namespace
