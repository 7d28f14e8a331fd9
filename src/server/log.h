// Logging for every part of the daemon: printf-style texts in front of CQelServer::LogFile().
#ifndef QEL_SERVER_LOG_H
#define QEL_SERVER_LOG_H

#include <cstdint>

enum ESeverity : uint16_t { svError = 1, svWarning = 2, svInfo = 4 };

// Formats the text, however long it gets, and logs it as one line. May be called from any thread. Returns
// what CQelServer::LogFile() returns.
int logEvent(ESeverity severity, uint32_t event, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#endif
