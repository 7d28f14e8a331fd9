// The way to the daemon: this process's endpoint, the daemon's address, and the requests as they go out.
#ifndef QEL_CLIENT_CDAEMONLINK_H
#define QEL_CLIENT_CDAEMONLINK_H

#include "base/CFileDescriptor.h"
#include "client/CFeatureTable.h"
#include "client/CPatience.h"
#include "client/qelclient.h"
#include "messaging/wire/status.h"
#include "messaging/wire/wire.h"
#include "platform/mfw.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Knows nothing of the conversation: it sends what it is asked to send, and keeps what came from the daemon,
// in order of arrival. It drops messages that are too short, or that anybody but the present daemon has sent.
//
// Only one link may be open in a process, since the framework gives a process one endpoint. Used by one
// thread at a time.
class CDaemonLink {
public:
    // How often the daemon is looked up at most where the platform does not tell that it came or went. So a
    // restart of the daemon is noticed within half a second, but later, up to tLongestLookup, among more than
    // some hundred processes: see lookUp(). Where the platform tells, a look-up is rare.
    static constexpr std::chrono::milliseconds tLookup{500};
    static constexpr std::chrono::seconds tLongestLookup{10};
    static constexpr std::chrono::seconds tRareLookup{60};
    // But not while there is no daemon: nothing tells that the directory has been made anew, since a process
    // that holds the old one open keeps its end from being told (inotify(7), IN_DELETE_SELF).
    static constexpr std::chrono::seconds tAbsentLookup{2};

    CDaemonLink(std::string name, qel_trace_fn trace, void* user);
    ~CDaemonLink();
    CDaemonLink(const CDaemonLink&) = delete;
    CDaemonLink& operator=(const CDaemonLink&) = delete;

    // Opens the process's endpoint. False: the framework refuses, and the link is of no use. Call it once,
    // before anything else.
    [[nodiscard]] bool open();
    // The framework's callbacks go to the link that was opened last; from now on to this one.
    void takeCallbacks() { m_pOpen = this; }

    enum class ELookup {
        notDue,
        same, // or still none
        changed
    };
    // Looks the daemon up if that is due. After `changed`, handle() is the new daemon's, or nNoHandle if
    // there is none, and the inbox is empty.
    ELookup lookUp();
    uint32_t handle() const { return m_nDaemon; }
    CClientClock::time_point nextLookup() const { return m_tNextLookup; }
    // The platform tells when one is needed: it may as well wait for the next occasion.
    bool isLookupRare() const { return m_bRare; }
    uint32_t ownHandle() const { return m_nOwnHandle; }

    // These return the tag that the answer will carry, or 0 if the message could not be sent. An announcement
    // takes the first nMaxKnownPairs of `held`; a text is cut at nMaxReplyTextLength bytes.
    uint32_t sendAnnouncement(const std::vector<SFeature>& held);
    uint32_t sendRequest(uint32_t subType);
    uint32_t sendReply(uint32_t subType, uint32_t status, std::string_view text);
    uint32_t sendQuestion(CStatusQuestion question);

    // Waits at most this long for a message, then takes in what has arrived, but no more once `until` has
    // come. The trace callback is called from here. hasMore(): there may be more, so do not wait.
    void receive(std::chrono::milliseconds wait,
                 CClientClock::time_point until = CClientClock::time_point::max());
    bool hasMore() const { return m_bMore; }
    // Whether waiting ends when a message comes, the daemon comes or goes, or wake() is called. If not, all
    // but the first take up to tLookup.
    bool isWoken() const { return static_cast<bool>(m_oEvents); }
    int descriptor() const { return m_oEvents.get(); } // readable then; -1: none
    void wake();                                       // any thread, signal handlers
    // The messages received and not taken yet, the oldest first.
    std::deque<CQelServerMessage>& inbox() { return m_oInbox; }
    // Of the answers to questions only the latest is kept: one is asked at a time.
    std::vector<uint8_t> takeAnswer() { return std::exchange(m_vAnswer, {}); }

private:
    static void cbReceive(uint16_t type, uint32_t id, const sOvuMfwMessage* message, uint32_t length);
    static void cbAnswer(uint16_t type, uint32_t id, const sOvuMfwMessage* message, uint32_t length);
    bool isFromDaemon(const sOvuMfwMessage& message) const;
    void take(const sOvuMfwMessage& message, uint32_t length);
    void show(int sent, const uint8_t* body, size_t length) const;
    uint32_t nextTag();
    CQelMessageHeader header(uint32_t type, uint32_t subType, size_t length);
    uint32_t send(const CQelMessageHeader& header, const void* body, size_t length);
    bool sendBody(uint16_t type, sOvuMfwMessage& message, size_t length);
    void openEvents();
    bool isWatched();

    static CDaemonLink* m_pOpen; // gets the framework's callbacks; null: no link is open

    std::string m_sName;
    qel_trace_fn m_fnTrace;
    void* m_pUser;
    uint32_t m_nOwnHandle = nNoHandle;
    uint32_t m_nDaemon = nNoHandle;
    uint32_t m_nTag = 0; // given out last; counts up, so a late answer never has the tag awaited
    CClientClock::time_point m_tNextLookup{};
    CClientClock::time_point m_tSoonestLookup{};
    CFileDescriptor
        m_oEvents; // epoll: the framework's descriptor and m_oWakeUp; none: waits in the framework
    CFileDescriptor m_oWakeUp; // eventfd
    uint32_t m_nChanges = 0;   // the platform's number
    bool m_bLookAgain = false; // the platform has told something, and no look-up has followed yet
    bool m_bMore = false;
    bool m_bRare = false;
    std::vector<uint8_t> m_vAnswer;
    std::deque<CQelServerMessage> m_oInbox;
};

#endif
