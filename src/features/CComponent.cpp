#include "features/CComponent.h"

#include "base/clock.h"
#include "features/CFeatureEntry.h"
#include "features/counters.h"
#include "messaging/endpoint/CMFWServer.h"
#include "server/log/log.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

// Copies a text that fits, and leaves the field as it was otherwise: a cut name would make the component
// another one. Looks at maxLength + 1 characters at most, so it does not run off a text without a NUL.
template <size_t N>
bool storeText(char (&field)[N], const char* text, size_t maxLength) {
    static_assert(N > 0);
    const size_t length = text != nullptr ? strnlen(text, maxLength + 1) : 0;
    if (length == 0 || length > maxLength) {
        return false;
    }
    std::memcpy(field, text, length + 1);
    return true;
}

} // namespace

CComponent::CComponent(CMediator* mediator) : CParty(mediator) {}

CComponent::~CComponent() = default;

// Called for every message of the component, so that an answer goes to the handle, and carries the tag, of
// what it answers.
void CComponent::init(const CQelMessageHeader& header, const char* name, uint32_t status, const char* text) {
    m_oHeader = header;
    storeText(m_szName, name, nMaxNameLength);
    m_nReplyStatus = status;
    m_bReplyText = storeText(m_szReplyText, text, nMaxReplyTextLength) ? 1 : 0;
    m_tHeard = nowSeconds();
}

void CComponent::setKnownPairs(std::span<const SFeature> pairs) {
    const auto taken = pairs.first(std::min(pairs.size(), m_aKnown.size()));
    std::copy(taken.begin(), taken.end(), m_aKnown.begin());
    m_nKnownCount = static_cast<uint32_t>(taken.size());
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

// The position is an index into the array. When a withdrawn feature leaves the table during the paging, the
// entries behind it move up by one and a page is skipped; the audit finds a skipped new feature still untold.
// Entries that are passed over at the end are looked at again by the next call.
bool CComponent::getNextFeatureList(uint32_t* code, uint32_t* data) {
    const auto& entries = m_aFeatures.m_vItems;
    for (int32_t i = m_nNextFeature; i < static_cast<int32_t>(entries.size()); ++i) {
        CFeatureEntry* entry = entries[static_cast<size_t>(i)];
        if (isNextToFetch(entry)) {
            *code = entry->m_nCode;
            *data = entry->m_nData;
            m_nNextFeature = i + 1;
            logEvent(svInfo, 31116, " at feature (%d %d)", entry->m_nCode, m_nNextFeature);
            return true;
        }
    }
    return false;
}

// Whether the entry is the next page. The component asked for it and has it with the answer, so the record
// counts as accepted, and the feature as active.
//
// The first fetch of a modification puts the new data into force for all components: from then on pages carry
// it, and the audit tells the others with a notification of the new data. The delivery goes first, since its
// rows depend on the feature's status and its line of the log tells the pending data.
bool CComponent::isNextToFetch(CFeatureEntry* entry) {
    CCompStatus* record = entry != nullptr ? entry->findCompByPtr(this) : nullptr;
    if (record == nullptr) {
        if (entry != nullptr) {
            logEvent(svInfo, 31108, "Null status feature (%d, %d) at comp %s", entry->m_nCode, entry->m_nData,
                     m_szName);
        }
        return false;
    }
    if (deliver(dvFetch, *entry, *record) == ocRefused) {
        return false;
    }
    if (entry->m_eStatus == CFeatureEntry::fsModify) {
        entry->m_nData = entry->m_nNewData;
        entry->m_nNewData = 0;
    }
    entry->m_eStatus = CFeatureEntry::fsActive;
    return true;
}

void CComponent::rewindFeatureList() {
    m_nNextFeature = 0;
    m_nSecondCursor = 0;
}

int CComponent::addFeatureEntry(CFeatureEntry* entry) {
    const bool isAdded = m_aFeatures.add(entry);
    if (!isAdded) {
        logEvent(svError, 31124, "failed to new obj");
    }
    return isAdded ? 1 : 0;
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

// Asking is doing: the first entry that takes the event has moved on to its next state when this returns.
CFeatureEntry* CComponent::firstToTake(uint32_t op) {
    for (CFeatureEntry* entry : m_aFeatures.m_vItems) {
        if (entry != nullptr && entry->addComponent(static_cast<CFeatureEntry::EOperator>(op), this) != 0) {
            return entry;
        }
    }
    return nullptr;
}

// Only what the array knows. CQelControl::delComponent() finds records in other features.
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

// An entry of the array without a record is a repair: the record went while the array kept the entry. The
// component is told even if it does not monitor, as in the control's audit. Changes are for components that
// monitor; the others fetch their list when they want it.
bool CComponent::auditEntry(CFeatureEntry& entry) {
    if (CCompStatus* record = entry.findCompByPtr(this)) {
        return m_bMonitor != 0 && tell(dvAudit, entry, *record);
    }
    entry.addComponent(CFeatureEntry::opAdd, this);
    entry.addComponent(CFeatureEntry::opNotify, this);
    logEvent(svInfo, 31119, "audit feature with (%d, %d)", entry.m_nCode, entry.m_nData);
    sendMessage(nQelServerNotifyMsgType, entry.m_nCode, entry.m_nData);
    return true;
}

// The record is in its waiting state before the message goes out. sendMessage() depends on that order: for a
// pair that the component announced it credits an acceptance instead, which only a waiting record takes. The
// result of the send is not looked at: a message that was lost shows as an overdue reply.
bool CComponent::tell(EDeliveryEvent event, const CFeatureEntry& entry, CCompStatus& record) {
    switch (deliver(event, entry, record)) {
    case ocRefused:
    case ocTaken:
    case ocSend:
        return false;
    case ocNotify:
        sendMessage(nQelServerNotifyMsgType, entry.m_nCode, entry.m_nData);
        return true;
    case ocNotifyNew: // after a disable the component has no old data that could change
        sendMessage(nQelServerNotifyMsgType, entry.m_nCode, entry.m_nNewData);
        return true;
    case ocModify:
        sendMessage(nQelServerModifyMsgType, entry.m_nCode, entry.m_nData, entry.m_nNewData);
        return true;
    case ocModifyAgain:
        sendMessage(nQelServerModifyMsgType, entry.m_nCode, entry.m_nData);
        return true;
    case ocDisable:
        sendMessage(nQelServerDisableMsgType, entry.m_nCode, entry.m_nData);
        return true;
    case ocOverdue:
        sendMessage(nQelServerTimeoutMsgType, entry.m_nCode, entry.m_nData);
        return true;
    }
    return false;
}

// The handle is 0: components find the daemon by its process name, and the framework names the sender.
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

// The known pairs save a component that survived a restart of the daemon from being notified of what it
// holds. Its answer is given in its stead, and goes the way of a write reply: to the first entry of the array
// that awaits one.
//
// A type that no component knows is sent with an empty payload; receivers ignore types that they do not know.
int CComponent::sendMessage(uint32_t type, uint32_t code, uint32_t data, uint32_t extra) {
    if (isHeldAlready(type, code, data)) {
        logEvent(svInfo, 31108, "already has feature (%d, %d, %d) at comp %s", type, code, data, m_szName);
        count(coWithheld);
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
        count(static_cast<ECounter>(coAnswers + type));
    } else {
        logEvent(svInfo, 31121, "unknown message type.");
    }
    CMFWServer* endpoint = CMFWServer::instance();
    if (endpoint == nullptr) {
        logEvent(svError, 31122, "cannot get message framework");
        return nErrorNoEndpoint;
    }
    const int result = endpoint->sendBody(m_oHeader.m_nHandle, bytesOf(message));
    if (result != 0) {
        count(coSendErrors);
        logEvent(svInfo, 31123, "MFW cannot sendMessage");
    }
    return result;
}

// Whether a notification is needless because the component announced exactly this pair. Any other message
// about a code makes what was announced of it out of date; the pair is then forgotten, and the last pair
// takes its slot, for the order does not matter.
bool CComponent::isHeldAlready(uint32_t type, uint32_t code, uint32_t data) {
    const auto begin = m_aKnown.begin();
    const auto end = begin + m_nKnownCount;
    const auto first = std::find_if(begin, end, [=](const SFeature& pair) { return pair.m_nCode == code; });
    if (first == end) {
        return false;
    }
    if (type == nQelServerNotifyMsgType && std::find(first, end, SFeature{code, data}) != end) {
        return true;
    }
    --m_nKnownCount;
    *first = m_aKnown[m_nKnownCount];
    return false;
}
