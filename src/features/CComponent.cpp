#include "features/CComponent.h"

#include "base/clock.h"
#include "features/CFeatureEntry.h"
#include "messaging/endpoint/CMFWServer.h"
#include "server/log/log.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

using enum CCompStatus::ECStatus;

namespace {

// Copies a text that fits, and leaves the field as it was otherwise.
template <size_t N>
void storeText(char (&field)[N], const char* text, size_t maxLength) {
    static_assert(N > 0);
    if (text == nullptr) {
        return;
    }
    const size_t length = strnlen(text, maxLength + 1);
    if (length > 0 && length <= maxLength) {
        std::memcpy(field, text, length + 1);
    }
}

// Starts a phase from outside it.
void enter(CCompStatus& record, CCompStatus::ECStatus status) {
    record.m_eStatus = status;
    record.m_tStamp = nowSeconds();
}

// What a withdrawn feature finds settled at a component and has to disable there.
bool isToDisable(CCompStatus::ECStatus status) {
    return status == csIdle || status == csEnabled || status == csEnableFailed || status == csModified ||
           status == csModifyFailed;
}

} // namespace

CComponent::CComponent(CMediator* mediator) : CParty(mediator) {}

CComponent::~CComponent() = default;

void CComponent::init(const CQelMessageHeader& header, const char* name, uint32_t status, const char* text) {
    m_oHeader = header;
    storeText(m_szName, name, nMaxNameLength);
    m_nReplyStatus = status;
    storeText(m_szReplyText, text, nMaxReplyTextLength);
}

void CComponent::setKnownPairs(std::span<const CQelPair> pairs) {
    m_nKnownCount = static_cast<uint32_t>(std::min(pairs.size(), m_aKnown.size()));
    for (uint32_t i = 0; i < m_nKnownCount; ++i) {
        m_aKnown[i] = {pairs[i].m_nCode, pairs[i].m_nData};
    }
}

void CComponent::notify(CString) {}

void CComponent::recv(CString text) {
    std::printf("recv: %s\n", text.c_str());
}

bool CComponent::equalMFW(uint32_t handle) const {
    return handle == m_oHeader.m_nHandle;
}

bool CComponent::equalName(const char* name) const {
    return std::strcmp(name, m_szName) == 0;
}

bool CComponent::getNextFeatureList(uint32_t* code, uint32_t* data) {
    const auto& entries = m_aFeatures.m_vItems;
    for (int32_t i = m_nNextFeature; i < static_cast<int32_t>(entries.size()); ++i) {
        CFeatureEntry* entry = entries[static_cast<size_t>(i)];
        if (entry == nullptr) {
            continue;
        }
        CCompStatus* record = entry->findCompByPtr(this);
        if (record == nullptr) {
            logEvent(svInfo, 31108, "Null status feature (%d, %d) at comp %s", entry->m_nCode, entry->m_nData,
                     m_szName);
            continue;
        }
        if (entry->m_eStatus == CFeatureEntry::fsDeleted) {
            enter(*record, csDisabled);
            logEvent(svInfo, 31108, "no send, disabled feature (%d, %d) at comp %s", entry->m_nCode,
                     entry->m_nData, m_szName);
            continue;
        }
        deliver(*entry, *record);
        *code = entry->m_nCode;
        *data = entry->m_nData;
        entry->m_eStatus = CFeatureEntry::fsActive;
        m_nNextFeature = i + 1;
        logEvent(svInfo, 31116, " at feature (%d %d)", entry->m_nCode, m_nNextFeature);
        return true;
    }
    return false;
}

// A page that a component fetches counts as acknowledged. The first fetch of a modification commits it for
// all.
void CComponent::deliver(CFeatureEntry& entry, CCompStatus& record) {
    if (entry.m_eStatus == CFeatureEntry::fsModify) {
        enter(record, csModified);
        entry.m_nData = entry.m_nNewData;
        entry.m_nNewData = 0;
        logEvent(svInfo, 31108, "moded feature (%d, %d) at comp %s", entry.m_nCode, entry.m_nData, m_szName);
    } else {
        enter(record, csEnabled);
        logEvent(svInfo, 31108, "replied feature (%d, %d) at comp %s", entry.m_nCode, entry.m_nData,
                 m_szName);
    }
}

void CComponent::rewindFeatureList() {
    m_nNextFeature = 0;
    m_nSecondCursor = 0;
}

int CComponent::addFeatureEntry(CFeatureEntry* entry) {
    m_aFeatures.m_vItems.push_back(entry);
    return 1;
}

int CComponent::findFeatureEntry(const CFeatureEntry* entry) const {
    const auto& entries = m_aFeatures.m_vItems;
    return std::find(entries.begin(), entries.end(), entry) != entries.end() ? 1 : 0;
}

int CComponent::delFeatureEntry(CFeatureEntry* entry) {
    if (entry == nullptr || m_aFeatures.del(entry) == 0) {
        return 0;
    }
    logDeleted(*entry);
    return 1;
}

void CComponent::logDeleted(const CFeatureEntry& entry) const {
    logEvent(svInfo, 31117, "deleted feature (%d, %d) from %s", entry.m_nCode, entry.m_nData, m_szName);
}

void CComponent::clearFeatureArray() {
    m_aFeatures.m_vItems.clear();
}

CFeatureEntry* CComponent::notifyFeatureArray() {
    return firstToTake(CFeatureEntry::opNotify);
}

CFeatureEntry* CComponent::replyFeatureArray() {
    return firstToTake(CFeatureEntry::opReply);
}

CFeatureEntry* CComponent::firstToTake(uint32_t op) {
    for (CFeatureEntry* entry : m_aFeatures.m_vItems) {
        if (entry != nullptr && entry->addComponent(static_cast<CFeatureEntry::EOperator>(op), this) != 0) {
            return entry;
        }
    }
    return nullptr;
}

void CComponent::removeFeatureArray() {
    for (CFeatureEntry* entry : m_aFeatures.m_vItems) {
        if (entry != nullptr && entry->addComponent(CFeatureEntry::opRemove, this) != 0) {
            logEvent(svInfo, 31117, "removed feature (%d) from %s", entry->m_nCode, m_szName);
        }
    }
}

void CComponent::notifyAllFeatures() {
    m_pMediator->notifyFeatures(&m_aFeatures, this);
}

int CComponent::auditFeature() {
    for (CFeatureEntry* entry : m_aFeatures.m_vItems) {
        if (entry != nullptr && auditEntry(*entry)) {
            return 1;
        }
    }
    return 0;
}

bool CComponent::auditEntry(CFeatureEntry& entry) {
    if (CCompStatus* record = entry.findCompByPtr(this)) {
        return m_bMonitor != 0 && pushChange(entry, *record);
    }
    entry.addComponent(CFeatureEntry::opAdd, this);
    entry.addComponent(CFeatureEntry::opNotify, this);
    logEvent(svInfo, 31119, "audit feature with (%d, %d)", entry.m_nCode, entry.m_nData);
    sendMessage(nQelServerNotifyMsgType, entry.m_nCode, entry.m_nData);
    return true;
}

bool CComponent::pushChange(CFeatureEntry& entry, CCompStatus& record) {
    switch (entry.m_eStatus) {
    case CFeatureEntry::fsDeleted:
        if (!isToDisable(record.m_eStatus)) {
            return false;
        }
        enter(record, csDisabling);
        logEvent(svInfo, 31108, "disabling feature (%d, %d) at comp %s", entry.m_nCode, entry.m_nData,
                 m_szName);
        sendMessage(nQelServerDisableMsgType, entry.m_nCode, entry.m_nData);
        return true;
    case CFeatureEntry::fsModify:
        return pushModification(entry, record, "modifying");
    case CFeatureEntry::fsNewAdd:
        if (record.m_eStatus != csIdle) {
            return false;
        }
        enter(record, csEnabling);
        logEvent(svInfo, 31108, "notifying feature (%d, %d) at comp %s", entry.m_nCode, entry.m_nData,
                 m_szName);
        sendMessage(nQelServerNotifyMsgType, entry.m_nCode, entry.m_nData);
        return true;
    case CFeatureEntry::fsActive:
    case CFeatureEntry::fsExisting:
        break;
    }
    if (entry.notify(record) == 0) {
        return false;
    }
    logEvent(svInfo, 31109, "audit feature (%d, %d) at comp %s", entry.m_nCode, entry.m_nData, m_szName);
    sendMessage(nQelServerNotifyMsgType, entry.m_nCode, entry.m_nData);
    return true;
}

// To a component that has disabled the feature, the new data are a new feature.
bool CComponent::pushModification(CFeatureEntry& entry, CCompStatus& record, const char* word) {
    if (record.m_eStatus == csDisabled || record.m_eStatus == csDisableFailed) {
        enter(record, csModifying);
        logEvent(svInfo, 31108, "notifying feature (%d, %d) at comp %s", entry.m_nCode, entry.m_nNewData,
                 m_szName);
        sendMessage(nQelServerNotifyMsgType, entry.m_nCode, entry.m_nNewData);
        return true;
    }
    if (record.m_eStatus == csIdle || record.m_eStatus == csEnabled || record.m_eStatus == csEnableFailed) {
        enter(record, csModifying);
        logEvent(svInfo, 31108, "%s feature (%d, %d %d) at comp %s", word, entry.m_nCode, entry.m_nData,
                 entry.m_nNewData, m_szName);
        sendMessage(nQelServerModifyMsgType, entry.m_nCode, entry.m_nData, entry.m_nNewData);
        return true;
    }
    return false;
}

int CComponent::fillMessageHeader(CQelServerMessage* message, uint32_t type, uint32_t subType, uint32_t tag) {
    if (message == nullptr) {
        return 0;
    }
    message->m_oHeader = {0, sizeof(CQelServerMessage), type, subType, tag, 0};
    return 1;
}

int CComponent::sendMessage(uint32_t type, uint32_t code, uint32_t data) {
    return sendMessage(type, code, data, 0);
}

int CComponent::sendMessage(uint32_t type, uint32_t code, uint32_t data, uint32_t extra) {
    if (isHeldAlready(type, code, data)) {
        logEvent(svInfo, 31108, "already has feature (%d, %d, %d) at comp %s", type, code, data, m_szName);
        m_nReplyStatus = nReplyOk;
        replyFeatureArray();
        return 0;
    }
    CQelServerMessage message;
    fillMessageHeader(&message, type, 0, m_oHeader.m_nTag);
    if (type <= nQelServerTimeoutMsgType) {
        message.m_nCode = code;
        message.m_nData = data;
        message.m_nExtra = extra;
    } else {
        logEvent(svInfo, 31121, "unknown message type.");
    }
    CMFWServer* endpoint = CMFWServer::instance();
    if (endpoint == nullptr) {
        logEvent(svError, 31122, "cannot get message framework");
        return nErrorNoEndpoint;
    }
    const int result = endpoint->sendBody(m_oHeader.m_nHandle, &message, sizeof message);
    if (result != 0) {
        logEvent(svInfo, 31123, "MFW cannot sendMessage");
    }
    return result;
}

// Whether the component said that it holds exactly this feature. What it said of a code is out of date once
// it is sent anything else about it, and forgotten.
bool CComponent::isHeldAlready(uint32_t type, uint32_t code, uint32_t data) {
    const auto begin = m_aKnown.begin();
    const auto end = begin + m_nKnownCount;
    const auto first = std::find_if(begin, end, [=](const SKnownPair& pair) { return pair.m_nCode == code; });
    if (first == end) {
        return false;
    }
    const bool exactly = std::any_of(
        first, end, [=](const SKnownPair& pair) { return pair.m_nCode == code && pair.m_nData == data; });
    if (type == nQelServerNotifyMsgType && exactly) {
        return true;
    }
    --m_nKnownCount;
    *first = m_aKnown[m_nKnownCount];
    return false;
}
