// The names by which the daemon is known on its host, and the timing of its loop. All are compiled in,
// because `qelserver -stop` and the running daemon are two processes that must agree on them.
#ifndef QEL_SERVER_LOOP_NAMES_H
#define QEL_SERVER_LOOP_NAMES_H

#include <cstdint>

inline constexpr char sQelLockFileName[] = "QelInstance";       // claimed by the one instance that runs
inline constexpr char sOvuQelServiceName[] = "qelserver";       // at the service manager
inline constexpr char sServiceEventName[] = "QELEVENTSERVER1";  // stop event, of the server
inline constexpr char sServiceEventName1[] = "QELEVENTSERVER1"; // the same, of the command line

// In milliseconds. A turn that handles a message is filled up to nMaxLoopDelay by its wait, so the daemon
// handles some 28 messages a second. An idle turn waits for a message first and lasts about 55 ms.
inline constexpr uint32_t nMaxLoopDelay = 35;   // length of a busy turn, its wait included
inline constexpr uint32_t nMinLoopDelay = 5;    // shortest wait, after a turn that took longer by itself
inline constexpr uint32_t nReceiveTimeout = 50; // how long a turn waits for a message

// Turns between two runs of the audit and the timeout pass: 214 turns of 35 to 55 ms are 7.5 to 12 seconds.
// An audit starts the delivery of one feature, so this sets the pace at which a new list goes out.
inline constexpr uint32_t nAuditTurns = 214;

#endif
