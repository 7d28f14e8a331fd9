#include "server/log/log.h"

#include "base/clock.h"
#include "platform/diag.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <new>
#include <string>
#include <unistd.h>

constinit bool bQelServerDebugFlag = false;

namespace {

constinit std::atomic<uint32_t> m_nOvuDiagHandler = 0; // of the diagnostics module; 0: not registered

constexpr uint32_t nDiagKind = 2; // the diagnostics service's own number

// As "2024-03-14 13:04:05.042", in local time.
std::string timestamp() {
    const timeval now = nowTimeOfDay();
    const time_t seconds = now.tv_sec;
    tm local{};
    localtime_r(&seconds, &local);
    char date[40];
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
    char stamp[sizeof date + 24];
    std::snprintf(stamp, sizeof stamp, "%s.%03ld", date, static_cast<long>(now.tv_usec / 1000));
    return stamp;
}

const char* textLogPath() {
    const char* path = std::getenv("QEL_LOG_FILE");
    return path != nullptr ? path : sQelServerLogFileName;
}

// A peer chooses its name and its reply text: control characters are written as "\x0a", so that none of them
// can end the line and begin another.
std::string printable(const char* text) {
    std::string result;
    for (; *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte >= ' ' && byte != 0x7F) {
            result += *text;
            continue;
        }
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
        result += escaped;
    }
    return result;
}

// Opened and closed for each line, so that the log can be rotated or removed while the daemon runs. One write
// a line: lines of two threads do not mix. Does not wait for the reader of a pipe.
bool appendToTextLog(const std::string& line) {
    const int file =
        ::open(textLogPath(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666);
    if (file < 0) {
        return false;
    }
    const ssize_t written = ::write(file, line.data(), line.size());
    ::close(file);
    return written == static_cast<ssize_t>(line.size());
}

} // namespace

int logEntry(uint16_t severity, uint32_t event, const char* text) {
    uint32_t handle = m_nOvuDiagHandler.load();
    if (handle == 0) {
        if (OvuDiagRegisterModule("Qel", "Qel", "Qel", "QelServerD.log", &handle) != 0) {
            handle = 0;
        }
        m_nOvuDiagHandler = handle;
    }
    if (!bQelServerDebugFlag && handle != 0) {
        return OvuDiagAddLogEntry(handle, nDiagKind, severity, event, text);
    }
    return logLine(text);
}

int logLine(const char* text) try {
    const std::string line = timestamp() + ": " + printable(text) + "\n";
    if (!bQelServerDebugFlag) {
        return appendToTextLog(line) ? 1 : 0;
    }
    std::fputs(line.c_str(), stdout);
    std::fflush(stdout);
    return 1;
} catch (const std::bad_alloc&) {
    return 0;
}

int logEvent(ESeverity severity, uint32_t event, const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length < static_cast<int>(sizeof text)) {
        return logEntry(severity, event, text);
    }
    const size_t size = static_cast<size_t>(length) + 1;
    const std::unique_ptr<char[]> longText(new (std::nothrow) char[size]);
    if (longText == nullptr) {
        return logEntry(severity, event, text); // its beginning is better than nothing
    }
    va_start(arguments, format);
    std::vsnprintf(longText.get(), size, format, arguments);
    va_end(arguments);
    return logEntry(severity, event, longText.get());
}
