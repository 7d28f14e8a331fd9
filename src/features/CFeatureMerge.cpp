#include "features/CFeatureMerge.h"

#include "features/CFeatureEntry.h"
#include "features/CQelControl.h"
#include "server/log/log.h"

#include <utility>

namespace {

constexpr uint32_t nMergeEvent = 31115;

// Features whose addition or modification takes effect with the next restart of the appliance. Ends with 0.
constexpr uint32_t nRebootFeatureList[] = {206, 306, 0};

} // namespace

int CQelControl::addFeatureList(CArray<CFeatureEntry*>& list) {
    return CFeatureMerge(m_aFeatures, list).run();
}

CFeatureMerge::CFeatureMerge(CArray<CFeatureEntry*>& table, CArray<CFeatureEntry*>& list)
    : m_aTable(table), m_aList(list), m_oTable(table), m_oList(list) {}

CFeatureMerge::EResult CFeatureMerge::run() {
    withdrawGone();
    markExisting();
    bringIn();
    return m_eResult;
}

// What the new list does not hold is withdrawn; so is what came with an earlier list even if this one holds
// it, to be brought back below and pushed to its components again. Only entries that the source keeps are
// left alone.
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

// By code and data; else by code alone, and then the list's entry is claimed, so that no second entry of the
// table with that code can have it. A claim shows as fsModify.
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

void CFeatureMerge::markExisting() {
    for (const CFeatureEntry* fresh : m_aList.m_vItems) {
        CFeatureEntry* entry = fresh != nullptr ? m_oTable.find(fresh->id()) : nullptr;
        if (entry != nullptr && entry->m_eStatus != CFeatureEntry::fsDeleted) {
            entry->m_eStatus = CFeatureEntry::fsExisting;
            logEvent(svInfo, nMergeEvent, "existing feature %d %d", entry->m_nCode, entry->m_nData);
        }
    }
}

void CFeatureMerge::bringIn() {
    for (CFeatureEntry*& slot : m_aList.m_vItems) {
        if (slot != nullptr && take(slot)) {
            slot = nullptr;
        }
    }
}

// False: the feature is in force unchanged, or cannot be brought in; the fresh entry stays the caller's.
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

void CFeatureMerge::reuseDisabled(CFeatureEntry& entry, const CFeatureEntry& fresh) {
    entry.m_eStatus = CFeatureEntry::fsNewAdd;
    entry.setCompStatus(CCompStatus::csIdle);
    setData(entry, fresh.m_nData);
    logEvent(svInfo, nMergeEvent, "newadd feature (disable reuse) %d %d", fresh.m_nCode, fresh.m_nData);
}

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
