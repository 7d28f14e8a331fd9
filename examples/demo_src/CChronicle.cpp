#include "CChronicle.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <fstream>
#include <iterator>
#include <limits>
#include <regex>
#include <unistd.h>

namespace {

constexpr int64_t nPause = 1000;       // milliseconds that a line waits
constexpr int64_t nSilence = 8000;     // milliseconds after which a line says what is awaited
constexpr ptrdiff_t nMaxFeatures = 10; // named of one burst
constexpr char sSingle[] = "134";      // the feature that comes: no part of a burst
constexpr char sFeature[] = "$1:$2";   // in what is told of a burst, this gives way to all its features
constexpr const char* aColours[] = {"", "", "1", "2", "32", "31", "31", ""}; // by EManner

// For the beginning of a line; a blank stands for any number of them, # for a group with a number.
std::regex compile(const std::string& pattern) {
    static const std::regex blank(" ");
    static const std::regex number("#");
    return std::regex(std::regex_replace(std::regex_replace(pattern, blank, " +"), number, "(\\d+)"));
}

bool isAtFront(const std::regex& pattern, const std::string& text, std::smatch& groups) {
    return std::regex_search(text, groups, pattern, std::regex_constants::match_continuous);
}

struct SRow {
    SRow(const char* pattern, EManner manner, const char* telling)
        : m_oPattern(compile(pattern)), m_eManner(manner), m_sTelling(telling) {}

    std::regex m_oPattern; // how a line begins
    EManner m_eManner;
    std::string m_sTelling; // with $1, $2 and so on for the pattern's groups
};

// What is told of a line: the first row that fits.
const SRow aRows[] = {
    {"daemon: feature list .*: # features, handed over", mnPlain, "has taken in a list of $1 features"},
    {R"(daemon: already has feature \(\d+, #, #\) at comp (\w+))", mnGood,
     "does not send $1:$2 to $3, which holds it already"},
    {R"(daemon: \w+ feature \(#, #\) at comp (\w+) again (.*))", mnBad, "sends $1:$2 to $3 again $4"},
    {R"(daemon: feature \(#\): got reply (?!ok).* comp \((\w+)\))", mnBad, "notes that $2 refused $1"},
    {R"(daemon: timeout feature # for comp (\w+))", mnBad,
     "has waited more than 10 s for $2 to answer about $1: tells it so"},
    {R"(daemon: feature: (?:failed|disable|modify) comp (\w+) \d+ at feature # #)", mnBad,
     "gives up: $1 did not answer three sends of $2:$3"},
    {"daemon: .* to active feature # #", mnBurst, "has no answer outstanding; active: $1:$2"},
    {"daemon: remove deleted feature # #", mnGood, "forgets $1:$2: all have given it up"},
    {"daemon: main thread exited", mnPlain, "got the stop event and ends"},
    {R"(\w+: -> announce .* holding (.*))", mnPlain, "announces itself, holding $1"},
    {R"(\w+: -> monitor)", mnPlain, "starts monitoring: changes now come by themselves"},
    {R"(\w+: -> fetch .*<- answer code (?!0 data 0$)# data #)", mnBurst, "fetches $1:$2"},
    {R"(\w+: <- \w+ code # data #.* -> reply failed \(\d+\) (.*))", mnBad,
     "is told to take up $1:$2, and refuses: $3"},
    {R"(\w+: <- notify code # data # -> reply ok)", mnBurst, "is told to take up $1:$2, and answers ok"},
    {R"(\w+: <- modify code # data # new data # -> reply ok)", mnGood,
     "is told to change $1 from $2 to $3, and answers ok"},
    {R"(\w+: <- disable code # data # -> reply ok)", mnGood, "is told to give up $1:$2, and answers ok"},
    {R"(\w+: <- overdue code #)", mnBad, "hears that its answer about $1 is overdue"},
    {R"(\w+: <- (?!answer)\w+ code # data #)", mnSilent, "is told to take up $1:$2, and says nothing"},
    {R"(\w+: -> shutdown)", mnPlain, "says good-bye"},
    {R"(\w+: enable # with #)", mnBurst, "takes up $1:$2"},
    {R"(\w+: .*: \d+: (exec: .*))", mnBad, "$1"}, // cannot be executed
    {R"(\w+: (starts as .*))", mnPlain, "$1"},
    {R"((?:daemon|[A-Z]\w+): (ended, status 0))", mnPlain, "$1"},
    {R"((?:daemon|stop|[A-Z]\w+): (ended(?!, status 0).*))", mnBad, "$1"},
    {"(?:before|after|wait|status|why|watch|apply|undo):(.*)", mnPlain, "$1"},
    {R"(\.\.\.: (.*))", mnBad, "$1"},
};

std::string listFeatures(const std::vector<std::string>& features) {
    const auto count = std::ssize(features);
    const auto named = std::min(count, nMaxFeatures);
    return fmt::format("{}{} ({} {})", fmt::join(features.begin(), features.begin() + named, " "),
                       named < count ? fmt::format(" and {} more", count - named) : "", count,
                       count == 1 ? "feature" : "features");
}

// Answers of the daemon's only acknowledge, unless they are to a fetch.
bool answers(const std::string& what, const std::string& before) {
    return (what.starts_with("-> reply") && before.find(": <- ") != std::string::npos) ||
           (what.starts_with("<- answer") && before.find(": -> fetch") != std::string::npos);
}

// A component's line without the feature's display name, which stands behind its data.
std::string withoutName(const std::string& who, const std::string& what) {
    static const std::regex name(R"((data \d+) "[^"]*")");
    return who == sDaemon ? what : std::regex_replace(what, name, "$1");
}

} // namespace

CChronicle::CChronicle() : m_bColour(isatty(STDOUT_FILENO) && std::getenv("NO_COLOR") == nullptr) {}

void CChronicle::hear(int64_t time, const std::string& who, const std::string& what) {
    SLine line{time, who, who + ": " + withoutName(who, what)};
    const auto before = std::find_if(m_oLines.rbegin(), m_oLines.rend(),
                                     [&who](const SLine& earlier) { return earlier.m_sWho == who; });
    if (before != m_oLines.rend() && answers(what, before->m_sText)) {
        line.m_sText = before->m_sText + " " + withoutName(who, what);
        m_oLines.erase(std::prev(before.base()));
    }
    const auto place = std::find_if(m_oLines.rbegin(), m_oLines.rend(),
                                    [time](const SLine& earlier) { return earlier.m_nTime <= time; });
    const CPlace heard = m_oLines.insert(place.base(), std::move(line));
    if (who == sDaemon) {
        matchAnswer(heard);
    }
    std::smatch groups;
    const auto* const row = std::ranges::find_if(aRows, [&](const SRow& candidate) {
        return isAtFront(candidate.m_oPattern, heard->m_sText, groups);
    });
    if (row != std::end(aRows)) {
        heard->m_eManner = row->m_eManner == mnBurst && groups.str(1) == sSingle ? mnGood : row->m_eManner;
        heard->m_sTelling = heard->m_eManner == mnBurst ? row->m_sTelling : groups.format(row->m_sTelling);
        heard->m_vFeatures = {groups.format(sFeature)};
        m_nLast = std::max(m_nLast, time); // what qelctl watch tells is older
    }
}

void CChronicle::matchAnswer(CPlace line) {
    static const std::regex delivery(R"(daemon: (?=.*comp \(?(\w+))(?=.*?\((\d+)))"
                                     R"((?:(notifying|audit|modifying|disabling) |.*got reply ))");
    std::smatch groups; // component, code, and a word if it is a send
    if (!isAtFront(delivery, line->m_sText, groups)) {
        return;
    }
    std::vector<CPlace>& sends = m_oOpen[groups.str(1) + groups.str(2)];
    if (groups[3].matched) {
        line->m_sText += sends.empty() ? "" : fmt::format(" again ({} of 3)", sends.size());
        sends.push_back(line);
    } else if (!sends.empty()) {
        sends.front()->m_sText += " answered";
        sends.clear();
    }
}

int CChronicle::count(const std::string& pattern) const {
    const std::regex expression = compile("(?:" + pattern + R"()(?!\d))"); // no number goes on at its end
    std::smatch groups;
    return static_cast<int>(std::ranges::count_if(
        m_oLines, [&](const SLine& line) { return isAtFront(expression, line.m_sText, groups); }));
}

std::string CChronicle::keep(const std::string& path) const {
    std::ofstream file(path);
    for (const SLine& line : m_oLines) {
        file << fmt::format("{:8.3f} s  {}\n", static_cast<double>(line.m_nTime) / 1000, line.m_sText);
    }
    return path;
}

void CChronicle::tell(int64_t now, const std::string& awaited) {
    m_nNow = now;
    tellUntil(now - nPause);
    if (now - m_nLast >= nSilence) {
        print(now, "...", paint(mnFaint, "waiting for " + awaited));
        m_nLast = now;
    }
}

void CChronicle::chapter(const std::string& title) {
    plain("\n" + paint(mnTitle, "== " + title));
}

void CChronicle::plain(const std::string& text) {
    tellUntil(std::numeric_limits<int64_t>::max());
    fmt::print("{}\n", text);
}

void CChronicle::tellUntil(int64_t before) {
    for (auto line = m_oLines.begin(); line != m_oLines.end(); ++line) {
        const bool waits = line->m_eManner == mnSilent; // for an answer, even at the end of a chapter
        if (line->m_bTold || line->m_nTime >= (waits ? m_nNow - nPause : before)) {
            continue;
        }
        line->m_bTold = true;
        const auto more = std::find_if(std::next(line), m_oLines.end(), [&line](const SLine& later) {
            return later.m_eManner == mnBurst && !later.m_bTold && later.m_sWho == line->m_sWho &&
                   later.m_sTelling == line->m_sTelling;
        });
        std::vector<std::string>& features = line->m_vFeatures;
        if (more != m_oLines.end()) {
            more->m_vFeatures.insert(more->m_vFeatures.begin(), features.begin(), features.end());
        } else if (line->m_eManner != mnUntold) {
            std::string telling = line->m_sTelling;
            if (line->m_eManner == mnBurst) {
                telling.replace(telling.find(sFeature), sizeof sFeature - 1, listFeatures(features));
            }
            print(line->m_nTime, line->m_sWho, paint(line->m_eManner, telling));
        }
    }
}

void CChronicle::print(int64_t time, const std::string& who, const std::string& what) const {
    const std::string stamp = fmt::format("{:6.1f} s", static_cast<double>(time) / 1000);
    fmt::print("{}  {:<10} {}\n", paint(mnFaint, stamp), who, what);
}

std::string CChronicle::paint(EManner manner, const std::string& text) const {
    const char* colour = aColours[manner];
    return m_bColour && *colour != '\0' ? fmt::format("\033[{}m{}\033[0m", colour, text) : text;
}
