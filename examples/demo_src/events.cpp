#include "events.h"

#include <cctype>
#include <charconv>
#include <cstdio>

namespace {

// %c code, %d data, %n new data, %w the component's name, %t the rest of the line, %* a number of no
// interest. All else stands for itself; the line may go on after the pattern's end.
struct SRow {
    const char* m_szPattern;
    EEvent m_eKind;
};

constexpr SRow aDaemonRows[] = {
    {"feature list %w: %c features, handed over", evListTaken},
    {"replied feature (%c, %d) at comp %w", evFetched},
    {"moded feature (%c, %d) at comp %w", evFetched},
    {"notifying feature (%c, %d) at comp %w", evNotified},
    {"audit feature (%c, %d) at comp %w", evNotified},
    {"audit comp %w not in feature list with (%c, %d)", evNotified},
    {"modifying feature (%c, %d %n) at comp %w", evModified},
    {"disabling feature (%c, %d) at comp %w", evDisabled},
    {"already has feature (%*, %c, %d) at comp %w", evHeld},
    {"feature: check comp %w %* at feature %c %d", evCounted},
    {"feature (%c): got reply ok from comp (%w)", evReplyOk},
    {"feature (%c): got reply ok disabled comp (%w)", evReplyOk},
    {"feature (%c): got reply ok moded comp (%w)", evReplyOk},
    {"feature (%c): got reply failed from comp (%w)", evReplyFailed},
    {"feature (%c): got reply error from comp (%w)", evReplyFailed},
    {"feature (%c): got reply moderr from comp (%w)", evReplyFailed},
    {"timeout feature %c for comp %w at state", evOverdue},
    {"feature: failed comp %w %* at feature %c %d", evGivenUp},
    {"feature: disable comp %w %* at feature %c %d", evGivenUp},
    {"feature: modify comp %w %* at feature %c %d", evGivenUp},
    {"newadd or existing to active feature %c %d", evSettled},
    {"modify to active feature %c %d", evSettled},
    {"remove deleted feature %c %d", evRemoved},
    {"main thread exited", evDaemonStopped},
};

constexpr SRow aComponentRows[] = {
    {"-> announce as %w pid %* holding %t", cpAnnounced},
    {"-> monitor  as %w", cpMonitoring},
    {"<- answer   code 0 data 0", evOther},
    {"<- notify   code %c data %d", cpNotified},
    {"<- modify   code %c data %d new data %n", cpModified},
    {"<- disable  code %c data %d", cpDisabled},
    {"<- overdue  code %c data %d", cpOverdue},
    {"-> reply    ok", cpAccepted},
    {"-> reply    failed (%*) %t", cpRefused},
    {"-> shutdown %t", cpShutdown},
    {"enable  %c with %d", cpTaken},
    {"modify  %c from %d to %n", cpChanged},
    {"disable %c with %d", cpDropped},
};

bool takeNumber(std::string_view& line, uint32_t& number) {
    auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
    if (error != std::errc()) {
        return false;
    }
    line.remove_prefix(static_cast<size_t>(end - line.data()));
    return true;
}

// Up to `stop`, which stays; 0: all that is left.
std::string takeWord(std::string_view& line, char stop) {
    size_t length = stop != '\0' ? line.find(stop) : line.size();
    std::string word(line.substr(0, length));
    line.remove_prefix(word.size());
    return word;
}

bool takeField(char field, char next, std::string_view& line, SEvent& event) {
    uint32_t ignored = 0;
    switch (field) {
    case 'c':
        return takeNumber(line, event.m_nCode);
    case 'd':
        return takeNumber(line, event.m_nData);
    case 'n':
        return takeNumber(line, event.m_nNewData);
    case 'w':
        event.m_sWho = takeWord(line, next);
        return true;
    case 't':
        event.m_sText = takeWord(line, '\0');
        return true;
    default:
        return takeNumber(line, ignored);
    }
}

bool matches(const char* pattern, std::string_view line, SEvent& event) {
    for (; *pattern != '\0'; ++pattern) {
        if (*pattern == '%') {
            ++pattern;
            if (!takeField(*pattern, pattern[1], line, event)) {
                return false;
            }
        } else if (line.empty() || line.front() != *pattern) {
            return false;
        } else {
            line.remove_prefix(1);
        }
    }
    return true;
}

template <size_t N>
SEvent parseLine(const SRow (&rows)[N], std::string_view line) {
    for (const SRow& row : rows) {
        SEvent event;
        event.m_eKind = row.m_eKind;
        if (matches(row.m_szPattern, line, event)) {
            return event;
        }
    }
    return {};
}

bool isAnswer(EEvent kind) {
    return kind == cpAccepted || kind == cpRefused;
}

bool isAsking(EEvent kind) {
    return kind == cpNotified || kind == cpModified || kind == cpDisabled;
}

} // namespace

SEvent parseDaemonLine(std::string_view line) {
    SEvent event = parseLine(aDaemonRows, line);
    if (event.m_eKind == evListTaken) {
        event.m_sWho.clear(); // there it is the file
    }
    return event;
}

// An answer of the daemon is a feature of the list while that is being fetched; later it only acknowledges.
SEvent CComponentParser::parse(std::string_view line) {
    SEvent event = parseLine(aComponentRows, line);
    SEvent page;
    if (m_bFetching && matches("<- answer   code %c data %d", line, page) &&
        page.m_nCode + page.m_nData != 0) {
        event = page;
        event.m_eKind = cpFetched;
    }
    if (line.substr(0, 2) == "->") {
        m_bFetching = line.substr(0, 8) == "-> fetch";
    }
    event.m_sWho = m_sName;
    if (isAsking(event.m_eKind)) {
        m_oAsked = event;
    } else if (isAnswer(event.m_eKind)) {
        event.m_nCode = m_oAsked.m_nCode;
        event.m_nData = m_oAsked.m_nData;
        event.m_nNewData = m_oAsked.m_nNewData;
        event.m_eAsked = m_oAsked.m_eKind;
    }
    return event;
}

std::optional<int64_t> takeTimeOfDay(std::string_view& line) {
    size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon < 2) {
        return std::nullopt;
    }
    std::string stamp(line.substr(colon - 2, 13));
    int hours = 0;
    int minutes = 0;
    int seconds = 0;
    int milliseconds = 0;
    int length = 0;
    if (std::sscanf(stamp.c_str(), "%2d:%2d:%2d.%3d%n", &hours, &minutes, &seconds, &milliseconds, &length) !=
        4) {
        return std::nullopt;
    }
    line.remove_prefix(colon - 2 + static_cast<size_t>(length));
    line.remove_prefix(line.substr(0, 1) == ":" ? 1 : 0);
    line.remove_prefix(line.substr(0, 1) == " " ? 1 : 0);
    return ((hours * 60 + minutes) * 60 + seconds) * int64_t{1000} + milliseconds;
}
