// qelctl watch
#include "ctl/CDaemonView.h"
#include "ctl/CTransitions.h"
#include "ctl/commands.h"
#include "ctl/json.h"
#include "ctl/pairs.h"
#include "ctl/terminal.h"

#include <atomic>
#include <charconv>
#include <chrono>
#include <csignal>
#include <fmt/format.h>
#include <thread>

namespace {

using CClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds tPoll{250};        // between questions, while nothing happens
constexpr std::chrono::seconds tNames{5}; // between readings of the features for the sake of their names

std::atomic<bool> bSignalled{false};

void cbSignal(int) {
    bSignalled = true;
}

// One run of the command. The daemon may go and come back under it.
class CWatch {
public:
    CWatch(const SWatchOptions& options)
        : m_oOptions(options), m_oQuery(answerTime(options)), m_oTransitions(0) {}

    int run();

private:
    int begin();
    EAsked follow();
    void onAnswer();
    void onSilence(EAsked asked);
    void onOther();
    void print(const STransitionView& transition);
    void printGap(uint64_t lost) const;
    void note(const char* event, const std::string& text) const;
    std::string_view nameOf(const STransitionView& transition);
    bool isOver() const { return bSignalled || CClock::now() >= m_tEnd; }

    const SWatchOptions& m_oOptions;
    CStatusQuery m_oQuery;
    CTransitions m_oTransitions;
    CDaemonView m_oView; // the names
    CClock::time_point m_tViewRead;
    SSelection m_oSelection;
    CClock::time_point m_tEnd = CClock::time_point::max();
    uint32_t m_nDaemon = nNoHandle; // whom the transitions are of
    bool m_bGone = false;
    bool m_bFailureSeen = false;
};

int CWatch::run() {
    if (m_oOptions.m_nSeconds > 0) {
        m_tEnd = CClock::now() + std::chrono::duration_cast<CClock::duration>(
                                     std::chrono::duration<double>(m_oOptions.m_nSeconds));
    }
    if (const int status = begin(); status != exitOk) {
        return status;
    }
    bSignalled = false;
    struct sigaction action = {};
    action.sa_handler = cbSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    if (const EAsked asked = follow(); asked != EAsked::answered) {
        return reportAsked(asked);
    }
    return !flushOutput() ? exitFailed : m_bFailureSeen ? exitRefused : exitOk;
}

int CWatch::begin() {
    if (const EAsked asked = m_oView.read(m_oQuery); asked != EAsked::answered) {
        return reportAsked(asked);
    }
    m_tViewRead = CClock::now();
    m_nDaemon = m_oQuery.handle();
    if (!m_oOptions.m_sArgument.empty() && !selectOrComplain(m_oView, m_oOptions.m_sArgument, m_oSelection)) {
        return exitFailed;
    }
    uint64_t after = number(m_oView.m_oSummary.m_aLastTransition);
    const std::string& since = m_oOptions.m_sSince;
    if (!since.empty()) {
        std::from_chars(since.data(), since.data() + since.size(), after);
    }
    m_oTransitions = CTransitions(after);
    return exitOk;
}

// Pages follow one another at once while there are more. A signal ends a pause early.
EAsked CWatch::follow() {
    while (!isOver()) {
        const EAsked asked = m_oTransitions.read(m_oQuery);
        if (asked == EAsked::answered) {
            onAnswer();
        } else if (asked == EAsked::noDaemon || asked == EAsked::noAnswer) {
            onSilence(asked);
        } else {
            return asked;
        }
        if (std::ferror(stdout)) {
            return EAsked::answered;
        }
        if (asked != EAsked::answered || !m_oTransitions.hasMore()) {
            std::this_thread::sleep_for(tPoll);
        }
    }
    return EAsked::answered;
}

// Where the numbers went back, the page is that of another daemon, which had the same handle.
void CWatch::onAnswer() {
    if (m_oTransitions.isRestarted()) {
        onOther();
    } else if (m_bGone) {
        note("back", "the daemon answers again");
    }
    m_bGone = false;
    if (m_oTransitions.lost() != 0) {
        printGap(m_oTransitions.lost());
    }
    for (const STransitionView& transition : m_oTransitions.page()) {
        const std::string_view name = nameOf(transition);
        const std::string_view component = fieldText(transition.m_szComponent);
        if (m_oSelection.wants(transition.m_nCode, transition.m_nData, name) &&
            (component.empty() || m_oSelection.wantsComponent(component))) {
            print(transition);
        }
    }
    std::fflush(stdout); // somebody may be watching through a pipe
}

void CWatch::onSilence(EAsked asked) {
    if (!m_bGone) {
        note("gone", asked == EAsked::noDaemon ? "the daemon is gone" : "the daemon does not answer");
    }
    m_bGone = true;
    if (m_oQuery.handle() != nNoHandle && m_oQuery.handle() != m_nDaemon) {
        m_oTransitions.restart();
        onOther();
    }
}

void CWatch::onOther() {
    if (m_oView.read(m_oQuery) != EAsked::answered) {
        return; // told when it answers
    }
    m_tViewRead = CClock::now();
    m_nDaemon = m_oQuery.handle();
    m_bGone = false;
    note("back", fmt::format("the daemon was restarted (pid {}); its transitions begin anew",
                             uint32_t{m_oView.m_oSummary.m_nProcessId}));
}

// A feature may be newer than the names that were read.
std::string_view CWatch::nameOf(const STransitionView& transition) {
    const SFeatureView* feature = m_oView.feature(transition.m_nCode, transition.m_nData);
    if (feature == nullptr && CClock::now() - m_tViewRead >= tNames) {
        m_tViewRead = CClock::now();
        CDaemonView view;
        if (view.read(m_oQuery) == EAsked::answered) {
            m_oView = std::move(view);
            feature = m_oView.feature(transition.m_nCode, transition.m_nData);
        }
    }
    return feature ? feature->name() : std::string_view();
}

void CWatch::print(const STransitionView& transition) {
    const uint32_t to = transition.m_nTo;
    const bool isFailure =
        to < aDeliveryStates.size() && aDeliveryStates[to].m_eWord == EDeliveryWord::failed;
    const bool isNew = transition.m_nTo != transition.m_nFrom;
    m_bFailureSeen = m_bFailureSeen || (isFailure && isNew);
    if (m_oOptions.m_bQuiet) {
        return;
    }
    const std::string_view name = nameOf(transition);
    if (m_oOptions.m_bJson) {
        CJson line = jsonDocument("watch");
        line["event"] = "transition";
        line.update(toJson(transition));
        line["name"] = name;
        printJsonLine(line);
        return;
    }
    const std::string component = printable(fieldText(transition.m_szComponent));
    const std::string feature =
        fmt::format("{}:{}", uint32_t{transition.m_nCode}, uint32_t{transition.m_nData});
    fmt::print("{}  {:>9}  {:<16}  {} {}{}\n", timeOfDay(transition.m_tSeconds, transition.m_nMicroseconds),
               feature, component.empty() ? "(all)" : component,
               paint(stepText(transition), isFailure ? EColour::red : EColour::none, stdout),
               causeText(transition),
               name.empty() ? "" : paint("  " + printable(name), EColour::dim, stdout));
}

void CWatch::printGap(uint64_t lost) const {
    if (m_oOptions.m_bQuiet) {
        return;
    }
    if (!m_oOptions.m_bJson) {
        fmt::print("{}\n", paint(fmt::format("-- gap: {} no longer kept", counted(lost, "transition")),
                                 EColour::yellow, stdout));
        return;
    }
    CJson line = jsonDocument("watch");
    line["event"] = "gap";
    line["lost"] = lost;
    printJsonLine(line);
}

void CWatch::note(const char* event, const std::string& text) const {
    if (m_oOptions.m_bQuiet) {
        return;
    }
    if (!m_oOptions.m_bJson) {
        fmt::print("{}\n", paint("-- " + text, EColour::yellow, stdout));
    } else {
        CJson line = jsonDocument("watch");
        line["event"] = event;
        line["text"] = text;
        printJsonLine(line);
    }
    std::fflush(stdout);
}

} // namespace

int runWatch(const SWatchOptions& options) {
    setProcessName("");
    return CWatch(options).run();
}
