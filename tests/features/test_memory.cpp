// Whatever allocation fails, nothing is half done, and the passes make good for what could not be done.
#include "world.h"

#include "features/delivery.h"
#include "support/scarce_memory.h"

#include <algorithm>
#include <functional>

namespace {

using enum CFeatureEntry::EFStatus;
using enum CCompStatus::ECStatus;

constexpr uint32_t nVoice = 0x21, nGateway = 0x22, nTracing = 0x23;
constexpr uint32_t nPolls = 40; // more passes than there are features to tell of

struct SOperation {
    const char* m_szName;
    bool m_bTold;           // every failure is told: no index, which the operation can do without, is built
    std::string m_sMessage; // that it is the answer to; empty: m_fnRun
    std::function<void()> m_fnRun = {};
};

class CMemoryTest : public CHeartTest {
protected:
    // With nothing in the tables. What they once grew to is given back, so that they must grow anew.
    static size_t held() {
        empty();
        platform().reset();
        const_cast<CEntries&>(control().features().m_vItems).shrink_to_fit();
        const_cast<std::vector<CComponent*>&>(control().components().m_vItems).shrink_to_fit();
        return CScarceMemory::held();
    }

    // Two components that have what there is, and a list of all kinds of changes that nobody was told of yet.
    static void build() {
        held();
        for (const auto& [code, status] :
             {std::pair{1U, fsActive}, {2U, fsNewAdd}, {3U, fsModify}, {4U, fsDeleted}}) {
            feature(code, 10, status, {"Voice", "Gateway", "Tracing"}).m_nNewData =
                status == fsModify ? 11 : 0;
        }
        announce("Voice", 1, nVoice);
        announce("Gateway", 1, nGateway);
        monitor(nVoice);
        control().features().m_vItems[0]->addComponent(CFeatureEntry::opRemove,
                                                       control().findCompByMFW(nGateway));
        platform().takeLog();
    }

    static CList list() {
        const CPlentyOfMemory plenty;
        return {{fresh(1, 10), fresh(2, 12), fresh(5, 50), fresh(206, 1)}};
    }

    static bool areAllRecordsOfTheTable() {
        const auto isOfTheTable = [](const CCompStatus* record) {
            return std::ranges::count(control().components().m_vItems, record->m_pComponent) == 1;
        };
        return std::ranges::all_of(control().features().m_vItems, [&](const CFeatureEntry* entry) {
            return std::ranges::all_of(entry->m_vCompStatus, isOfTheTable);
        });
    }

    static void poll() {
        control().audit();
        for (int i = 0; i < 5; ++i) {
            reply(nVoice, 1);
            reply(nGateway, 1);
            reply(nTracing, 1);
        }
        control().timeout();
    }

    // Who is concerned knows of everything, and who is monitored has answered.
    static bool isSettled() {
        const auto isDone = [](const CFeatureEntry& entry, const CComponent& comp) {
            const CCompStatus* record = entry.findCompByPtr(&comp);
            return entry.findCompName(comp.m_szName) == 0 ||
                   (record != nullptr && comp.findFeatureEntry(&entry) != 0 &&
                    (comp.m_bMonitor != 1 || isAnswered(record->m_eStatus)));
        };
        return std::ranges::all_of(control().features().m_vItems, [&](const CFeatureEntry* entry) {
            return entry->m_eStatus == fsActive &&
                   std::ranges::all_of(control().components().m_vItems,
                                       [&](auto* comp) { return isDone(*entry, *comp); });
        });
    }
};

TEST_F(CMemoryTest, AfterAnyFailedAllocationTheTablesHoldAndThePassesRepair) {
    const auto merge = [] {
        CList fresh = list();
        control().addFeatureList(fresh);
        std::ranges::for_each(fresh.m_vItems, [](CFeatureEntry* entry) { delete entry; });
    };
    const SOperation aOperations[] = {
        {"new name", true, requestBody(CompNameMsgType, nTracing, "Tracing", 1)},
        {"restarted", true, requestBody(CompNameMsgType, nVoice, "Voice", 2)},
        {"monitor", true, requestBody(nQelClientStartMonitorMsgType, nGateway)},
        {"list for OAM", true, header(nQelOAMActiveFeatureMsgType, 0, nVoice)},
        {"merge", false, "", merge},
        {"audit", false, "", [] { control().audit(); }},
        {"timeout", false, "", [] { control().timeout(); }},
        {"known", true, "", [] { control().auditComponent(); }},
    };
    SCOPED_TRACE("what is made once is made");
    build();
    poll();
    const size_t before = held();
    for (const auto& [name, isTold, message, run] : aOperations) {
        size_t nth = 0;
        for (bool hasFailed = true; hasFailed;) {
            SCOPED_TRACE(std::string(name) + ", allocation " + std::to_string(++nth));
            build();
            platform().m_oProcesses = {{"tracing", nTracing}};
            {
                const CScarceMemory scarce(nth);
                ASSERT_NO_THROW(message.empty() ? run() : receive(message));
                hasFailed = CScarceMemory::hasFailed();
            }
            EXPECT_TRUE(areAllRecordsOfTheTable());
            const bool hasTold = std::ranges::count(takeLines(), "1 31124 failed to new obj") != 0;
            EXPECT_EQ(isTold && hasFailed, isTold && hasTold);
            for (uint32_t i = 0; i < nPolls && !isSettled(); ++i) {
                platform().advance(8);
                poll();
            }
            EXPECT_TRUE(isSettled());
        }
        EXPECT_GT(nth, 1U) << name << " allocates nothing";
        EXPECT_EQ(held(), before) << name << " leaves something behind";
    }
}

} // namespace
