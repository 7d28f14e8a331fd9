#include "CNarrator.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <limits>
#include <unistd.h>

namespace {

constexpr int64_t nBurstPause = 700;  // milliseconds without another one end a burst
constexpr int64_t nAnswerPause = 800; // milliseconds after which a notification counts as unanswered
constexpr int64_t nPrintPause = 1000; // milliseconds that a line waits, longer than either of these
constexpr int64_t nSilence = 8000;    // milliseconds after which a line says what is waited for
constexpr size_t nMaxFeatures = 10;   // named of one burst

enum ESpeaker { spDaemon, spComponent };
enum EManner { mnLine, mnGood, mnBad, mnBurst };

struct SRow {
    EEvent m_eKind;
    ESpeaker m_eSpeaker;
    EManner m_eManner;
    const char* m_szText; // of a burst: what stands before the features
};

constexpr SRow aRows[] = {
    {evListTaken, spDaemon, mnLine, "has taken in a list of {code} features"},
    {evHeld, spDaemon, mnGood, "does not send {pair} to {who}, which holds it already"},
    {evReplyFailed, spDaemon, mnBad, "notes that {who} refused {code}"},
    {evOverdue, spDaemon, mnBad, "has waited more than 10 s for {who} to answer about {code}: tells it so"},
    {evGivenUp, spDaemon, mnBad, "gives up: {who} did not answer three sends of {pair}"},
    {evSettled, spDaemon, mnBurst, "has no answer outstanding; active:"},
    {evRemoved, spDaemon, mnGood, "forgets {pair}: all have given it up"},
    {evDaemonStopped, spDaemon, mnLine, "got the stop event and ends"},
    {cpAnnounced, spComponent, mnLine, "announces itself, holding {text}"},
    {cpMonitoring, spComponent, mnLine, "starts monitoring: changes now come by themselves"},
    {cpFetched, spComponent, mnBurst, "fetches"},
    {cpNotified, spComponent, mnBurst, "is told to take up, and answers ok:"},
    {cpModified, spComponent, mnGood, "is told to change {code} from {data} to {new}, and answers ok"},
    {cpDisabled, spComponent, mnGood, "is told to give up {pair}, and answers ok"},
    {cpOverdue, spComponent, mnBad, "hears that its answer about {code} is overdue"},
    {cpRefused, spComponent, mnBad, "is told to take up {pair}, and refuses: {text}"},
    {cpShutdown, spComponent, mnLine, "says good-bye"},
    {cpTaken, spComponent, mnBurst, "takes up"},
    {cpChanged, spComponent, mnGood, "changes {code} from {data} to {new}"},
    {cpDropped, spComponent, mnGood, "gives up {pair}"},
};

std::string fill(const char* text, const SEvent& event) {
    return fmt::format(fmt::runtime(text), fmt::arg("who", event.m_sWho), fmt::arg("code", event.m_nCode),
                       fmt::arg("data", event.m_nData), fmt::arg("new", event.m_nNewData),
                       fmt::arg("pair", pairText(event.m_nCode, event.m_nData)),
                       fmt::arg("text", event.m_sText));
}

std::string listFeatures(const std::vector<std::string>& features) {
    const size_t named = std::min(features.size(), nMaxFeatures);
    std::string text =
        fmt::format("{}", fmt::join(features.begin(), features.begin() + static_cast<ptrdiff_t>(named), " "));
    return named < features.size() ? fmt::format("{} and {} more", text, features.size() - named) : text;
}

} // namespace

std::string pairText(uint32_t code, uint32_t data) {
    return fmt::format("{}:{}", code, data);
}

CNarrator::CNarrator() : m_bColour(isatty(STDOUT_FILENO) && std::getenv("NO_COLOR") == nullptr) {}

void CNarrator::chapter(const std::string& title) {
    printAll();
    fmt::print("\n{}\n", paint("1", "== " + title));
}

void CNarrator::plain(const std::string& text) {
    printAll();
    fmt::print("{}\n", text);
}

void CNarrator::tell(int64_t time, const std::string& who, const std::string& what) {
    const std::string stamp = fmt::format("{:6.1f} s", static_cast<double>(time) / 1000);
    m_oLines.emplace(time, fmt::format("{}  {:<10} {}", paint("2", stamp), who, what));
}

void CNarrator::listen(const SEvent& event) {
    listenToSend(event);
    switch (event.m_eKind) {
    case cpNotified:
    case cpModified:
    case cpDisabled: // told when the answer comes, or does not come
        m_oUnanswered[event.m_sWho] = event;
        return;
    case cpAccepted:
        m_oUnanswered.erase(event.m_sWho);
        return tellRow(event, event.m_eAsked);
    case cpRefused:
        m_oUnanswered.erase(event.m_sWho);
        return tellRow(event, cpRefused);
    default:
        return tellRow(event, event.m_eKind);
    }
}

// A send that follows another one without an answer between them is worth a line.
void CNarrator::listenToSend(const SEvent& event) {
    const std::pair<std::string, uint32_t> key(event.m_sWho, event.m_nCode);
    if (event.m_eKind == evReplyOk || event.m_eKind == evReplyFailed || event.m_eKind == evGivenUp) {
        m_oSends.erase(key);
    } else if (event.m_eKind == evNotified) {
        m_oSends[key].m_bWaiting = true;
    } else if (event.m_eKind == evCounted) {
        SSends& sends = m_oSends[key];
        ++sends.m_nCounted;
        if (sends.m_bWaiting) {
            tell(event.m_nTime, "daemon",
                 bad(fill("sends {pair} to {who} again", event)) +
                     fmt::format(" ({} of 3)", sends.m_nCounted));
        }
    }
}

void CNarrator::tellRow(const SEvent& event, EEvent kind) {
    const auto* const row = std::ranges::find(aRows, kind, &SRow::m_eKind);
    if (row == std::end(aRows)) {
        return;
    }
    const std::string who = row->m_eSpeaker == spDaemon ? "daemon" : event.m_sWho;
    const std::string text = fill(row->m_szText, event);
    switch (row->m_eManner) {
    case mnLine:
        return tell(event.m_nTime, who, text);
    case mnGood:
        return tell(event.m_nTime, who, good(text));
    case mnBad:
        return tell(event.m_nTime, who, bad(text));
    case mnBurst:
        return gather(event, who, text);
    }
}

void CNarrator::gather(const SEvent& event, const std::string& who, const std::string& what) {
    const std::string feature = pairText(event.m_nCode, event.m_nData);
    if (m_oSingles.contains(event.m_nCode)) {
        return tell(event.m_nTime, who, good(what + " " + feature));
    }
    SBurst& burst = m_oBursts[{who, what}];
    burst.m_nLast = event.m_nTime;
    burst.m_vFeatures.push_back(feature);
}

void CNarrator::tick(int64_t now, const std::string& awaited) {
    endBursts(now - nBurstPause);
    tellUnanswered(now - nAnswerPause);
    print(now - nPrintPause);
    if (now - m_nSaid >= nSilence && m_oLines.empty()) {
        tell(now, "...", paint("2", "waiting for " + awaited));
        print(now + 1);
    }
}

void CNarrator::tellUnanswered(int64_t before) {
    std::erase_if(m_oUnanswered, [&](const auto& entry) {
        const auto& [who, event] = entry;
        const bool isSilent = event.m_nTime < before;
        if (isSilent) {
            tell(event.m_nTime, who, bad(fill("is told to take up {pair}, and says nothing", event)));
        }
        return isSilent;
    });
}

void CNarrator::print(int64_t before) {
    const auto end = m_oLines.lower_bound(before);
    for (auto it = m_oLines.begin(); it != end; ++it) {
        fmt::print("{}\n", it->second);
        m_nSaid = std::max(m_nSaid, it->first);
    }
    m_oLines.erase(m_oLines.begin(), end);
}

void CNarrator::printAll() {
    constexpr int64_t nEver = std::numeric_limits<int64_t>::max();
    endBursts(nEver);
    print(nEver);
}

void CNarrator::endBursts(int64_t before) {
    for (auto it = m_oBursts.begin(); it != m_oBursts.end();) {
        const auto& [key, burst] = *it;
        if (burst.m_nLast >= before) {
            ++it;
            continue;
        }
        const size_t count = burst.m_vFeatures.size();
        tell(burst.m_nLast, key.first,
             fmt::format("{} {} ({} {})", key.second, listFeatures(burst.m_vFeatures), count,
                         count == 1 ? "feature" : "features"));
        it = m_oBursts.erase(it);
    }
}

std::string CNarrator::paint(const char* code, const std::string& text) const {
    return m_bColour ? fmt::format("\033[{}m{}\033[0m", code, text) : text;
}
