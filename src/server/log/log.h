// The log: one line for every notable event.
#ifndef QEL_SERVER_LOG_LOG_H
#define QEL_SERVER_LOG_LOG_H

#include <cstdint>

enum ESeverity : uint16_t { svError = 1, svWarning = 2, svInfo = 4 };

// The text log; QEL_LOG_FILE in the environment overrides it.
inline constexpr char sQelServerLogFileName[] = "/var/log/QelServer.log";

// Set once, before any thread is started, by "-run -debug": log lines go to standard output.
extern bool bQelServerDebugFlag;

// All of these may be called from any thread, take no lock and throw nothing; a line that cannot be written is
// dropped.

// Logs one line: to the diagnostics log, where a module can be registered there, else to the text log. Returns
// what the diagnostics service says, or what logLine() does.
int logEntry(uint16_t severity, uint32_t event, const char* text);

// Writes one line with its time to the text log or, when debugging, to standard output. Returns 1, or 0 for a
// line that was dropped.
int logLine(const char* text);

// Formats the text, however long it gets, and logs it by logEntry(), whose result it returns.
int logEvent(ESeverity severity, uint32_t event, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#endif
