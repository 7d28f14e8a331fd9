#include "ctl/terminal.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr char sEraseLine[] = "\r\033[K";

const char* szProgram = "qelctl";

std::string_view environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

// Whether escape sequences have a meaning where the stream goes.
bool isCapable(FILE* stream) {
    const std::string_view terminal = environment("TERM");
    return isatty(fileno(stream)) && !terminal.empty() && terminal != "dumb" && terminal != "unknown";
}

// Every byte but those that continue a character.
bool beginsCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
}

} // namespace

std::string paint(std::string_view text, EColour colour, FILE* stream) {
    // By EColour: the parameters of "select graphic rendition" (ECMA-48), a terminal's standard palette.
    static const char* const aCodes[] = {"", "31", "32", "33", "2"};
    // Asked for each stream: stderr may be a terminal while stdout is a pipe.
    if (colour == EColour::none || !isCapable(stream) || !environment("NO_COLOR").empty()) {
        return std::string(text);
    }
    return fmt::format("\033[{}m{}\033[0m", aCodes[static_cast<int>(colour)], text);
}

// Bytes above 0x7F are left alone, so UTF-8 survives.
std::string printable(std::string_view text) {
    std::string clean(text);
    for (char& c : clean) {
        if (static_cast<unsigned char>(c) < ' ' || c == 0x7F) {
            c = '?';
        }
    }
    return clean;
}

std::string counted(uint64_t count, std::string_view noun) {
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

size_t lineWidth(FILE* stream) {
    const std::string columns(environment("COLUMNS"));
    if (const int width = std::atoi(columns.c_str()); width > 0) {
        return static_cast<size_t>(width);
    }
    winsize size = {};
    return isatty(fileno(stream)) && ioctl(fileno(stream), TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

size_t columnsOf(std::string_view text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), beginsCharacter));
}

std::string cut(std::string_view text, size_t columns) {
    static constexpr std::string_view sCut = "...";
    if (columns == 0 || columnsOf(text) <= columns) {
        return std::string(text);
    }
    const std::string_view mark = sCut.substr(0, std::min(sCut.size(), columns));
    size_t end = 0;
    for (size_t left = columns - mark.size() + 1; end < text.size(); ++end) {
        if (beginsCharacter(text[end]) && --left == 0) {
            break;
        }
    }
    return std::string(text.substr(0, end)).append(mark);
}

CProgressLine::CProgressLine(bool isWanted) : m_bWanted(isWanted && isCapable(stderr)) {}

// What was printed on standard output before comes out before.
void CProgressLine::show(std::string_view text) {
    if (m_bWanted) {
        std::fflush(stdout);
        const size_t width = lineWidth(stderr);
        fmt::print(stderr, "{}{}", sEraseLine, cut(text, width == 0 ? 0 : width - 1));
        std::fflush(stderr);
        m_bShown = true;
    }
}

void CProgressLine::clear() noexcept {
    if (std::exchange(m_bShown, false)) {
        std::fflush(stdout);
        std::fputs(sEraseLine, stderr);
        std::fflush(stderr);
    }
}

std::string timeOfDay(int64_t seconds, int64_t microseconds) {
    const std::string time = fmt::format("{:%H:%M:%S}", fmt::localtime(static_cast<time_t>(seconds)));
    return microseconds < 0 ? time : fmt::format("{}.{:03}", time, microseconds / 1000);
}

bool flushOutput() {
    if (std::fflush(stdout) == 0 && !std::ferror(stdout)) {
        return true;
    }
    complain("standard output cannot be written");
    return false;
}

void setProgram(const char* name) {
    szProgram = name;
}

void complain(std::string_view text) {
    const std::string line = fmt::format("{}: {}\n", szProgram, text);
    std::fwrite(line.data(), 1, line.size(), stderr); // fmt::print would throw where that cannot be written
}

void setProcessName(const std::string& name) {
    // The command line goes before the environment, and the environment before the name made here. The
    // process id makes that one unique.
    if (!name.empty()) {
        setenv("QEL_PROCESS_NAME", name.c_str(), 1);
    } else {
        setenv("QEL_PROCESS_NAME", fmt::format("{}.{}", szProgram, getpid()).c_str(), 0);
    }
}
