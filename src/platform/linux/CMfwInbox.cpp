#include "platform/linux/CMfwInbox.h"

namespace {

// Beyond its limits a sender's messages stay in its connection. Messages to oneself have none to stay in:
// sending one fails then (EAGAIN).
constexpr size_t nMaxMessages = 64;               // of one sender
constexpr size_t nMaxOwnMessages = 1024;          // of this process itself
constexpr size_t nMaxBytes = size_t{1024} * 1024; // of one sender's bodies
constexpr size_t nMaxAllBytes = size_t{32} * 1024 * 1024;

} // namespace

// Bodies in memory files count in full, although this process reads them only at their delivery.
bool CMfwInbox::hasRoom(pid_t sender) const {
    const auto found = m_oQueues.find(sender);
    if (found == m_oQueues.end()) {
        return true;
    }
    const SQueue& queue = found->second;
    if (sender == m_nOwn) {
        return queue.m_oMessages.size() < nMaxOwnMessages;
    }
    return queue.m_oMessages.size() < nMaxMessages && queue.m_nBytes < nMaxBytes && m_nBytes < nMaxAllBytes;
}

// What needs memory comes first and on the side; from the table's new row on, nothing fails.
void CMfwInbox::add(SMfwMessage& message) {
    std::list<SMfwMessage> added(1);
    std::list<pid_t> turn;
    if (m_oQueues.count(message.m_nProcess) == 0) {
        turn.push_back(message.m_nProcess);
    }
    SQueue& queue = m_oQueues[message.m_nProcess];
    queue.m_nBytes += message.m_nLength;
    m_nBytes += message.m_nLength;
    added.front() = std::move(message);
    queue.m_oMessages.splice(queue.m_oMessages.end(), added);
    m_oTurns.splice(m_oTurns.end(), turn);
}

SMfwMessage& CMfwInbox::next() {
    return m_oQueues.find(m_oTurns.front())->second.m_oMessages.front();
}

// A sender whose queue is not empty goes to the end of the line. An empty queue is erased, so the table stays
// as small as the number of senders that wait, and the next message of this sender is a first one again.
SMfwMessage CMfwInbox::take() noexcept {
    const auto place = m_oQueues.find(m_oTurns.front());
    SQueue& queue = place->second;
    SMfwMessage message = std::move(queue.m_oMessages.front());
    queue.m_oMessages.pop_front();
    queue.m_nBytes -= message.m_nLength;
    m_nBytes -= message.m_nLength;
    if (queue.m_oMessages.empty()) {
        m_oQueues.erase(place);
        m_oTurns.pop_front();
    } else {
        m_oTurns.splice(m_oTurns.end(), m_oTurns, m_oTurns.begin());
    }
    return message;
}
