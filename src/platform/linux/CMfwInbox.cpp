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
bool CMfwInbox::hasRoom(uint32_t sender) const {
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

void CMfwInbox::add(SMfwMessage message) {
    const auto [place, isFirst] = m_oQueues.try_emplace(message.m_nSender);
    if (isFirst) {
        m_oTurns.push_back(message.m_nSender);
    }
    place->second.m_nBytes += message.m_nLength;
    m_nBytes += message.m_nLength;
    place->second.m_oMessages.push_back(std::move(message));
}

// A sender whose queue is not empty goes to the end of the line. An empty queue is erased, so the table stays
// as small as the number of senders that wait, and the next message of this sender is a first one again.
bool CMfwInbox::take(SMfwMessage& message) {
    if (m_oTurns.empty()) {
        return false;
    }
    const uint32_t sender = m_oTurns.front();
    m_oTurns.pop_front();
    const auto place = m_oQueues.find(sender);
    SQueue& queue = place->second;
    message = std::move(queue.m_oMessages.front());
    queue.m_oMessages.pop_front();
    queue.m_nBytes -= message.m_nLength;
    m_nBytes -= message.m_nLength;
    if (queue.m_oMessages.empty()) {
        m_oQueues.erase(place);
    } else {
        m_oTurns.push_back(sender);
    }
    return true;
}
