#include "server/log/log.h"

#include "base/CFileDescriptor.h"
#include "base/clock.h"
#include "platform/diag.h"
#include "platform/diag_fields.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <new>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

constinit bool bQelServerDebugFlag = false;

namespace {

constinit std::atomic<uint32_t> m_nOvuDiagHandler = 0; // of the diagnostics module; 0: not registered

constexpr uint32_t nDiagKind = 2; // belongs to the diagnostics service, see diag.h

// As "2024-03-14 13:04:05", in local time. Lines come in bursts, so each thread keeps the text of the second
// that it formatted last. localtime_r(3) need not look at the time zone again, tzset(3) does: the log follows
// a new zone of the host within a second.
std::string_view dateAndTime(time_t seconds) {
    struct SKnown {
        time_t m_tSecond = 0;
        size_t m_nLength = 0; // 0: nothing known
        char m_szText[40] = "";
    };
    constinit thread_local SKnown known;
    if (known.m_nLength == 0 || known.m_tSecond != seconds) {
        tm local{};
        tzset();
        localtime_r(&seconds, &local);
        known.m_nLength = std::strftime(known.m_szText, sizeof known.m_szText, "%Y-%m-%d %H:%M:%S", &local);
        known.m_tSecond = seconds;
    }
    return {known.m_szText, known.m_nLength};
}

// Bytes from 0x80 on pass, so that UTF-8 in a name or a reply text stays readable.
bool isPrintable(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte >= ' ' && byte != 0x7F;
}

// One line of the log: stamp, text, line break. Built in one piece, so that one write(2) can put it out; in
// memory of its own only if it is long. A long line that finds no memory is cut.
class CLine {
public:
    // Room for the worst case, every character escaped.
    explicit CLine(const char* text) {
        const size_t most = nStampRoom + nEscapedSize * std::strlen(text) + 1;
        if (most > sizeof m_aRoom) {
            m_pLarge.reset(new (std::nothrow) char[most]);
        }
        if (m_pLarge != nullptr) {
            m_pText = m_pLarge.get();
            m_nRoom = most;
        }
        appendStamp();
        appendPrintable(text);
        m_pText[m_nSize++] = '\n';
    }
    CLine(const CLine&) = delete;
    CLine& operator=(const CLine&) = delete;

    const char* data() const { return m_pText; }
    size_t size() const { return m_nSize; }

private:
    static constexpr size_t nStampRoom = 48;  // dateAndTime() has at most 39 characters, the fraction 6
    static constexpr size_t nEscapedSize = 4; // as in "\x0a"

    // Leaves room for the line break.
    void append(const char* text, size_t size) {
        const size_t fitting = std::min(size, m_nRoom - 1 - m_nSize);
        std::memcpy(m_pText + m_nSize, text, fitting);
        m_nSize += fitting;
    }

    // As "2024-03-14 13:04:05.042: ".
    void appendStamp() {
        const timeval now = nowTimeOfDay();
        const std::string_view second = dateAndTime(now.tv_sec);
        append(second.data(), second.size());
        const auto digit = [&](long unit) { return static_cast<char>('0' + now.tv_usec / unit % 10); };
        const char fraction[] = {'.', digit(100000), digit(10000), digit(1000), ':', ' '};
        append(fraction, sizeof fraction);
    }

    // A peer chooses its name and its reply text: control characters are written as "\x0a", so that none of
    // them can end the line and begin another.
    void appendPrintable(const char* text) {
        for (;;) {
            const char* end = text;
            while (isPrintable(*end)) {
                ++end;
            }
            append(text, static_cast<size_t>(end - text));
            if (*end == '\0') {
                return;
            }
            char escaped[nEscapedSize + 1];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(*end));
            append(escaped, nEscapedSize);
            text = end + 1;
        }
    }

    char m_aRoom[1024];
    std::unique_ptr<char[]> m_pLarge;
    char* m_pText = m_aRoom;
    size_t m_nRoom = sizeof m_aRoom;
    size_t m_nSize = 0;
};

// The environment is asked for each line; nothing in the daemon changes it, so getenv(3)
// is safe in any thread.
const char* textLogPath() {
    const char* path = std::getenv("QEL_LOG_FILE");
    return path != nullptr && *path != '\0' ? path : sQelServerLogFileName;
}

// On a full disk, or at a size limit, write(2) takes only the beginning of a line, which the next line would
// then continue. So that is taken back, and the line is lost as a whole; but not if another process has
// appended to the file meanwhile, whose line would be lost as well. Not everything that is written to is a
// file: a pipe takes a line of up to PIPE_BUF as a whole or not at all.
bool writeWhole(int fd, const CLine& line) {
    const ssize_t written = ::write(fd, line.data(), line.size());
    if (written == static_cast<ssize_t>(line.size())) {
        return true;
    }
    struct stat status {};
    if (written > 0 && ::fstat(fd, &status) == 0 && ::lseek(fd, 0, SEEK_CUR) == status.st_size &&
        ::ftruncate(fd, status.st_size - written) == 0) {
        ::lseek(fd, -written, SEEK_CUR); // standard output is written to again
    }
    return false;
}

// Opens and closes the file for each line, so that the log can be rotated or removed while the daemon runs.
// One write with O_APPEND for each line keeps lines of two threads whole (write(2)). O_NONBLOCK: where the
// log is a pipe that nobody reads, the line is lost, but the daemon does not hang. O_NOCTTY: where it is a
// terminal, that must not become the daemon's.
bool appendToTextLog(const CLine& line) {
    const CFileDescriptor file(
        ::open(textLogPath(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666));
    return file && writeWhole(file.get(), line);
}

// Whether the line goes where fields are kept. Not the first one: nothing is registered yet.
bool hasFields() {
    return OvuDiagSetFields != nullptr && m_nOvuDiagHandler != 0 && !bQelServerDebugFlag;
}

// The fields of a line for as long as it is logged.
class CDiagFields {
public:
    explicit CDiagFields(const SLineFields& fields) {
        add("QEL_COMPONENT", fields.m_sComponent);
        add("QEL_CODE", fields.m_oCode, m_szCode);
        add("QEL_DATA", fields.m_oData, m_szData);
        add("QEL_REASON", fields.m_sReason);
        OvuDiagSetFields(m_aFields, m_nFields);
    }
    CDiagFields(const CDiagFields&) = delete;
    CDiagFields& operator=(const CDiagFields&) = delete;
    ~CDiagFields() { OvuDiagSetFields(nullptr, 0); }

private:
    using CNumber = char[16];

    void add(const char* name, std::string_view value) {
        if (!value.empty()) {
            m_aFields[m_nFields++] = {name, value.data(), value.size()};
        }
    }
    void add(const char* name, std::optional<uint32_t> number, CNumber& room) {
        if (number) {
            const char* end = std::to_chars(room, room + sizeof room, *number).ptr;
            add(name, {room, static_cast<size_t>(end - room)});
        }
    }

    CNumber m_szCode;
    CNumber m_szData;
    OvuDiagField m_aFields[4];
    size_t m_nFields = 0;
};

} // namespace

// Until a registration succeeds, it is tried again for each line: so the daemon finds a journal that starts
// after it. Two threads may register at once; the same module gets the same handle. Once registered, a line
// that the service does not take is lost: the text log takes over only where there never was a service.
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

int logEntry(uint16_t severity, uint32_t event, const char* text, const SLineFields& fields) {
    if (!hasFields()) {
        return logEntry(severity, event, text);
    }
    const CDiagFields told(fields);
    return logEntry(severity, event, text);
}

// When debugging, whoever watches through a pipe sees each line at once, and the last line before a crash is
// not lost. What was printed before comes first, hence the flush.
int logLine(const char* text) {
    const CLine line(text);
    if (!bQelServerDebugFlag) {
        return appendToTextLog(line) ? 1 : 0;
    }
    std::fflush(stdout);
    return writeWhole(STDOUT_FILENO, line) ? 1 : 0;
}

// Formats into the stack first, which nearly every line fits into. vsnprintf(3) returns the length that the
// text would have had, so a longer one is formatted once more, into just enough memory. The arguments need a
// fresh va_start() for that, since the first pass has used them up.
int logEvent(ESeverity severity, uint32_t event, const char* format, ...) {
    char text[512];
    va_list arguments;
    SLineFields fields;
    if (hasFields()) {
        va_start(arguments, format);
        fields = fieldsOf(event, format, arguments);
        va_end(arguments);
    }
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length < static_cast<int>(sizeof text)) {
        return logEntry(severity, event, text, fields);
    }
    const size_t size = static_cast<size_t>(length) + 1;
    const std::unique_ptr<char[]> longText(new (std::nothrow) char[size]);
    if (longText == nullptr) {
        return logEntry(severity, event, text, fields); // its beginning is better than nothing
    }
    va_start(arguments, format);
    std::vsnprintf(longText.get(), size, format, arguments);
    va_end(arguments);
    return logEntry(severity, event, longText.get(), fields);
}
