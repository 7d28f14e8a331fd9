// The names that the daemon is known by, and the timing of its loop. Compiled in: one definition each.
#ifndef QEL_SERVER_LOOP_NAMES_H
#define QEL_SERVER_LOOP_NAMES_H

#include <cstdint>

inline constexpr char sQelLockFileName[] = "QelInstance";       // claimed by the one instance that runs
inline constexpr char sOvuQelServiceName[] = "qelserver";       // at the service manager
inline constexpr char sServiceEventName[] = "QELEVENTSERVER1";  // stop event, of the server
inline constexpr char sServiceEventName1[] = "QELEVENTSERVER1"; // the same, of the command line

// Milliseconds.
inline constexpr uint32_t nMaxLoopDelay = 35;   // what a turn lasts at least, its wait included
inline constexpr uint32_t nMinLoopDelay = 5;    // the shortest wait
inline constexpr uint32_t nReceiveTimeout = 50; // how long a turn waits for a message

inline constexpr uint32_t nAuditTurns = 214; // the audit runs every so many turns: 7.5 to 12 seconds

#endif
