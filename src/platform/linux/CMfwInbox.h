// Messages that have been taken in and wait for their delivery. Bounded: what a sender has no room for here
// stays in its connection, and fills that up in the end, so that the sender notices and nobody else does.
#ifndef QEL_PLATFORM_LINUX_CMFWINBOX_H
#define QEL_PLATFORM_LINUX_CMFWINBOX_H

#include "platform/linux/mfw_frame.h"

#include <deque>
#include <list>
#include <unordered_map>

class CMfwInbox {
public:
    // `own`: this process's handle, which has more room than the others. It writes to itself at moments when
    // it cannot wait, and would cut off nobody else.
    explicit CMfwInbox(uint32_t own) : m_nOwn(own) {}

    // Whether one more message of this sender may be added. The first of a sender always may.
    [[nodiscard]] bool hasRoom(uint32_t sender) const;

    bool isEmpty() const { return m_oTurns.empty(); }

    void add(SMfwMessage message);

    // Takes out the next message: senders take turns, each one's messages in the order they were added.
    // False: none.
    [[nodiscard]] bool take(SMfwMessage& message);

private:
    struct SQueue {
        std::list<SMfwMessage> m_oMessages; // mostly one
        size_t m_nBytes = 0;
    };

    uint32_t m_nOwn;
    std::unordered_map<uint32_t, SQueue> m_oQueues; // by sender; none is empty
    std::deque<uint32_t> m_oTurns;                  // each sender that has a queue, once
    size_t m_nBytes = 0;
};

#endif
