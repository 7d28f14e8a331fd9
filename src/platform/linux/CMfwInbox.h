// Messages that have arrived and wait for their delivery, in memory, by the sender's process.
//
// Bounded for each sender: what has no room here stays in the sender's connection, until that is full as well
// and the sender's next send fails. So a flood is noticed by whoever causes it, and by nobody else. Not
// thread-safe; the endpoint's mutex guards it.
#ifndef QEL_PLATFORM_LINUX_CMFWINBOX_H
#define QEL_PLATFORM_LINUX_CMFWINBOX_H

#include "platform/linux/mfw_frame.h"

#include <list>
#include <unordered_map>

class CMfwInbox {
public:
    // `own` is this process's id. Messages to oneself have more room, since they have no connection in
    // which they could wait, and they hold up nobody else.
    explicit CMfwInbox(pid_t own) : m_nOwn(own) {}

    // Whether one more message of this sender may be added. The first of a sender always may, whatever its
    // size: otherwise a message above the limits could never be delivered.
    [[nodiscard]] bool hasRoom(pid_t sender) const;

    bool isEmpty() const { return m_oTurns.empty(); }

    // The caller has asked hasRoom() first; this does not check again. Where it throws std::bad_alloc, the
    // message is still the caller's, and nothing has changed.
    void add(SMfwMessage& message);

    // The message that is taken out next: senders take turns, each one's messages in the order they were
    // added. There must be one.
    SMfwMessage& next();

    // Takes it out. There must be one.
    SMfwMessage take() noexcept;

private:
    struct SQueue {
        std::list<SMfwMessage> m_oMessages; // mostly one
        size_t m_nBytes = 0;
    };

    pid_t m_nOwn;
    std::unordered_map<pid_t, SQueue> m_oQueues; // by sender; none is empty
    std::list<pid_t> m_oTurns;                   // each sender that has a queue, once
    size_t m_nBytes = 0;
};

#endif
