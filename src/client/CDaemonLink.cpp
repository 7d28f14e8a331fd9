#include "client/CDaemonLink.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <ctime>
#include <cxxabi.h>
#include <optional>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>

// Of the platform's contract, what a platform may leave out: null then.
extern "C" {
__attribute__((weak)) int OvuMfwGetDescriptor(int* descriptor);
__attribute__((weak)) int OvuMfwWatchProcess(const char* processName, uint32_t* changes);
}

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

// A framework may take what the process is allowed to. A daemon needs that; a component's limits are its own.
class CKeptLimits {
public:
    CKeptLimits() { m_bKnown = getrlimit(RLIMIT_NOFILE, &m_oDescriptors) == 0; }
    ~CKeptLimits() {
        if (m_bKnown) {
            setrlimit(RLIMIT_NOFILE, &m_oDescriptors);
        }
    }
    CKeptLimits(const CKeptLimits&) = delete;
    CKeptLimits& operator=(const CKeptLimits&) = delete;

private:
    rlimit m_oDescriptors{};
    bool m_bKnown = false;
};

bool isWatchable(const CFileDescriptor& epoll, int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    return epoll_ctl(epoll.get(), EPOLL_CTL_ADD, fd, &event) == 0;
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
        OvuMfwDeregisterCallback(nQelStatusMfwMsgId);
        OvuMfwCleanup();
        m_pOpen = nullptr;
    }
}

bool CDaemonLink::open() {
    const CKeptLimits limits;
    if (OvuMfwInitialize() != 0) {
        return false;
    }
    // From here on there is an endpoint to close, which the destructor does, even if one of the next
    // steps fails.
    m_pOpen = this;
    openEvents();
    return OvuMfwGetProcessHandle(nullptr, &m_nOwnHandle) == 0 &&
           OvuMfwRegisterCallback(nQelServerMfwMsgId, cbReceive) == 0 &&
           OvuMfwRegisterCallback(nQelStatusMfwMsgId, cbAnswer) == 0;
}

// Without them the client still works, but wakes up twice a second.
void CDaemonLink::openEvents() {
    int framework = -1;
    if (OvuMfwGetDescriptor == nullptr || OvuMfwGetDescriptor(&framework) != 0) {
        return;
    }
    m_oWakeUp = CFileDescriptor(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    CFileDescriptor events(epoll_create1(EPOLL_CLOEXEC));
    if (m_oWakeUp && events && isWatchable(events, framework) && isWatchable(events, m_oWakeUp.get())) {
        m_oEvents = std::move(events);
    }
}

// A write to an eventfd is safe in a signal handler.
void CDaemonLink::wake() {
    if (m_oWakeUp) {
        eventfd_write(m_oWakeUp.get(), 1);
    }
}

// Whether the platform tells when the daemon comes or goes. If it has told something since the last time, a
// look-up is due. Coming processes are watched for only while there is no daemon.
bool CDaemonLink::isWatched() {
    uint32_t changes = 0;
    const char* awaited = m_nDaemon == nNoHandle ? szDaemonProcess : nullptr;
    if (!m_oEvents || OvuMfwWatchProcess == nullptr || OvuMfwWatchProcess(awaited, &changes) != 0) {
        return false;
    }
    if (std::exchange(m_nChanges, changes) != changes) {
        m_tNextLookup = std::min(m_tNextLookup, m_tSoonestLookup);
        m_bRare = false;
        m_bLookAgain = true;
    }
    return true;
}

// A look-up asks about every process that has an endpoint, so it is not done for every message, and each
// process spends a thousandth of a processor on it at most: with many, all that look would leave the daemon
// no time. Another handle is another process: a daemon that was restarted and does not know this component.
// What its predecessor sent is void.
//
// A process that is killed may be found for a moment after its connections have ended: the kernel closes its
// files in no order that we could rely on. So what the platform tells is looked up twice.
CDaemonLink::ELookup CDaemonLink::lookUp() {
    const bool isTold = isWatched();
    auto now = CClientClock::now();
    if (now < m_tNextLookup) {
        return ELookup::notDue;
    }
    const auto before = processorTime();
    uint32_t found = nNoHandle;
    if (OvuMfwGetProcessHandle(szDaemonProcess, &found) != 0) {
        found = nNoHandle;
    }
    const CClientClock::duration pause = 1000 * (processorTime() - before);
    m_tSoonestLookup = now + std::min<CClientClock::duration>(pause, tLongestLookup);
    m_bRare = isTold && !std::exchange(m_bLookAgain, false);
    const CClientClock::duration rest = found == nNoHandle ? tAbsentLookup : tRareLookup;
    m_tNextLookup =
        now + (m_bRare ? rest : std::clamp<CClientClock::duration>(pause, tLookup, tLongestLookup));
    if (found == m_nDaemon) {
        return ELookup::same;
    }
    m_nDaemon = found;
    m_oInbox.clear();
    isWatched(); // for something else from now on
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

// Any error of the framework ends this like an empty queue. It cannot make the caller spin: where there are
// events they are waited for, and where there are none the framework reports errors only
// after the time is up.
void CDaemonLink::receive(std::chrono::milliseconds wait, CClientClock::time_point until) {
    const auto limit = static_cast<int>(std::clamp<int64_t>(m_bMore ? 0 : wait.count(), 0, INT_MAX));
    auto timeout = static_cast<uint32_t>(limit);
    if (m_oEvents) {
        pollfd events{m_oEvents.get(), POLLIN, 0};
        poll(&events, 1, limit);
        eventfd_t woken = 0;
        eventfd_read(m_oWakeUp.get(), &woken);
        timeout = 0;
    }
    int received = 0;
    m_bMore = true;
    while (received < nMaxBurst && (received == 0 || CClientClock::now() < until) && m_bMore) {
        m_bMore = OvuMfwProcessNextMessage(timeout) == 0;
        timeout = 0;
        ++received;
    }
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
    if (isFromDaemon(message) && length >= sizeof(CQelServerMessage)) {
        m_oInbox.push_back(readBody<CQelServerMessage>(message.data, length));
    }
}

void CDaemonLink::cbAnswer(uint16_t, uint32_t, const sOvuMfwMessage* message, uint32_t length) {
    if (message && m_pOpen && m_pOpen->isFromDaemon(*message)) {
        const auto* body = reinterpret_cast<const uint8_t*>(message) + OVU_MFW_DATA_OFFSET;
        m_pOpen->m_vAnswer.assign(body, body + length);
    }
}

// The sender's handle is filled in by the framework, not by the sender, so nobody can pose as the daemon.
bool CDaemonLink::isFromDaemon(const sOvuMfwMessage& message) const {
    return m_nDaemon != nNoHandle && bigEndianWord(message.sender) == m_nDaemon;
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

uint32_t CDaemonLink::send(const CQelMessageHeader& header, const void* body, size_t length) {
    sOvuMfwMessage message = {};
    static_assert(sizeof(CQelNameMessage) + nMaxKnownPairs * sizeof(CQelPair) <= sizeof message.data);
    static_assert(sizeof(CQelReplyMessage) <= sizeof message.data);
    std::memcpy(message.data, body, length);
    if (!sendBody(nQelServerMfwMsgId, message, length)) {
        return 0;
    }
    show(1, message.data, length);
    return header.m_nTag;
}

uint32_t CDaemonLink::sendQuestion(CStatusQuestion question) {
    sOvuMfwMessage message = {};
    const uint32_t tag = nextTag();
    question.m_nTag = tag;
    std::memcpy(message.data, &question, sizeof question);
    return sendBody(nQelStatusMfwMsgId, message, sizeof question) ? tag : 0;
}

// A daemon that has gone and one whose queue is full both make sending fail. The next look-up, which is soon
// then, tells which it is.
bool CDaemonLink::sendBody(uint16_t type, sOvuMfwMessage& message, size_t length) {
    if (m_nDaemon == nNoHandle) {
        return false;
    }
    if (OvuMfwSendMessage(m_nDaemon, type, 0, &message, static_cast<uint32_t>(length)) != 0) {
        m_tNextLookup = std::min<CClientClock::time_point>(m_tNextLookup, CClientClock::now() + tLookup);
        m_bRare = false;
        return false;
    }
    return true;
}
