#include "platform/linux/CMfwEndpoint.h"

#include "platform/linux/errors.h"
#include "platform/mfw.h"

#include <algorithm>
#include <sys/epoll.h>
#include <sys/eventfd.h>

namespace {

// What a descriptor in the epoll set means: one of these, or a connection's id.
constexpr uint64_t nListenerId = 0;
constexpr uint64_t nWakeupId = 1;
constexpr uint64_t nNamesId = 2;
constexpr uint64_t nFirstConnectionId = 3;

constexpr size_t nMaxConnections = 2048;
constexpr int nMaxConnectionsOfPeer = 16; // it needs two at most, but old ones may still be unread
constexpr int nMaxLetIn = 512;            // in one go
constexpr int nMaxRead = 16;              // messages of one connection, in one go
constexpr int nMaxReady = 512;            // connections looked at in one go

constexpr int nLookMs = 1000; // how often a receiver looks whether the runtime directory is still the same

} // namespace

int CMfwEndpoint::open(const std::string& processName) {
    if (!isFileNamePart(processName.c_str())) {
        return EINVAL;
    }
    const std::lock_guard<std::mutex> guard(m_oMutex);
    m_nNextId = nFirstConnectionId;
    const int error = guarded([&] {
        m_sProcessName = processName;
        return openDescriptors();
    });
    if (error != 0) {
        leave();
    }
    m_bOpen = error == 0;
    return error;
}

int CMfwEndpoint::openDescriptors() {
    m_oEpoll = CFileDescriptor(epoll_create1(EPOLL_CLOEXEC));
    m_oWakeup = CFileDescriptor(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!m_oEpoll || !m_oWakeup) {
        return lastError();
    }
    if (const int error = watch(m_oWakeup.get(), nWakeupId)) {
        return error;
    }
    const int error = m_oDirectory.open();
    return error != 0 ? error : settle();
}

// Takes its place in the directory. The name comes last: who finds it can connect.
int CMfwEndpoint::settle() {
    int error = m_oHandles.take(m_oDirectory, m_nHandle);
    if (error == 0) {
        error = m_oName.claim(m_oDirectory, m_nHandle);
    }
    if (error == 0) {
        error = openMfwListener(m_oDirectory, m_nHandle, m_oListener);
    }
    if (error == 0) {
        error = watch(m_oListener.get(), nListenerId);
    }
    m_bListening = error == 0;
    return error != 0 ? error : m_oName.publish(m_sProcessName);
}

void CMfwEndpoint::close() {
    const std::lock_guard<std::mutex> guard(m_oMutex);
    if (!m_bOpen) {
        return;
    }
    m_bOpen = false;
    leave();
    m_oConnections.clear();
    wake();
}

// The handle goes last: what stands under it in the directory is its owner's to remove.
void CMfwEndpoint::leave() {
    m_oName.withdraw(m_oDirectory);
    m_oListener.close();
    m_oHandles.giveBack();
}

// Moves to the directory that has come in the place of ours. Who waits to be let in at the old listener is
// let in first. Where it fails, the endpoint has its connections and no place, and the next look tries again.
// True: it has moved.
bool CMfwEndpoint::follow() {
    if (m_oName.isInPlace()) {
        return false;
    }
    CRuntimeDirectory found;
    if (guarded([&] { return m_oDirectory.openAgain(found); }) != 0) {
        return false;
    }
    guarded([&] { return letIn(), 0; });
    leave();
    m_oDirectory = std::move(found);
    const bool isSettled = guarded([&] { return settle(); }) == 0;
    if (!isSettled) {
        leave();
    }
    return isSettled;
}

[[gnu::hot]] void CMfwEndpoint::followWhenDue() {
    const auto now = std::chrono::steady_clock::now();
    if (now >= m_tNextLook) {
        m_tNextLook = now + std::chrono::milliseconds(nLookMs);
        follow();
    }
}

int CMfwEndpoint::watch(int fd, uint64_t id) const {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = id;
    return epoll_ctl(m_oEpoll.get(), EPOLL_CTL_ADD, fd, &event) == 0 ? 0 : lastError();
}

void CMfwEndpoint::wake() const {
    eventfd_write(m_oWakeup.get(), 1); // fails only where it is awake anyway
}

int CMfwEndpoint::send(uint32_t handle, uint16_t type, uint32_t userId, const uint8_t* body,
                       uint32_t length) {
    if (handle == m_nHandle) {
        return sendToSelf(type, userId, body, length);
    }
    CMfwOutgoingFrame frame;
    if (const int error = frame.prepare(type, userId, body, length)) {
        return error;
    }
    return sendToPeer(handle, frame);
}

int CMfwEndpoint::sendToSelf(uint16_t type, uint32_t userId, const uint8_t* body, uint32_t length) {
    SMfwMessage message;
    message.m_nType = type;
    message.m_nUserId = userId;
    message.m_nSender = m_nHandle;
    message.m_nProcess = getpid();
    message.m_nLength = length;
    message.m_oBody.assign(body, body + length);
    const std::lock_guard<std::mutex> guard(m_oMutex);
    if (!m_bOpen) {
        return ENOTCONN;
    }
    if (!m_oInbox.hasRoom(getpid())) {
        return EAGAIN;
    }
    m_oInbox.add(message);
    wake();
    return 0;
}

int CMfwEndpoint::sendToPeer(uint32_t handle, const CMfwOutgoingFrame& frame) {
    const std::lock_guard<std::mutex> guard(m_oMutex);
    if (!m_bOpen) {
        return ENOTCONN;
    }
    const int error = sendConnected(handle, frame);
    const bool isMissing = error == ENOENT || error == ESRCH || isGone(error);
    return isMissing && follow() ? sendConnected(handle, frame) : error;
}

// A peer that closed its endpoint and opened it anew is noticed here, by the first message
// that does not get through.
int CMfwEndpoint::sendConnected(uint32_t handle, const CMfwOutgoingFrame& frame) {
    int error = ENOTCONN;
    for (int attempt = 0; attempt < 2 && isGone(error); ++attempt) {
        CMfwConnection* connection = nullptr;
        if (const int failure = connectionTo(handle, connection)) {
            return failure;
        }
        error = connection->send(frame);
    }
    return error;
}

// Messages to a process all go by its first connection, for as long as that lives: this keeps them in order
// where the two have connected to each other at the same moment, and there are two.
int CMfwEndpoint::connectionTo(uint32_t handle, CMfwConnection*& connection) {
    for (auto& [id, known] : m_oConnections) {
        if (known.peer() == handle && known.isSendable()) {
            connection = &known;
            return 0;
        }
    }
    CMfwConnection fresh;
    if (const int error = fresh.connect(m_oDirectory, m_oHandles, handle)) {
        return error;
    }
    const uint64_t id = m_nNextId++;
    if (const int error = watch(fresh.fd(), id)) {
        return error;
    }
    connection = &m_oConnections.emplace(id, std::move(fresh)).first->second;
    return 0;
}

// A watch that begins says that something may have come: what came before it, nobody has seen. The directory
// is the one that has come in the place of ours, if there is one.
int CMfwEndpoint::watchProcess(const char* processName, uint32_t& changes) {
    const std::lock_guard<std::mutex> guard(m_oMutex);
    if (!m_bOpen) {
        return ENOTCONN;
    }
    int error = 0;
    if (processName == nullptr) {
        m_oNameWatch.end();
    } else if (!m_oNameWatch.isOf(processName)) {
        follow();
        error = m_oNameWatch.begin(m_oDirectory, processName);
        error = error != 0 ? error : watch(m_oNameWatch.fd(), nNamesId);
        if (error != 0) {
            m_oNameWatch.end();
        }
        ++m_nChanges;
    }
    changes = m_nChanges;
    return error;
}

// Waits only while there is nothing to deliver, but looks each time: what has come is taken in as it comes.
[[gnu::hot]] int CMfwEndpoint::receive(const CDeadline& deadline, SMfwMessage& message, CMfwRecord& record) {
    bool mayWait = prepareToReceive();
    for (;;) {
        epoll_event ready[nMaxReady];
        const int wait = mayWait ? std::min(deadline.milliseconds(), nLookMs) : 0;
        const int count = epoll_wait(m_oEpoll.get(), ready, nMaxReady, wait);
        const std::lock_guard<std::mutex> guard(m_oMutex);
        if (!m_bOpen) {
            return OVU_MFW_NO_MESSAGE;
        }
        followWhenDue();
        const int error = guarded([&] {
            takeInHeld();
            for (int i = 0; i < count; ++i) {
                takeIn(ready[i].data.u64);
            }
            return 0;
        });
        if (!m_oInbox.isEmpty()) {
            return takeOut(message, record);
        }
        if (error != 0) {
            return error;
        }
        if (count == 0 && mayWait && deadline.isOver()) {
            return OVU_MFW_NO_MESSAGE;
        }
        mayWait = true;
    }
}

// False: a message is here already.
[[gnu::hot]] bool CMfwEndpoint::prepareToReceive() {
    const std::lock_guard<std::mutex> guard(m_oMutex);
    if (m_bOpen) {
        followWhenDue();
        setListening(true);
    }
    return m_oInbox.isEmpty() && !m_oHeld;
}

int CMfwEndpoint::takeOut(SMfwMessage& message, CMfwRecord& record) {
    SMfwMessage& next = m_oInbox.next();
    const int error = guarded([&] {
        record.makeRoom(next.m_nLength);
        return 0;
    });
    if (error != 0 && !std::exchange(next.m_bTried, true)) {
        return error;
    }
    message = m_oInbox.take();
    return error;
}

[[gnu::hot]] void CMfwEndpoint::takeInHeld() {
    if (m_oHeld) {
        m_oInbox.add(*m_oHeld);
        m_oHeld.reset();
    }
}

// Takes in what a descriptor is ready with. A connection whose queue in the inbox is full is passed over; it
// stays ready, which does no harm, for then there is something to deliver and nobody waits.
void CMfwEndpoint::takeIn(uint64_t id) {
    switch (id) {
    case nListenerId:
        letIn();
        break;
    case nWakeupId: {
        eventfd_t wakeups;
        eventfd_read(m_oWakeup.get(), &wakeups);
        break;
    }
    case nNamesId:
        m_nChanges += m_oNameWatch.hasCome(m_oDirectory);
        break;
    default:
        read(id);
    }
}

// Where nobody can be let in for want of descriptors or memory, the listener is left alone until the next
// receive: it stays ready, and would keep this one from sleeping.
void CMfwEndpoint::letIn() {
    for (int i = 0; i < nMaxLetIn && m_oListener; ++i) {
        const int error = letInNext();
        if (error == EAGAIN) {
            return;
        }
        if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
            setListening(false);
            return;
        }
    }
}

// The place comes first: with a connection accepted and then lost for want of memory, what its peer has sent
// would be lost too.
int CMfwEndpoint::letInNext() {
    const uint64_t id = m_nNextId++;
    const auto place = m_oConnections.emplace(id, CMfwConnection()).first;
    const int error = place->second.accept(m_oListener.get());
    if (error != 0 || !mayJoin(place->second) || watch(place->second.fd(), id) != 0) {
        m_oConnections.erase(place);
        return error;
    }
    read(id);
    return 0;
}

// It has its place already, so it counts itself.
bool CMfwEndpoint::mayJoin(const CMfwConnection& connection) const {
    const auto ofSamePeer = [&](const auto& other) { return other.second.process() == connection.process(); };
    return m_oConnections.size() <= nMaxConnections &&
           std::count_if(m_oConnections.begin(), m_oConnections.end(), ofSamePeer) <= nMaxConnectionsOfPeer;
}

[[gnu::hot]] void CMfwEndpoint::setListening(bool listening) {
    if (m_bListening == listening || !m_oListener) {
        return;
    }
    epoll_event event{};
    event.events = listening ? static_cast<uint32_t>(EPOLLIN) : 0U;
    event.data.u64 = nListenerId;
    if (epoll_ctl(m_oEpoll.get(), EPOLL_CTL_MOD, m_oListener.get(), &event) == 0) {
        m_bListening = listening;
    }
}

void CMfwEndpoint::read(uint64_t id) {
    const auto place = m_oConnections.find(id);
    if (place != m_oConnections.end() && !readSome(place->second)) {
        m_oConnections.erase(place);
        ++m_nChanges;
    }
}

// False: nothing more will come of this connection.
bool CMfwEndpoint::readSome(CMfwConnection& connection) {
    takeInHeld(); // its place is needed
    if (connection.peer() == OVU_MFW_NO_HANDLE) {
        connection.identify(m_oHandles);
    }
    for (int i = 0; i < nMaxRead && m_oInbox.hasRoom(connection.process()); ++i) {
        SMfwMessage message;
        switch (m_oReader.receive(connection.fd(), message)) {
        case EMfwReceived::Message:
            message.m_nSender = connection.peer();
            message.m_nProcess = connection.process();
            m_oHeld = std::move(message);
            takeInHeld();
            break;
        case EMfwReceived::Dropped:
            break;
        case EMfwReceived::Nothing:
            return true;
        case EMfwReceived::Closed:
        case EMfwReceived::Garbage:
            return false;
        }
    }
    return true;
}
