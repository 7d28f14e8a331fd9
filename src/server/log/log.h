// The log: one line for every notable event. docs/events.md lists the numbers and what they tell.
#ifndef QEL_SERVER_LOG_LOG_H
#define QEL_SERVER_LOG_LOG_H

#include "server/log/line_fields.h"

#include <cstdint>

enum ESeverity : uint16_t { svError = 1, svWarning = 2, svInfo = 4 };

// The text log; QEL_LOG_FILE in the environment overrides it, unless it is empty.
inline constexpr char sQelServerLogFileName[] = "/var/log/QelServer.log";

// Set once, before any thread is started, by "-run -debug": log lines go to standard output.
extern bool bQelServerDebugFlag;

// All of these may be called from any thread, hold no lock of the log's own, and throw nothing. A line that
// cannot be written is dropped: logging never stops the daemon, and nobody need look at the results.

// Logs one line: to the diagnostics log if the daemon's module is registered there, else to the text log.
// When debugging, always by logLine(). Returns the diagnostics service's result (0: success) or that of
// logLine() (1: success).
int logEntry(uint16_t severity, uint32_t event, const char* text);

// The same, and tells a diagnostics log that keeps fields what the line tells of.
int logEntry(uint16_t severity, uint32_t event, const char* text, const SLineFields& fields);

// Writes one line, with the local time in front, to the text log or, when debugging, to standard output.
// Control characters in `text` are escaped as "\x0a", so it stays one line. Returns 1, or 0 for a line that
// was dropped. If there is no memory for a long line, its beginning is written.
int logLine(const char* text);

// Formats the text as printf(3) does, however long it gets, and logs it by logEntry(), whose result it
// returns, with those fields among the arguments that line_fields.cpp knows. If there is no memory for a text
// of 512 bytes or more, its beginning is logged.
int logEvent(ESeverity severity, uint32_t event, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#endif
