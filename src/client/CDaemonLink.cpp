#include "client/CDaemonLink.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace {

const char* const szDaemonProcess = "qelserver";

// Taken in at one go before the client looks at its time limit again.
constexpr int nMaxBurst = 256;

uint32_t bigEndianWord(const uint8_t (&bytes)[4]) {
    CBigEndian32 word;
    std::memcpy(static_cast<void*>(&word), bytes, sizeof word);
    return word;
}

} // namespace

CDaemonLink* CDaemonLink::m_pOpen = nullptr;

CDaemonLink::CDaemonLink(std::string name, qel_trace_fn trace, void* user)
    : m_sName(std::move(name)), m_fnTrace(trace), m_pUser(user) {}

CDaemonLink::~CDaemonLink() {
    if (m_pOpen == this) {
        OvuMfwDeregisterCallback(nQelServerMfwMsgId);
        OvuMfwCleanup();
        m_pOpen = nullptr;
    }
}

bool CDaemonLink::open() {
    if (OvuMfwInitialize() != 0) {
        return false;
    }
    m_pOpen = this;
    return OvuMfwGetProcessHandle(nullptr, &m_nOwnHandle) == 0 &&
           OvuMfwRegisterCallback(nQelServerMfwMsgId, cbReceive) == 0;
}

CDaemonLink::ELookup CDaemonLink::lookUp() {
    auto now = CClientClock::now();
    if (now < m_tNextLookup) {
        return ELookup::notDue;
    }
    m_tNextLookup = now + tLookup;
    uint32_t found = nNoHandle;
    if (OvuMfwGetProcessHandle(szDaemonProcess, &found) != 0) {
        found = nNoHandle;
    }
    if (found == m_nDaemon) {
        return ELookup::same;
    }
    m_nDaemon = found;
    m_oInbox.clear();
    return ELookup::changed;
}

uint32_t CDaemonLink::sendAnnouncement(const std::vector<SFeature>& held) {
    struct {
        CQelNameMessage m_oName;
        CQelPair m_aPairs[nMaxKnownPairs];
    } message;
    size_t count = std::min(held.size(), nMaxKnownPairs);
    size_t length = sizeof(CQelNameMessage) + count * sizeof(CQelPair);
    message.m_oName.m_oHeader = header(nQelClientRequestMsgType, CompNameMsgType, length);
    message.m_oName.m_nProcessId = static_cast<uint32_t>(getpid());
    m_sName.copy(message.m_oName.m_szName, nMaxNameLength);
    message.m_oName.m_nPairCount = static_cast<uint32_t>(count);
    for (size_t i = 0; i < count; ++i) {
        message.m_aPairs[i] = {held[i].m_nCode, held[i].m_nData};
    }
    return send(message.m_oName.m_oHeader, &message, length);
}

uint32_t CDaemonLink::sendRequest(uint32_t subType) {
    CQelNameMessage message;
    message.m_oHeader = header(nQelClientRequestMsgType, subType, sizeof message);
    message.m_nProcessId = static_cast<uint32_t>(getpid());
    m_sName.copy(message.m_szName, nMaxNameLength);
    return send(message.m_oHeader, &message, sizeof message);
}

uint32_t CDaemonLink::sendReply(uint32_t subType, uint32_t status, std::string_view text) {
    CQelReplyMessage message;
    size_t textLength = text.copy(message.m_szText, nMaxReplyTextLength);
    size_t length = offsetof(CQelReplyMessage, m_szText) + textLength + 1;
    message.m_oHeader = header(nQelClientReplyMsgType, subType, length);
    message.m_nStatus = status;
    return send(message.m_oHeader, &message, length);
}

bool CDaemonLink::receive(std::chrono::milliseconds wait) {
    int received = 0;
    auto timeout = static_cast<uint32_t>(std::max<int64_t>(wait.count(), 0));
    while (received < nMaxBurst && OvuMfwProcessNextMessage(timeout) == 0) {
        ++received;
        timeout = 0;
    }
    return received != 0;
}

void CDaemonLink::cbReceive(uint16_t, uint32_t, const sOvuMfwMessage* message, uint32_t length) {
    if (message && m_pOpen) {
        m_pOpen->take(*message, length);
    }
}

void CDaemonLink::take(const sOvuMfwMessage& message, uint32_t length) {
    if (m_fnTrace) {
        m_fnTrace(m_pUser, 0, message.data, length);
    }
    bool fromDaemon = m_nDaemon != nNoHandle && bigEndianWord(message.sender) == m_nDaemon;
    if (fromDaemon && length >= sizeof(CQelServerMessage)) {
        m_oInbox.push_back(readBody<CQelServerMessage>(message.data, length));
    }
}

uint32_t CDaemonLink::nextTag() {
    m_nTag = m_nTag == UINT32_MAX ? 1 : m_nTag + 1;
    return m_nTag;
}

CQelMessageHeader CDaemonLink::header(uint32_t type, uint32_t subType, size_t length) {
    CQelMessageHeader header;
    header.m_nLength = static_cast<uint32_t>(length);
    header.m_nType = type;
    header.m_nSubType = subType;
    header.m_nTag = nextTag();
    header.m_nHandle = m_nOwnHandle;
    return header;
}

uint32_t CDaemonLink::send(const CQelMessageHeader& header, const void* body, size_t length) {
    sOvuMfwMessage message = {};
    static_assert(sizeof(CQelNameMessage) + nMaxKnownPairs * sizeof(CQelPair) <= sizeof message.data);
    static_assert(sizeof(CQelReplyMessage) <= sizeof message.data);
    if (m_nDaemon == nNoHandle) {
        return 0;
    }
    std::memcpy(message.data, body, length);
    if (OvuMfwSendMessage(m_nDaemon, nQelServerMfwMsgId, 0, &message, static_cast<uint32_t>(length)) != 0) {
        return 0;
    }
    if (m_fnTrace) {
        m_fnTrace(m_pUser, 1, message.data, length);
    }
    return header.m_nTag;
}
