#include "features/CFeatureMerge.h"

#include "features/CFeatureEntry.h"
#include "features/CQelControl.h"
#include "features/counters.h"
#include "server/log/log.h"

#include <utility>

namespace {

constexpr uint32_t nMergeEvent = 31115;

// Codes whose addition or modification takes effect with the next restart of the appliance. Ends with 0.
constexpr uint32_t nRebootFeatureList[] = {206, 306, 0};

} // namespace

int CQelControl::addFeatureList(CArray<CFeatureEntry*>& list) {
    count(coMerges);
    ++nTableMoves;
    return CFeatureMerge(m_aFeatures, list).run();
}

// One index over the table and one over the list: each pass walks one of the two and looks into the other.
CFeatureMerge::CFeatureMerge(CArray<CFeatureEntry*>& table, CArray<CFeatureEntry*>& list)
    : m_aTable(table), m_aList(list), m_oTable(table), m_oList(list) {}

// The order is that of the cases: only what the first pass left in force can be existing, and only what is
// not existing can be modified or taken back.
CFeatureMerge::EResult CFeatureMerge::run() {
    withdrawGone();
    markExisting();
    bringIn();
    return m_eResult;
}

// An entry that is not sourced is withdrawn even if the new list has it. bringIn() takes it back, and its
// components are notified once more, so that every list puts right what a component has lost or refused. A
// sourced entry that the list has is left alone.
//
// Records go back to idle here, so the audit sends a disable to every component that monitors, whatever it
// answered before.
void CFeatureMerge::withdrawGone() {
    for (CFeatureEntry* entry : m_aTable.m_vItems) {
        if (entry == nullptr || (isMatched(*entry) && entry->m_bSourced == 1)) {
            continue;
        }
        entry->m_eStatus = CFeatureEntry::fsDeleted;
        entry->setCompStatus(CCompStatus::csIdle);
        logEvent(svInfo, nMergeEvent, "deleted feature %d %d", entry->m_nCode, entry->m_nData);
        m_eResult = rsWithdrawn;
    }
}

// An entry is matched by code and data, else by code alone. In the latter case it claims the list's entry, so
// that no second entry of the table with that code is kept for it: of two sourced entries of a code, one is
// modified and the other withdrawn. The claim is kept in the status of the list's entry, which has no other
// use before the third pass.
bool CFeatureMerge::isMatched(const CFeatureEntry& entry) {
    if (m_oList.find(entry.id()) != nullptr) {
        return true;
    }
    CFeatureEntry* claimed = m_oList.findOfCode(entry.m_nCode, CFeatureEntry::fsModify);
    if (claimed == nullptr) {
        return false;
    }
    claimed->m_eStatus = CFeatureEntry::fsModify;
    return true;
}

// Protects unchanged entries in the third pass: findOfCode() passes over them, so that no other feature of
// their code is brought in as a modification of them.
void CFeatureMerge::markExisting() {
    for (const CFeatureEntry* fresh : m_aList.m_vItems) {
        CFeatureEntry* entry = fresh != nullptr ? m_oTable.find(fresh->id()) : nullptr;
        if (entry != nullptr && entry->m_eStatus != CFeatureEntry::fsDeleted) {
            entry->m_eStatus = CFeatureEntry::fsExisting;
            logEvent(svInfo, nMergeEvent, "existing feature %d %d", entry->m_nCode, entry->m_nData);
        }
    }
}

// From here on nobody looks into m_oList, whose index points at entries that are adopted or deleted one by
// one. In the table no entry leaves fsExisting any more, as m_oTable.findOfCode() requires.
void CFeatureMerge::bringIn() {
    for (CFeatureEntry*& slot : m_aList.m_vItems) {
        if (slot != nullptr && take(slot)) {
            slot = nullptr;
        }
    }
}

// True: the fresh entry was adopted or deleted. False: it stays the caller's, because the feature is in force
// unchanged or there was no memory to adopt it.
//
// A feature that is merely taken back counts as no change, so it is not tested for the restart list.
bool CFeatureMerge::take(CFeatureEntry* fresh) {
    if (CFeatureEntry* same = m_oTable.find(fresh->id())) {
        if (same->m_eStatus != CFeatureEntry::fsDeleted) {
            return false;
        }
        reuse(*same);
        delete fresh;
        return true;
    }
    CFeatureEntry* other = m_oTable.findOfCode(fresh->m_nCode, CFeatureEntry::fsExisting);
    if (other == nullptr) {
        return adopt(fresh);
    }
    if (other->m_eStatus == CFeatureEntry::fsDeleted) {
        reuseDisabled(*other, *fresh);
    } else {
        modify(*other, *fresh);
    }
    testReboot(fresh->m_nCode, fresh->m_nData);
    delete fresh;
    return true;
}

void CFeatureMerge::reuse(CFeatureEntry& entry) {
    entry.m_eStatus = CFeatureEntry::fsNewAdd;
    entry.setCompStatus(CCompStatus::csIdle);
    logEvent(svInfo, nMergeEvent, "reuse newadd feature %d %d %s", entry.m_nCode, entry.m_nData, "");
}

// The data in force stays until all have answered, or one component has fetched the new data. With no record
// there is nobody to wait for, and the new data is in force at once.
//
// Lowered data is reported like a withdrawal, since it takes something from a component.
void CFeatureMerge::modify(CFeatureEntry& entry, const CFeatureEntry& fresh) {
    if (fresh.m_nData < entry.m_nData) {
        m_eResult = rsWithdrawn;
    }
    logEvent(svInfo, nMergeEvent, "modify feature %d %d %s (%d)", entry.m_nCode, entry.m_nData, "",
             fresh.m_nData);
    entry.m_eStatus = CFeatureEntry::fsModify;
    entry.m_nNewData = fresh.m_nData;
    if (entry.setCompStatus(CCompStatus::csIdle) == 0) {
        entry.m_eStatus = CFeatureEntry::fsExisting;
        setData(entry, entry.m_nNewData);
        entry.m_nNewData = 0;
        logEvent(svInfo, nMergeEvent, "treated as replied feature %d %d", entry.m_nCode, entry.m_nData);
    }
}

// The withdrawn entry becomes the new pair, with the new data at once, and its components are notified as of
// a new feature. A disable that has not been sent yet is not sent any more.
void CFeatureMerge::reuseDisabled(CFeatureEntry& entry, const CFeatureEntry& fresh) {
    entry.m_eStatus = CFeatureEntry::fsNewAdd;
    entry.setCompStatus(CCompStatus::csIdle);
    setData(entry, fresh.m_nData);
    logEvent(svInfo, nMergeEvent, "newadd feature (disable reuse) %d %d", fresh.m_nCode, fresh.m_nData);
}

// The status is set first, since the fresh entry may still bear a claim of the first pass.
bool CFeatureMerge::adopt(CFeatureEntry* fresh) {
    fresh->m_eStatus = CFeatureEntry::fsNewAdd;
    fresh->setCompStatus(CCompStatus::csIdle);
    if (!m_aTable.add(fresh)) {
        logEvent(svError, 31124, "failed to new obj");
        return false;
    }
    m_oTable.appended(fresh);
    logEvent(svInfo, nMergeEvent, "newadd feature %d %d", fresh->m_nCode, fresh->m_nData);
    testReboot(fresh->m_nCode, fresh->m_nData);
    return true;
}

// The table's index is by data, too. take() has made sure that no entry of the table has the new pair.
void CFeatureMerge::setData(CFeatureEntry& entry, uint32_t data) {
    const uint32_t before = std::exchange(entry.m_nData, data);
    m_oTable.changed(&entry, before);
}

void CFeatureMerge::testReboot(uint32_t code, uint32_t data) {
    if (needsRestart(code)) {
        logEvent(svInfo, nMergeEvent, "found feature %d %d in reboot list", code, data);
        m_eResult = rsRestart;
    }
}

bool CFeatureMerge::needsRestart(uint32_t code) {
    for (const uint32_t* listed = nRebootFeatureList; *listed != 0; ++listed) {
        if (*listed == code) {
            return true;
        }
    }
    return false;
}
