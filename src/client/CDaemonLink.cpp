#include "client/CDaemonLink.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <cxxabi.h>
#include <unistd.h>
#include <utility>

namespace {

// The framework knows a process by its program's name unless the environment gives it another; the
// daemon keeps it.
const char* const szDaemonProcess = "qelserver";

// Messages taken in at one go. Without a limit, a peer that floods this process could keep the client from
// ever looking at its time limit.
constexpr int nMaxBurst = 256;

// That this thread has used.
std::chrono::nanoseconds processorTime() {
    timespec used{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

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
    // Clean-up closes the endpoint of the whole process, so only the link that opened it may ask for that.
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
    // From here on there is an endpoint to close, which the destructor does, even if one of the next
    // steps fails.
    m_pOpen = this;
    return OvuMfwGetProcessHandle(nullptr, &m_nOwnHandle) == 0 &&
           OvuMfwRegisterCallback(nQelServerMfwMsgId, cbReceive) == 0;
}

// A look-up asks about every process that has an endpoint, so it is not done for every message, and each
// process spends a thousandth of a processor on it at most: with many, all that look would leave the daemon
// no time. Another handle is another process: a daemon that was restarted and does not know this component.
// What its predecessor sent is void.
CDaemonLink::ELookup CDaemonLink::lookUp() {
    auto now = CClientClock::now();
    if (now < m_tNextLookup) {
        return ELookup::notDue;
    }
    const auto before = processorTime();
    uint32_t found = nNoHandle;
    if (OvuMfwGetProcessHandle(szDaemonProcess, &found) != 0) {
        found = nNoHandle;
    }
    m_tNextLookup =
        now + std::clamp<CClientClock::duration>(1000 * (processorTime() - before), tLookup, tLongestLookup);
    if (found == m_nDaemon) {
        return ELookup::same;
    }
    m_nDaemon = found;
    m_oInbox.clear();
    return ELookup::changed;
}

uint32_t CDaemonLink::sendAnnouncement(const std::vector<SFeature>& held) {
    // Everything in it consists of bytes, so there is no padding between the message and its pairs.
    struct {
        CQelNameMessage m_oName;
        CQelPair m_aPairs[nMaxKnownPairs];
    } message;
    size_t count = std::min(held.size(), nMaxKnownPairs);
    size_t length = sizeof(CQelNameMessage) + count * sizeof(CQelPair);
    message.m_oName.m_oHeader = header(nQelClientRequestMsgType, CompNameMsgType, length);
    // By the process id the daemon tells a restarted component, which needs everything again, from one that
    // announces itself a second time.
    message.m_oName.m_nProcessId = static_cast<uint32_t>(getpid());
    // The field is longer and zero so far, so the name ends with a NUL.
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
    // The NUL goes along; the rest of the field does not.
    size_t length = offsetof(CQelReplyMessage, m_szText) + textLength + 1;
    message.m_oHeader = header(nQelClientReplyMsgType, subType, length);
    message.m_nStatus = status;
    return send(message.m_oHeader, &message, length);
}

bool CDaemonLink::receive(std::chrono::milliseconds wait) {
    int received = 0;
    auto timeout = static_cast<uint32_t>(std::max<int64_t>(wait.count(), 0));
    // Any error ends this like an empty queue. It cannot make the caller spin, since the framework reports
    // errors only after the time is up.
    while (received < nMaxBurst && OvuMfwProcessNextMessage(timeout) == 0) {
        ++received;
        timeout = 0;
    }
    return received != 0;
}

// The framework's callback carries no pointer of the client's, hence the static m_pOpen.
void CDaemonLink::cbReceive(uint16_t, uint32_t, const sOvuMfwMessage* message, uint32_t length) {
    if (message && m_pOpen) {
        m_pOpen->take(*message, length);
    }
}

void CDaemonLink::take(const sOvuMfwMessage& message, uint32_t length) {
    // Traced before it is judged: somebody who debugs a conversation wants to see the strays as well.
    show(0, message.data, length);
    // The sender's handle is filled in by the framework, not by the sender, so nobody can pose as the daemon.
    bool fromDaemon = m_nDaemon != nNoHandle && bigEndianWord(message.sender) == m_nDaemon;
    if (fromDaemon && length >= sizeof(CQelServerMessage)) {
        m_oInbox.push_back(readBody<CQelServerMessage>(message.data, length));
    }
}

// What a callback in C++ throws must leave neither by the framework nor by the C interface.
void CDaemonLink::show(int sent, const uint8_t* body, size_t length) const {
    if (!m_fnTrace) {
        return;
    }
    try {
        m_fnTrace(m_pUser, sent, body, length);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) { // it only looks on
    }
}

// Never 0, by which send() reports a failure.
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

// A daemon that has gone and one whose queue is full both make sending fail. The next look-up, which is soon
// then, tells which it is.
uint32_t CDaemonLink::send(const CQelMessageHeader& header, const void* body, size_t length) {
    sOvuMfwMessage message = {};
    static_assert(sizeof(CQelNameMessage) + nMaxKnownPairs * sizeof(CQelPair) <= sizeof message.data);
    static_assert(sizeof(CQelReplyMessage) <= sizeof message.data);
    if (m_nDaemon == nNoHandle) {
        return 0;
    }
    std::memcpy(message.data, body, length);
    if (OvuMfwSendMessage(m_nDaemon, nQelServerMfwMsgId, 0, &message, static_cast<uint32_t>(length)) != 0) {
        m_tNextLookup = std::min(m_tNextLookup, CClientClock::now() + tLookup);
        return 0;
    }
    show(1, message.data, length);
    return header.m_nTag;
}
