#include "operations.h"

#include "messaging/wire/holdings.h"
#include "source/CHandOver.h"

namespace {

// --- Messages: the last component of the table speaks ---

void announceLast(CWorld& world) {
    world.say(CompNameMsgType);
}

void announceRestarted(CWorld& world) {
    world.say(CompNameMsgType, ++world.m_nProcessId);
}

void shutDownLast(CWorld& world) {
    world.reply(ShutdownMsgType);
}

void monitorLast(CWorld& world) {
    world.last().m_bMonitor = 1;
}

void announceAndMonitor(CWorld& world) {
    announceLast(world);
    monitorLast(world);
}

// What makes a step of a delivery.
template <CCompStatus::ECStatus eStatus>
void prepareFirst(CWorld& world) {
    world.putFirst(eStatus);
    world.last().rewindFeatureList();
}

void rewindLast(CWorld& world) {
    CComponent& comp = world.last();
    if (comp.m_nNextFeature == static_cast<int32_t>(world.m_nFeatures)) {
        comp.rewindFeatureList();
    }
}

void getFeature(CWorld& world) {
    rewindLast(world);
    world.say(nQelClientGetFeatureMsgType);
}

// --- Lists ---

void mergeList(CWorld& world) {
    world.m_oControl.addFeatureList(world.m_aList);
}

void prepareUnchanged(CWorld& world) {
    world.settle(1);
    world.makeList(0);
}

void preparePushedAgain(CWorld& world) {
    world.settle(0);
    world.makeList(0);
}

void prepareHalfModified(CWorld& world) {
    world.settle(1);
    world.makeList(2);
}

void prepareAllNew(CWorld& world) {
    world.dropFeatures();
    world.makeList(0);
}

// As the feature source does it, which keeps `list` from its own thread.
CFreshList oFresh;

void makeFresh(CWorld& world, bool sourced) {
    world.makeList(0);
    oFresh.clear();
    for (CFeatureEntry* entry : world.m_aList.m_vItems) {
        oFresh.push_back({std::unique_ptr<CFeatureEntry>(entry), sourced});
    }
    world.m_aList.m_vItems.clear();
}

void prepareHandOverUnchanged(CWorld& world) {
    world.settle(1);
    makeFresh(world, true);
}

void prepareHandOverPushed(CWorld& world) {
    world.settle(0);
    makeFresh(world, false);
}

// One of the components is dropped from every feature.
void prepareHandOverDropped(CWorld& world) {
    world.refill();
    prepareHandOverUnchanged(world);
    for (SFreshFeature& fresh : oFresh) {
        fresh.m_pEntry->m_vCompNames.pop_back();
    }
}

void handOver(CWorld& world) {
    static_cast<void>(CHandOver(world.m_oControl).apply(oFresh));
}

// --- Passes ---

void audit(CWorld& world) {
    world.m_oControl.audit();
}

void timeOut(CWorld& world) {
    world.m_oControl.timeout();
}

void prepareOverdue(CWorld& world) {
    world.putAll(CFeatureEntry::fsActive, CCompStatus::csEnabling, 0);
}

// Questions look at one page: the longest search, where no delivery is open, and the fullest page, where all
// have failed; of these no reason is kept, but as many of others as there is room for.
void prepareAllFailed(CWorld& world) {
    const CCompStatus& record = *world.m_oControl.features().m_vItems.front()->m_vCompStatus.front();
    if (record.m_eStatus == CCompStatus::csEnableFailed) {
        return; // a question changes nothing
    }
    for (size_t i = 0; i < nKeptReasons; ++i) {
        world.refuseFirst();
    }
    world.putAll(CFeatureEntry::fsActive, CCompStatus::csEnableFailed, 0);
}

void askForOpen(CWorld& world) {
    world.question(sqDeliveries, sfOpen);
}

template <uint32_t nWhat>
void askForAll(CWorld& world) {
    world.question(nWhat, 0);
}

// About the last component, the longest way to go.
template <uint32_t nWhat>
void askForLast(CWorld& world) {
    world.question(nWhat, sfComponent);
}

void prepareRemoval(CWorld& world) {
    world.refill();
    world.putAll(CFeatureEntry::fsDeleted, CCompStatus::csDisabled, 0);
}

void pack(CWorld& world) {
    std::vector<char> buffer(static_cast<size_t>(world.m_oControl.getPackSize()));
    world.m_oControl.packFeatures(buffer.data());
}

constexpr SOperation aOperations[] = {
    {"message/known-name", grNothing, nullptr, announceLast},
    {"message/restarted-name", grFeatures, nullptr, announceRestarted},
    {"message/new-name", grFeatures, shutDownLast, announceAndMonitor},
    {"message/shutdown", grPairs, announceAndMonitor, shutDownLast},
    {"message/init-list", grNothing, nullptr, [](CWorld& world) { world.say(InitListMsgType); }},
    {"message/get-feature", grNothing, nullptr, getFeature},
    {"message/first-page", grNothing, prepareFirst<CCompStatus::csIdle>, getFeature},
    {"message/accepted", grFeatures, prepareFirst<CCompStatus::csEnabling>,
     [](CWorld& world) { world.reply(WriteReplyMsgType); }},
    {"message/start-monitor-notified", grNothing, prepareFirst<CCompStatus::csIdle>,
     [](CWorld& world) { world.say(nQelClientStartMonitorMsgType); }},
    {"message/start-monitor", grFeatures, nullptr,
     [](CWorld& world) { world.say(nQelClientStartMonitorMsgType); }},
    {"message/write-reply", grFeatures, nullptr, [](CWorld& world) { world.reply(WriteReplyMsgType); }},
    {"message/active-features", grFeatures, nullptr,
     [](CWorld& world) { world.ask(nQelOAMActiveFeatureMsgType); }},
    {"message/unknown", grNothing, nullptr, [](CWorld& world) { world.ask(99); }},
    {"merge/all-new", grPairs, prepareAllNew, mergeList},
    {"merge/unchanged", grPairs, prepareUnchanged, mergeList},
    {"merge/pushed-again", grPairs, preparePushedAgain, mergeList},
    {"merge/half-modified", grPairs, prepareHalfModified, mergeList},
    {"hand-over/unchanged", grPairs, prepareHandOverUnchanged, handOver},
    {"hand-over/pushed-again", grPairs, prepareHandOverPushed, handOver},
    {"hand-over/one-dropped", grPairs, prepareHandOverDropped, handOver},
    {"audit/nothing-to-do", grPairs, nullptr, audit},
    {"timeout/nothing-to-do", grPairs, nullptr, timeOut},
    {"timeout/all-overdue", grPairs, prepareOverdue, timeOut},
    {"timeout/all-removed", grPairs, prepareRemoval, timeOut},
    {"packing", grFeatures, nullptr, pack},
    {"question/none-open", grNothing, nullptr, askForOpen},
    {"question/all-failed", grNothing, prepareAllFailed, askForOpen},
    {"question/one-component", grNothing, nullptr, askForLast<sqDeliveries>},
    {"question/tally", grNothing, nullptr, askForAll<sqTally>},
    {"question/summary", grFeatures, nullptr, askForAll<sqSummary>},
    {"question/components", grNothing, nullptr, askForAll<sqComponents>},
    {"question/features", grNothing, nullptr, askForAll<sqFeatures>},
    {"question/transitions", grNothing, prepareAllFailed, askForAll<sqTransitions>},
    {"question/holdings", grNothing, nullptr, askForLast<sqHoldings>},
    {"question/held", grNothing, nullptr, askForLast<sqHeld>},
};

} // namespace

void SOperation::prepare(CWorld& world) const {
    if (m_fnPrepare != nullptr) {
        m_fnPrepare(world);
    }
}

int64_t SOperation::items(const CWorld& world) const {
    switch (m_eGrowth) {
    case grNothing:
        return 1;
    case grFeatures:
        return static_cast<int64_t>(world.m_nFeatures);
    case grPairs:
        return static_cast<int64_t>(world.m_nFeatures * world.m_vNames.size());
    }
    return 1;
}

std::span<const SOperation> operations() {
    return aOperations;
}
