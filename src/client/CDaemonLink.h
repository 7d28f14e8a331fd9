// The way to the daemon: this process's endpoint, the daemon's address, and the requests as they go out.
#ifndef QEL_CLIENT_CDAEMONLINK_H
#define QEL_CLIENT_CDAEMONLINK_H

#include "client/CFeatureTable.h"
#include "client/qelclient.h"
#include "messaging/wire/wire.h"
#include "platform/mfw.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

using CClientClock = std::chrono::steady_clock;

// Knows nothing of the conversation: sends what it is told to, and keeps what came from the daemon in order
// of arrival. Messages from anybody else, from a daemon that is gone, or too short to be one, are dropped.
class CDaemonLink {
public:
    // How often the daemon is looked up, at most: it may have been restarted.
    static constexpr std::chrono::milliseconds tLookup{500};

    CDaemonLink(std::string name, qel_trace_fn trace, void* user);
    ~CDaemonLink();
    CDaemonLink(const CDaemonLink&) = delete;
    CDaemonLink& operator=(const CDaemonLink&) = delete;

    // Opens the process's endpoint; false if the framework refuses.
    [[nodiscard]] bool open();

    enum class ELookup {
        notDue,
        same, // also: still none
        changed
    };
    // Looks the daemon up, if that is due. After a change handle() is the new daemon's, or nNoHandle, and
    // nothing is left of what the old one had sent.
    ELookup lookUp();
    uint32_t handle() const { return m_nDaemon; }
    CClientClock::time_point nextLookup() const { return m_tNextLookup; }

    // Each returns the tag that the answer will carry, or 0 if the message could not be sent.
    uint32_t sendAnnouncement(const std::vector<SFeature>& held);
    uint32_t sendRequest(uint32_t subType);
    uint32_t sendReply(uint32_t subType, uint32_t status, std::string_view text);

    // Waits at most so long for a message, then takes in all that are there. True if any came.
    bool receive(std::chrono::milliseconds wait);
    // The messages received and not taken yet, the oldest first.
    std::deque<CQelServerMessage>& inbox() { return m_oInbox; }

private:
    static void cbReceive(uint16_t type, uint32_t id, const sOvuMfwMessage* message, uint32_t length);
    void take(const sOvuMfwMessage& message, uint32_t length);
    uint32_t nextTag();
    CQelMessageHeader header(uint32_t type, uint32_t subType, size_t length);
    uint32_t send(const CQelMessageHeader& header, const void* body, size_t length);

    static CDaemonLink* m_pOpen; // who gets the framework's callbacks

    std::string m_sName;
    qel_trace_fn m_fnTrace;
    void* m_pUser;
    uint32_t m_nOwnHandle = nNoHandle;
    uint32_t m_nDaemon = nNoHandle;
    uint32_t m_nTag = 0; // the latest given out; never used twice while an answer to it may still come
    CClientClock::time_point m_tNextLookup{};
    std::deque<CQelServerMessage> m_oInbox;
};

#endif
