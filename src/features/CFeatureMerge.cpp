#include "features/CFeatureMerge.h"

#include "base/prefetch.h"
#include "features/CFeatureEntry.h"
#include "features/CQelControl.h"
#include "server/log/log.h"

#include <algorithm>

namespace {

constexpr uint32_t nMergeEvent = 31115;

// Features whose addition or modification takes effect with the next restart of the appliance. Ends with 0.
constexpr uint32_t nRebootFeatureList[] = {206, 306, 0};

CChainIndex::SKey pairOf(const CFeatureEntry& entry) {
    return {entry.m_nCode, entry.m_nData};
}

CChainIndex::SKey codeOf(const CFeatureEntry& entry) {
    return {entry.m_nCode, 0};
}

template <typename KeyOf>
CChainIndex indexed(const CArray<CFeatureEntry*>& entries, KeyOf keyOf, size_t keys) {
    CChainIndex index(keys);
    for (size_t i = 0; i < entries.m_vItems.size(); ++i) {
        if (const CFeatureEntry* entry = entries.m_vItems[i]) {
            index.append(keyOf(*entry), i);
        }
    }
    return index;
}

// Writing a line of the log keeps the processor from looking ahead to the next entry, so it is told what
// comes: an entry first, and its records later.
void fetchAhead(const CArray<CFeatureEntry*>& entries, size_t position) {
    constexpr size_t nRecordsAhead = 2;
    constexpr size_t nEntriesAhead = 6;
    const auto& items = entries.m_vItems;
    if (position + nEntriesAhead >= items.size()) {
        return;
    }
    if (const CFeatureEntry* entry = items[position + nEntriesAhead]) {
        prefetch(entry, sizeof *entry);
    }
    if (const CFeatureEntry* entry = items[position + nRecordsAhead]) {
        entry->prefetchRecords();
    }
}

} // namespace

int CQelControl::addFeatureList(CArray<CFeatureEntry*>& list) {
    return CFeatureMerge(m_aFeatures, list).run();
}

CFeatureMerge::CFeatureMerge(CArray<CFeatureEntry*>& table, CArray<CFeatureEntry*>& list)
    : m_aTable(table), m_aList(list), m_nKeys(std::max(table.m_vItems.size(), list.m_vItems.size())),
      m_oTableByPair(indexed(table, pairOf, m_nKeys)),
      m_oListByPair(indexed(list, pairOf, list.m_vItems.size())), m_vIsIdle(table.m_vItems.size()) {}

CChainIndex& CFeatureMerge::tableByCode() {
    if (!m_oTableByCode) {
        m_oTableByCode = indexed(m_aTable, codeOf, m_nKeys);
    }
    return *m_oTableByCode;
}

CChainIndex& CFeatureMerge::listByCode() {
    if (!m_oListByCode) {
        m_oListByCode = indexed(m_aList, codeOf, m_aList.m_vItems.size());
    }
    return *m_oListByCode;
}

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
    for (size_t i = 0; i < m_aTable.m_vItems.size(); ++i) {
        CFeatureEntry* entry = m_aTable.m_vItems[i];
        if (entry == nullptr || (isMatched(*entry) && entry->m_bSourced == 1)) {
            continue;
        }
        fetchAhead(m_aTable, i);
        entry->m_eStatus = CFeatureEntry::fsDeleted;
        entry->setCompStatus(CCompStatus::csIdle);
        m_vIsIdle[i] = true;
        logEvent(svInfo, nMergeEvent, "deleted feature %d %d", entry->m_nCode, entry->m_nData);
        m_eResult = rsWithdrawn;
    }
}

// By code and data; else by code alone, and then the list's entry is claimed, so that no second entry of the
// table with that code can have it. A claim shows as fsModify.
bool CFeatureMerge::isMatched(const CFeatureEntry& entry) {
    if (m_oListByPair.first(pairOf(entry)) != CChainIndex::nNone) {
        return true;
    }
    const uint32_t claimed = listByCode().firstThat(codeOf(entry), [this](uint32_t position) {
        return m_aList.m_vItems[position]->m_eStatus != CFeatureEntry::fsModify;
    });
    if (claimed == CChainIndex::nNone) {
        return false;
    }
    m_aList.m_vItems[claimed]->m_eStatus = CFeatureEntry::fsModify;
    return true;
}

void CFeatureMerge::markExisting() {
    for (const CFeatureEntry* fresh : m_aList.m_vItems) {
        const uint32_t position = fresh != nullptr ? findByCodeData(*fresh) : CChainIndex::nNone;
        if (position == CChainIndex::nNone) {
            continue;
        }
        CFeatureEntry& entry = *m_aTable.m_vItems[position];
        if (entry.m_eStatus != CFeatureEntry::fsDeleted) {
            entry.m_eStatus = CFeatureEntry::fsExisting;
            logEvent(svInfo, nMergeEvent, "existing feature %d %d", entry.m_nCode, entry.m_nData);
        }
    }
}

uint32_t CFeatureMerge::findByCodeData(const CFeatureEntry& fresh) const {
    return m_oTableByPair.first(pairOf(fresh));
}

void CFeatureMerge::bringIn() {
    for (CFeatureEntry*& slot : m_aList.m_vItems) {
        if (slot != nullptr && take(slot)) {
            slot = nullptr;
        }
    }
}

// False: the feature is in force unchanged, and the fresh entry stays the caller's.
bool CFeatureMerge::take(CFeatureEntry* fresh) {
    uint32_t position = findByCodeData(*fresh);
    if (position != CChainIndex::nNone) {
        if (m_aTable.m_vItems[position]->m_eStatus != CFeatureEntry::fsDeleted) {
            return false;
        }
        reuse(position);
        delete fresh;
        return true;
    }
    position = tableByCode().firstThat(codeOf(*fresh), [this](uint32_t at) {
        return m_aTable.m_vItems[at]->m_eStatus != CFeatureEntry::fsExisting;
    });
    if (position == CChainIndex::nNone) {
        adopt(fresh);
        return true;
    }
    CFeatureEntry& other = *m_aTable.m_vItems[position];
    if (other.m_eStatus == CFeatureEntry::fsDeleted) {
        reuseDisabled(other, position, *fresh);
    } else {
        modify(other, position, *fresh);
    }
    testReboot(fresh->m_nCode, fresh->m_nData);
    delete fresh;
    return true;
}

void CFeatureMerge::reuse(uint32_t position) {
    CFeatureEntry& entry = *m_aTable.m_vItems[position];
    entry.m_eStatus = CFeatureEntry::fsNewAdd;
    setIdle(entry, position);
    logEvent(svInfo, nMergeEvent, "reuse newadd feature %d %d %s", entry.m_nCode, entry.m_nData, "");
}

// Not again for what this merge has withdrawn: most of its time goes into writing to the records.
void CFeatureMerge::setIdle(CFeatureEntry& entry, uint32_t position) const {
    if (position >= m_vIsIdle.size() || !m_vIsIdle[position]) {
        entry.setCompStatus(CCompStatus::csIdle);
    }
}

void CFeatureMerge::modify(CFeatureEntry& entry, uint32_t position, const CFeatureEntry& fresh) {
    if (fresh.m_nData < entry.m_nData) {
        m_eResult = rsWithdrawn;
    }
    logEvent(svInfo, nMergeEvent, "modify feature %d %d %s (%d)", entry.m_nCode, entry.m_nData, "",
             fresh.m_nData);
    fetchAhead(m_aTable, position);
    entry.m_eStatus = CFeatureEntry::fsModify;
    entry.m_nNewData = fresh.m_nData;
    if (entry.setCompStatus(CCompStatus::csIdle) == 0) {
        entry.m_eStatus = CFeatureEntry::fsExisting;
        setData(entry, position, entry.m_nNewData);
        entry.m_nNewData = 0;
        logEvent(svInfo, nMergeEvent, "treated as replied feature %d %d", entry.m_nCode, entry.m_nData);
    }
}

void CFeatureMerge::reuseDisabled(CFeatureEntry& entry, uint32_t position, const CFeatureEntry& fresh) {
    entry.m_eStatus = CFeatureEntry::fsNewAdd;
    setIdle(entry, position);
    setData(entry, position, fresh.m_nData);
    logEvent(svInfo, nMergeEvent, "newadd feature (disable reuse) %d %d", fresh.m_nCode, fresh.m_nData);
}

void CFeatureMerge::adopt(CFeatureEntry* fresh) {
    fresh->m_eStatus = CFeatureEntry::fsNewAdd;
    fresh->setCompStatus(CCompStatus::csIdle);
    const size_t position = m_aTable.m_vItems.size();
    m_aTable.m_vItems.push_back(fresh);
    m_oTableByPair.append(pairOf(*fresh), position);
    if (m_oTableByCode) {
        m_oTableByCode->append(codeOf(*fresh), position);
    }
    logEvent(svInfo, nMergeEvent, "newadd feature %d %d", fresh->m_nCode, fresh->m_nData);
    testReboot(fresh->m_nCode, fresh->m_nData);
}

// No entry has the new pair yet: it is only given to an entry after the look-up by pair found none.
void CFeatureMerge::setData(CFeatureEntry& entry, uint32_t position, uint32_t data) {
    m_oTableByPair.remove(pairOf(entry), position);
    entry.m_nData = data;
    m_oTableByPair.append(pairOf(entry), position);
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
