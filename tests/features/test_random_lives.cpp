// Long random lives of the daemon's heart: held against its invariants after every step, and against lives in
// which the merge and the periodic passes are walked by hand.
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
#include <sstream>
#include <tuple>

namespace {

using enum CFeatureEntry::EFStatus;
using enum CFeatureEntry::EOperator;
using enum CCompStatus::ECStatus;

// What starts a phase: the state of the feature, the states of the record, where it goes, what is sent.
const std::tuple<EFStatus, std::set<int>, CCompStatus::ECStatus, uint32_t> aPushed[] = {
    {fsNewAdd, {0}, csEnabling, 1},
    {fsModify, {6, 7}, csModifying, 1},
    {fsModify, {0, 2, 3}, csModifying, 2},
    {fsDeleted, {0, 2, 3, 10, 11}, csDisabling, 3}};

const std::map<int, CCompStatus::ECStatus> aOverdue{
    {1, csEnableTimedOut}, {5, csDisableTimedOut}, {9, csModifyFailed}};
const std::set<int> aAnswered{2, 3, 4, 6, 7, 8, 10, 11, 12};

// The merge and the passes, looking through everything for everything. Of the log, only what merge and
// timeout tell of features is written.
class CPlainWalk {
public:
    static CFeatureEntry* withPair(const CEntries& entries, const CFeatureEntry& pair) {
        return firstOf(entries, [&pair](const CFeatureEntry& entry) {
            return entry.m_nCode == pair.m_nCode && entry.m_nData == pair.m_nData;
        });
    }

    int merge(CList& list) {
        for (CFeatureEntry* entry : m_vTable) {
            if (!isMatched(*entry, list.m_vItems) || entry->m_bSourced != 1) {
                restart(*entry, fsDeleted, "deleted feature");
                m_nResult = 2;
            }
        }
        for (const CFeatureEntry* listed : list.m_vItems) {
            CFeatureEntry* entry = withPair(m_vTable, *listed);
            if (entry != nullptr && entry->m_eStatus != fsDeleted) {
                entry->m_eStatus = fsExisting;
                note("existing feature", *entry);
            }
        }
        for (CFeatureEntry*& listed : list.m_vItems) {
            bringIn(listed);
        }
        return m_nResult;
    }

    void audit() {
        for (CFeatureEntry* entry : m_vTable) {
            const bool isOver = entry->m_eStatus == fsDeleted && isAnswered(*entry, aAnswered);
            bool isSent = false;
            for (CComponent* comp : m_vComponents) {
                isSent |= !isOver && entry->findCompName(comp->m_szName) && auditOne(*entry, *comp);
            }
            if (isSent) {
                return;
            }
        }
    }

    void timeout() {
        for (size_t i = 0; i < m_vTable.size(); ++i) {
            if (isAnswered(*m_vTable[i], aAnswered)) {
                settle(m_vTable[i]);
            }
            if (i < m_vTable.size()) {
                resend(*m_vTable[i]); // of the entry that moved up, where one went
            }
        }
    }

private:
    static void note(const char* what, const CFeatureEntry& entry, const std::string& more = "") {
        logEvent(svInfo, 31115, "%s %d %d%s", what, entry.m_nCode, entry.m_nData, more.c_str());
    }
    static void restart(CFeatureEntry& entry, EFStatus status, const char* what, const char* more = "") {
        entry.m_eStatus = status;
        entry.setCompStatus(csIdle);
        note(what, entry, more);
    }

    template <typename Test>
    static CFeatureEntry* firstOf(const CEntries& entries, Test test) {
        const auto found = std::ranges::find_if(entries, [&](const auto* entry) { return test(*entry); });
        return found != entries.end() ? *found : nullptr;
    }
    static CFeatureEntry* withCodeButNot(const CEntries& entries, uint32_t code, EFStatus status) {
        return firstOf(entries,
                       [&](auto& entry) { return entry.m_nCode == code && entry.m_eStatus != status; });
    }
    // By every monitored component, with a record in one of these states.
    static bool isAnswered(const CFeatureEntry& entry, const std::set<int>& by) {
        return std::ranges::all_of(entry.m_vCompStatus, [&by](const CCompStatus* status) {
            return status->m_pComponent->m_bMonitor != 1 || by.count(status->m_eStatus) != 0;
        });
    }

    static bool isMatched(const CFeatureEntry& entry, const CEntries& list) {
        CFeatureEntry* match = withPair(list, entry);
        if (match == nullptr && (match = withCodeButNot(list, entry.m_nCode, fsModify)) != nullptr) {
            match->m_eStatus = fsModify;
        }
        return match != nullptr;
    }

    void bringIn(CFeatureEntry*& listed) {
        CFeatureEntry* same = withPair(m_vTable, *listed);
        if (same != nullptr && same->m_eStatus != fsDeleted) {
            return;
        }
        CFeatureEntry* old = same != nullptr ? same : withCodeButNot(m_vTable, listed->m_nCode, fsExisting);
        if (old == nullptr) {
            EXPECT_TRUE(control().addFeature(listed));
            restart(*listed, fsNewAdd, "newadd feature");
        } else if (old->m_eStatus == fsDeleted) {
            old->m_nData = listed->m_nData;
            restart(*old, fsNewAdd, same ? "reuse newadd feature" : "newadd feature (disable reuse)",
                    same ? " " : "");
        } else {
            modify(*old, listed->m_nData);
        }
        if (same == nullptr && (listed->m_nCode == 206 || listed->m_nCode == 306)) {
            note("found feature", *listed, " in reboot list");
            m_nResult = 1;
        }
        if (old != nullptr) {
            delete listed;
        }
        listed = nullptr;
    }

    void modify(CFeatureEntry& entry, uint32_t data) {
        m_nResult = data < entry.m_nData ? 2 : m_nResult;
        note("modify feature", entry, "  (" + std::to_string(data) + ")");
        entry.m_eStatus = fsModify;
        entry.m_nNewData = data;
        if (entry.setCompStatus(csIdle) == 0) {
            entry.m_eStatus = fsExisting;
            entry.m_nData = data;
            entry.m_nNewData = 0;
            note("treated as replied feature", entry);
        }
    }

    static bool auditOne(CFeatureEntry& entry, CComponent& comp) {
        CCompStatus* status = entry.findCompByPtr(&comp);
        const bool isHeld = comp.findFeatureEntry(&entry) != 0;
        if (status != nullptr && isHeld) {
            return comp.m_bMonitor == 1 && push(entry, comp, *status);
        }
        if (status == nullptr) {
            entry.addComponent(opAdd, &comp);
        }
        entry.addComponent(opNotify, &comp);
        comp.sendMessage(1, entry.m_nCode, entry.m_nData);
        if (!isHeld) {
            comp.addFeatureEntry(&entry);
        }
        return true;
    }

    static bool push(CFeatureEntry& entry, CComponent& comp, CCompStatus& status) {
        for (const auto& [feature, from, to, type] : aPushed) {
            if (feature == entry.m_eStatus && from.count(status.m_eStatus) != 0) {
                status.m_eStatus = to;
                status.m_tStamp = static_cast<uint32_t>(platform().m_nMicroseconds / 1000000);
                const uint32_t data = to == csModifying && type == 1 ? entry.m_nNewData : entry.m_nData;
                comp.sendMessage(type, entry.m_nCode, data, type == 2 ? entry.m_nNewData : 0);
                return true;
            }
        }
        if ((entry.m_eStatus != fsActive && entry.m_eStatus != fsExisting) ||
            entry.addComponent(opNotify, &comp) == 0) {
            return false;
        }
        comp.sendMessage(1, entry.m_nCode, entry.m_nData);
        return true;
    }

    void settle(CFeatureEntry* entry) {
        const bool isModified = entry->m_eStatus == fsModify;
        if (isModified && !isAnswered(*entry, {10, 11, 12})) {
            note("wrong modify", *entry, " (0)");
        } else if (entry->m_eStatus == fsDeleted) {
            note("remove deleted feature", *entry);
            for (CComponent* comp : m_vComponents) {
                comp->delFeatureEntry(entry);
            }
            control().delFeature(entry);
            delete entry;
        } else if (entry->m_eStatus != fsActive) {
            entry->m_nData = isModified && entry->m_nNewData != 0 ? entry->m_nNewData : entry->m_nData;
            entry->m_nNewData = isModified ? 0 : entry->m_nNewData;
            entry->m_eStatus = fsActive;
            note(isModified ? "modify to active feature" : "newadd or existing to active feature", *entry);
        }
    }

    static void resend(CFeatureEntry& entry) {
        for (CCompStatus* late : entry.m_vCompStatus) {
            const auto to = aOverdue.find(late->m_eStatus);
            if (to != aOverdue.end() && platform().m_nMicroseconds / 1000000 - late->m_tStamp > 10) {
                logEvent(svInfo, 31115, "timeout feature %d for comp %s at state %d", entry.m_nCode,
                         late->m_pComponent->m_szName, late->m_eStatus);
                late->m_eStatus = to->second;
                late->m_pComponent->sendMessage(4, entry.m_nCode, entry.m_nData);
            }
        }
    }

    const CEntries& m_vTable = control().features().m_vItems;
    const std::vector<CComponent*>& m_vComponents = control().components().m_vItems;
    int m_nResult = 0;
};

// The states of all records, as the steps of the delivery tell them.
class CWitnessed {
public:
    static void see(const STransition& step) {
        const CPlentyOfMemory plenty;
        auto& states = get().m_oStates;
        const auto known = states.try_emplace(&step.m_oRecord, csIdle).first;
        get().m_bContinuous &= known->second == step.m_eFrom;
        known->second = step.m_eTo;
        if (step.m_eCause == dvRemove || step.m_eCause == dvForget) {
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

    // How merge and passes are done: by the daemon, by the daemon without memory for its indexes, by hand.
    enum EWalk { wkDaemon, wkStarved, wkPlain };

    // Without memory the first or the second allocation fails, both of an index.
    template <typename Operation>
    void starve(EWalk walk, Operation operation) {
        const CScarceMemory scarce(walk == wkStarved ? 1 + ++m_nStarved % 2 : 0, CScarceMemory::knThrowing);
        operation();
    }

    void step(EWalk walk = wkDaemon) {
        const uint32_t handle = 1 + below(6);
        const std::function<void()> steps[] = {
            [&] { announceSome(handle); },
            [&] { request(InitListMsgType, handle, below(8) == 0 ? name() : ""); },
            [&] { request(nQelClientGetFeatureMsgType, handle, below(32) == 0 ? name() : ""); },
            [&] { request(nQelClientStartMonitorMsgType, handle, below(16) == 0 ? name() : ""); },
            [&] { reply(handle, below(4) == 0 ? below(3) : 1); },
            [&] { receive(hostileBody()); },
            [&] { walk == wkPlain ? CPlainWalk().audit() : starve(walk, [] { control().audit(); }); },
            [&] { walk == wkPlain ? CPlainWalk().timeout() : starve(walk, [] { control().timeout(); }); },
            [&] { below(4) == 0 ? shutDown(handle) : drawSome(walk); },
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

    // All that control, features and components hold.
    static std::string tables() {
        std::ostringstream text;
        for (const CFeatureEntry* entry : control().features().m_vItems) {
            text << "\nfeature " << entry->m_nCode << ' ' << entry->m_nData << ' ' << entry->m_nNewData << ' '
                 << entry->m_eStatus << ' ' << int{entry->m_bSourced} << ':';
            for (const CCompStatus* record : entry->m_vCompStatus) {
                text << ' ' << record->m_pComponent->m_szName << ' ' << record->m_eStatus << ' '
                     << record->m_tStamp << ' ' << record->m_nEnableTries << record->m_nDisableTries
                     << record->m_nModifyTries;
            }
        }
        for (const CComponent* comp : control().components().m_vItems) {
            text << "\ncomponent " << comp->m_szName << ' ' << comp->m_nNextFeature << ' '
                 << comp->m_nKnownCount << ' ' << int{comp->m_bMonitor} << ':';
            for (const CFeatureEntry* entry : comp->m_aFeatures.m_vItems) {
                text << ' ' << entry->m_nCode << '/' << entry->m_nData;
            }
        }
        return text.str();
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
    void drawSome(EWalk walk) {
        const CEntries& table = control().features().m_vItems;
        const bool isList = below(3) == 0;
        CEntries list;
        for (uint32_t i = isList ? below(9) : 1; i > 0; --i) {
            CFeatureEntry* entry = draw();
            !isList&& CPlainWalk::withPair(table, *entry) ? delete entry : list.push_back(entry);
        }
        if (isList) {
            int result = 0;
            const CMerge byHand = [](CList& merged) { return CPlainWalk().merge(merged); };
            if (walk == wkPlain) {
                result = newList(list, byHand);
            } else {
                CList merged{list};
                starve(walk, [&] { result = control().addFeatureList(merged); });
                std::ranges::for_each(merged.m_vItems, [](CFeatureEntry* entry) { delete entry; });
            }
            logEvent(svInfo, 31115, "result %d", result);
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

TEST_F(CRandomLivesTest, MergeAndPassesDoWhatThePlainWalksDo) {
    const auto life = [this](uint32_t seed, EWalk walk) {
        CTexts steps;
        start(seed);
        for (int i = 0; i < 400; ++i) {
            step(walk);
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
        const CTexts plain = life(seed, wkPlain);
        for (const EWalk walk : {wkDaemon, wkStarved}) {
            const CTexts ours = life(seed, walk);
            const auto [here, there] = std::ranges::mismatch(ours, plain);
            ASSERT_TRUE(here == ours.end())
                << "seed " << seed << " step " << here - ours.begin() << " walk " << walk << ":\n"
                << *here << "\ninstead of:\n"
                << *there;
        }
    }
}

} // namespace
