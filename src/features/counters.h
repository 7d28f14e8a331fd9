// What has happened since the daemon's start, in numbers. Counted where it happens,
// read by whoever asks (server/status).
#ifndef QEL_FEATURES_COUNTERS_H
#define QEL_FEATURES_COUNTERS_H

#include <array>
#include <chrono>
#include <cstdint>
#include <string_view>

enum ECounter : uint8_t {
    coNames, // received, by kind
    coInitLists,
    coGetFeatures,
    coStartMonitors,
    coWriteReplies,
    coShutdowns,
    coActiveFeatures,
    coStatusQuestions,
    coOthers,
    coAnswers, // sent, by type
    coNotifications,
    coModifications,
    coDisables,
    coTimeouts,
    coLists, // for OAM
    coStatusAnswers,
    coSendErrors, // of all these
    coWithheld,   // notifications of what the component holds already
    coAccepted,   // deliveries
    coRefused,
    coNotAwaited, // replies that no delivery awaited
    coOverdue,
    coGivenUp,    // overdue modifications too
    coMerges,     // lists handed over
    coListsTaken, // readings of the list's file
    coListsRefused,
    nCounters
};

// As they are called by whoever asks. Programs go by these names.
inline constexpr std::array<std::string_view, nCounters> aCounterNames = {
    "received.name",
    "received.init-list",
    "received.get-feature",
    "received.start-monitor",
    "received.write-reply",
    "received.shutdown",
    "received.active-features",
    "received.status",
    "received.other",
    "sent.answer",
    "sent.notify",
    "sent.modify",
    "sent.disable",
    "sent.timeout",
    "sent.active-features",
    "sent.status",
    "sent.failed",
    "withheld",
    "accepted",
    "refused",
    "not-awaited",
    "overdue",
    "given-up",
    "lists.handed-over",
    "lists.taken",
    "lists.refused",
};
static_assert(!aCounterNames.back().empty(), "one for each counter");

// On the main loop's thread only.
inline std::array<uint64_t, nCounters> aCounters = {};

inline void count(ECounter counter) {
    ++aCounters[counter];
}

// Changes with whatever may move entries or components in their tables, or records within an entry. A walk over
// a table that takes several turns goes by it.
inline uint32_t nTableMoves = 0;

// When the work in hand began, by the steady clock, which costs no system call; the epoch: none is. What
// handles a message says so first, for the wait before it is no work. server/status takes the time.
inline std::chrono::steady_clock::time_point oWorkBegan = {};

inline void beginWork() {
    oWorkBegan = std::chrono::steady_clock::now();
}

#endif
