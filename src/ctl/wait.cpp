// qelctl wait
#include "ctl/CDaemonView.h"
#include "ctl/commands.h"
#include "ctl/json.h"
#include "ctl/pairs.h"
#include "ctl/terminal.h"

#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <optional>
#include <thread>
#include <tuple>

namespace {

using CClock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds tPoll{250};
// Between readings of the tables while no transition tells that something has changed: components come and die
// without one.
constexpr std::chrono::seconds tReread{2};

class CWait {
public:
    explicit CWait(const SWaitOptions& options)
        : m_oOptions(options), m_oQuery(answerTime(options)),
          m_oProgress(!options.m_bQuiet && !options.m_bJson) {}

    int run();

private:
    EAsked look();
    bool isDue(const SSummaryView& summary) const;
    bool isTransient(EAsked asked) const;
    std::string findMissing();
    std::string progress() const { return m_oCounts.text() + missing(); }
    std::string missing() const;
    std::optional<EExitStatus> judge() const;
    int tell(EAsked asked, double seconds) const;
    void print(EExitStatus status, double seconds) const;

    const SWaitOptions& m_oOptions;
    CStatusQuery m_oQuery;
    CDaemonView m_oView;
    CProgressLine m_oProgress;
    SSelection m_oSelection;
    SPairCounts m_oCounts;
    std::string m_sMissing; // what was asked for and is not there
    std::optional<CClock::time_point> m_tRead;
    std::optional<EExitStatus> m_oDone; // what it has come to
};

int CWait::run() {
    const auto start = CClock::now();
    const auto end = start + std::chrono::duration_cast<CClock::duration>(
                                 std::chrono::duration<double>(m_oOptions.m_nSeconds));
    EAsked asked = look();
    while (!m_oDone && isTransient(asked) && CClock::now() < end) {
        m_oProgress.show(progress());
        std::this_thread::sleep_for(std::min<CClock::duration>(tPoll, end - CClock::now()));
        asked = look();
    }
    m_oProgress.clear();
    return tell(asked, std::chrono::duration<double>(CClock::now() - start).count());
}

// Without a daemon at the beginning there is nothing to wait for; one that is restarted meanwhile comes back.
bool CWait::isTransient(EAsked asked) const {
    const bool isSilent = asked == EAsked::noDaemon || asked == EAsked::noAnswer;
    return asked == EAsked::answered || asked == EAsked::changing || (m_tRead && isSilent);
}

// Asks for the summary, and for the tables only if they may have changed.
EAsked CWait::look() {
    SSummaryView summary;
    EAsked asked = readSummary(m_oQuery, summary);
    if (asked != EAsked::answered || !isDue(summary)) {
        return asked;
    }
    asked = m_oView.read(m_oQuery);
    if (asked == EAsked::answered) {
        m_sMissing = findMissing();
        asked = m_sMissing.empty() ? m_oView.readPairs(m_oQuery, m_oSelection, CDaemonView::EExtent::open)
                                   : asked;
    }
    if (asked == EAsked::answered) {
        m_tRead = CClock::now();
        m_oCounts = countPairs(m_oView.m_vPairs);
        m_oDone = judge();
    }
    return asked;
}

bool CWait::isDue(const SSummaryView& summary) const {
    return !m_tRead || CClock::now() - *m_tRead >= tReread || m_oView.isOutdated(summary);
}

// What is not there may come yet: a list that is being read, a component that starts.
std::string CWait::findMissing() {
    const auto& [first, second] = std::tie(m_oOptions.m_sFirst, m_oOptions.m_sSecond);
    m_oSelection = {first, second};
    std::string nearest;
    if (!first.empty() && second.empty()) {
        m_oSelection = {};
        if (!m_oView.select(first, m_oSelection, nearest)) {
            return first;
        }
    }
    if (!m_oSelection.m_sFeature.empty() && !m_oView.hasFeature(m_oSelection)) {
        return m_oSelection.m_sFeature;
    }
    const std::string& component = m_oSelection.m_sComponent;
    return component.empty() || m_oView.component(component) ? "" : component;
}

// Who was named has to have it; of all others, those that are dead are not waited for. A feature
// that nobody has is not delivered.
std::optional<EExitStatus> CWait::judge() const {
    const bool isNamed = !m_oSelection.m_sComponent.empty();
    if (!m_sMissing.empty() || m_oCounts.m_nUnderWay != 0 || (isNamed && m_oCounts.m_nIdle != 0)) {
        return std::nullopt;
    }
    if (!m_oOptions.m_bDelivered) {
        return exitOk;
    }
    if (m_oCounts.m_nFailed != 0) {
        return exitRefused;
    }
    const bool isEmpty = !m_oSelection.m_sFeature.empty() && m_oCounts.m_nDelivered == 0;
    return isEmpty ? std::nullopt : std::optional(exitOk);
}

int CWait::tell(EAsked asked, double seconds) const {
    if (!m_oDone && asked != EAsked::answered && asked != EAsked::changing) {
        return reportAsked(asked);
    }
    const bool isRefused = m_oOptions.m_bDelivered && m_oCounts.m_nFailed != 0;
    const EExitStatus status = m_oDone ? *m_oDone : isRefused ? exitRefused : exitNotYet;
    if (!m_oOptions.m_bQuiet) {
        print(status, seconds);
    }
    return flushOutput() ? status : exitFailed;
}

// Of two arguments the first is the feature.
std::string CWait::missing() const {
    const char* kind = m_oOptions.m_sSecond.empty()         ? ""
                       : m_sMissing == m_oOptions.m_sSecond ? "component "
                                                            : "feature ";
    return m_sMissing.empty() ? "" : fmt::format("; there is no {}'{}'", kind, printable(m_sMissing));
}

void CWait::print(EExitStatus status, double seconds) const {
    const char* until = m_oOptions.m_bDelivered ? "delivered" : "settled";
    if (!m_oOptions.m_bJson) {
        fmt::print("{} after {:.1f} s: {}{}\n", m_oDone == exitOk ? until : fmt::format("not {}", until),
                   seconds, m_oCounts.text(), missing());
        return;
    }
    CJson document = jsonDocument("wait");
    document["until"] = until;
    document["reached"] = status == exitOk;
    document["seconds"] = seconds;
    document["missing"] = m_sMissing.empty() ? CJson() : CJson(m_sMissing);
    document["counts"] = toJson(m_oCounts);
    printJson(document);
}

} // namespace

int runWait(const SWaitOptions& options) {
    setProcessName("");
    return CWait(options).run();
}
