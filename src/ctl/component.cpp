// qelctl component: a component at the shell's prompt. It announces itself, answers as its options say, and
// prints every message; for trying out the daemon, a list, or what a component would see.
#include "client/qelclient.h"
#include "ctl/CDaemonView.h"
#include "ctl/commands.h"
#include "ctl/describe.h"
#include "ctl/json.h"
#include "ctl/terminal.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <ctime>
#include <fmt/format.h>
#include <map>
#include <string>

namespace {

using CClock = std::chrono::steady_clock;

std::atomic<qel_client*> pSignalled{nullptr}; // the client that a signal stops; null: none

// qel_stop() is the one call of the library that a signal handler may make. The library
// notices within half a second.
void cbSignal(int) {
    qel_stop(pSignalled);
}

std::string nowOfDay() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return timeOfDay(now.tv_sec, now.tv_nsec / 1000);
}

CJson beginLine(std::string_view event) {
    CJson line = jsonDocument("component");
    line["event"] = event;
    line["time"] = static_cast<int64_t>(std::time(nullptr));
    return line;
}

// A component of the daemon's table whose process lives, this one apart. Those that the daemon has registered by
// itself have announced no process id; they are processes of the same name in lower case, by that handle.
bool isAlive(const SComponentView& component) {
    uint32_t own = nNoHandle;
    if (component.m_tDead != 0 ||
        (OvuMfwGetProcessHandle(nullptr, &own) == 0 && own == component.m_nHandle)) {
        return false;
    }
    if (component.m_nProcessId != 0) {
        return kill(static_cast<pid_t>(component.m_nProcessId), 0) == 0 || errno == EPERM;
    }
    std::string process(fieldText(component.m_szName));
    std::transform(process.begin(), process.end(), process.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    uint32_t handle = nNoHandle;
    return OvuMfwGetProcessHandle(process.c_str(), &handle) == 0 && handle == component.m_nHandle;
}

// The daemon sends to whoever has announced the name last: to announce it here would silently cut off another
// process for good. Where no daemon answers, or one too old to tell, nobody is known to be there.
bool isNameTaken(const std::string& name) {
    CStatusQuery query(std::chrono::seconds(1));
    std::vector<SComponentView> components;
    query.askAll(makeQuestion(sqComponents), components);
    for (const SComponentView& component : components) {
        if (fieldText(component.m_szName) == name && isAlive(component)) {
            const uint32_t process = component.m_nProcessId;
            complain(
                fmt::format("{} is the name of a process that lives{}; --take-over takes it away from it",
                            printable(name), process == 0 ? "" : fmt::format(" (pid {})", process)));
            return true;
        }
    }
    return false;
}

// One run of the command: counts and prints, while the library does the talking.
class CPromptComponent {
public:
    explicit CPromptComponent(const SComponentOptions& options) : m_oOptions(options) {}
    ~CPromptComponent();
    CPromptComponent(const CPromptComponent&) = delete;
    CPromptComponent& operator=(const CPromptComponent&) = delete;

    int run();

private:
    int open();
    int bringUp();
    int bring(int (*step)(qel_client*, int));
    int keepUp();
    int timeLeft() const;
    void printLine(std::string_view arrow, const SMessageText& message, EColour colour);
    void printSummary() const;
    int answer(const qel_notification& notification, char* text);

    static void cbTrace(void* user, int sent, const uint8_t* body, size_t length);
    static int cbNotify(void* user, const qel_notification* notification, char* text);

    const SComponentOptions& m_oOptions;
    const CFeatureNames m_oNames = CFeatureNames::load();
    qel_client* m_pClient = nullptr;
    CClock::time_point m_tEnd = CClock::time_point::max(); // of the run; max: without --for, a signal ends it
    std::map<std::string, int> m_oSent;                    // how many messages, by the kind that was printed
    std::map<std::string, int> m_oReceived;
    int m_nUnanswered = 0; // notifications that --answer none left without a reply
};

// A signal may arrive at any moment, so its handler loses the client before that is closed.
CPromptComponent::~CPromptComponent() {
    pSignalled = nullptr;
    qel_close(m_pClient);
}

// A run that its time or a signal ends has done what it was asked for, so the exit status is 0 even if the
// component did not get as far as monitoring. It fails if no daemon answered in that time, or on an error
// that ends it early.
int CPromptComponent::run() {
    if (m_oOptions.m_nSeconds > 0) {
        auto span = std::chrono::duration<double>(m_oOptions.m_nSeconds);
        m_tEnd = CClock::now() + std::chrono::duration_cast<CClock::duration>(span);
    }
    int rc = open();
    if (rc == QEL_OK) {
        rc = bringUp();
    }
    if (rc >= 0) {
        rc = keepUp();
    }
    if (rc == QEL_EREPLACED) {
        printLine("--", {"replaced", "another process has taken the name"}, EColour::red);
        printSummary();
        complain(fmt::format("another process has taken the name {} over; it is left alone",
                             printable(m_oOptions.m_sName)));
        return exitFailed;
    }
    // A daemon that has not answered the announcement does not know the component. One that did would keep
    // its record if it were not told.
    bool known = m_pClient && qel_state(m_pClient) != QEL_STATE_SEEKING;
    bool ended = rc >= 0 || rc == QEL_ESTOPPED || (known && timeLeft() == 0);
    if (known) {
        qel_shutdown(m_pClient, "stopped at the prompt");
    }
    if (rc == QEL_ENODAEMON || !ended) {
        complain(qel_strerror(rc));
        return rc == QEL_ENODAEMON || rc == QEL_ETIMEDOUT ? exitNoDaemon : exitFailed;
    }
    printSummary();
    return exitOk;
}

int CPromptComponent::open() {
    qel_options options = {};
    options.size = sizeof options;
    options.notify = cbNotify;
    options.trace = cbTrace;
    options.user = this;
    // Without this the library answers repetitions itself. Somebody who tries out the daemon wants --answer
    // and --refuse to apply to them as well.
    options.notify_unchanged = 1;
    int rc = qel_open(m_oOptions.m_sName.c_str(), &options, &m_pClient);
    if (rc != QEL_OK) {
        return rc;
    }
    pSignalled = m_pClient;
    struct sigaction action = {};
    action.sa_handler = cbSignal;
    // Only from here on is there something to shut down; until now the signals end the process as usual.
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    // Before the announcement, which names them to the daemon.
    for (const SFeature& feature : m_oOptions.m_vHeld) {
        qel_hold(m_pClient, feature.m_nCode, feature.m_nData);
    }
    return QEL_OK;
}

// Without --wait, a first attempt with no time to wait tells whether there is a daemon at all. If there is,
// the attempt ends with a time-out, because the answer is still on its way, and the second one waits for it.
int CPromptComponent::bringUp() {
    int rc = m_oOptions.m_bWait ? QEL_OK : qel_announce(m_pClient, 0);
    if (rc == QEL_OK || rc == QEL_ETIMEDOUT) {
        rc = bring(qel_announce);
    }
    // The list before the monitoring: the daemon does not notify what a page has delivered already.
    if (rc >= 0 && m_oOptions.m_bFetch) {
        rc = bring(qel_fetch);
    }
    if (rc >= 0 && m_oOptions.m_bMonitor) {
        rc = bring(qel_monitor);
    }
    return rc;
}

int CPromptComponent::bring(int (*step)(qel_client*, int)) {
    return step(m_pClient, timeLeft());
}

// Waits in slices, because the library reconnects to a restarted daemon without a word, while the operator
// should see here that it was gone. QEL_EREPLACED: the name is lost; QEL_OK: the run is over.
int CPromptComponent::keepUp() {
    constexpr int nSlice = 500; // milliseconds between looks at the connection
    bool connected = true;
    while (timeLeft() != 0) {
        int left = timeLeft();
        // Stopped, or an error that the next call would return again: either way the run is over.
        const int rc = qel_wait(m_pClient, left < 0 ? nSlice : std::min(left, nSlice));
        if (rc < 0) {
            return rc == QEL_EREPLACED ? rc : QEL_OK;
        }
        bool now = qel_state(m_pClient) != QEL_STATE_SEEKING;
        if (now != connected) {
            printLine("--", {now ? "back" : "lost", "the daemon"}, EColour::yellow);
            connected = now;
        }
    }
    return QEL_OK;
}

// Milliseconds until --for is over, QEL_FOREVER without it.
int CPromptComponent::timeLeft() const {
    if (m_tEnd == CClock::time_point::max()) {
        return QEL_FOREVER;
    }
    // Rounded up, because 0 means that the time is over.
    auto left = std::chrono::ceil<std::chrono::milliseconds>(m_tEnd - CClock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX));
}

// Sent, received and events of the connection all go through here, so the columns line up.
void CPromptComponent::printLine(std::string_view arrow, const SMessageText& message, EColour colour) {
    if (m_oOptions.m_bQuiet) {
        return;
    }
    if (m_oOptions.m_bJson) {
        CJson line = beginLine(arrow == "->" ? "sent" : arrow == "<-" ? "received" : "daemon");
        line["kind"] = message.m_sKind;
        line["detail"] = message.m_sDetail;
        printJsonLine(line);
    } else {
        std::string what = paint(fmt::format("{} {:<8}", arrow, message.m_sKind), colour, stdout);
        fmt::print("{} {} {}\n", nowOfDay(), what, message.m_sDetail);
    }
    // Each line at once, since somebody may be watching through a pipe.
    std::fflush(stdout);
}

// The summary uses the same words as the lines above it, so one can be checked against the other.
void CPromptComponent::printSummary() const {
    auto list = [](const std::map<std::string, int>& counts) {
        std::string text;
        for (const auto& [kind, count] : counts) {
            text += fmt::format("{}{} {}", text.empty() ? "" : ", ", count, kind);
        }
        return text.empty() ? std::string("nothing") : text;
    };
    auto held = static_cast<size_t>(qel_features(m_pClient, nullptr, 0));
    if (m_oOptions.m_bJson && !m_oOptions.m_bQuiet) {
        CJson line = beginLine("end");
        line["sent"] = m_oSent;
        line["received"] = m_oReceived;
        line["unanswered"] = m_nUnanswered;
        line["held"] = held;
        printJsonLine(line);
    } else if (!m_oOptions.m_bQuiet) {
        fmt::print("{} sent {}; received {}; left {} unanswered; holds {}\n", nowOfDay(), list(m_oSent),
                   list(m_oReceived), m_nUnanswered, counted(held, "feature"));
    }
}

// The daemon awaits no answer to a difference that a fetch found, nor to an overdue note, so --answer and
// --refuse do not apply to them. A code of --refuse is refused even with --answer none.
int CPromptComponent::answer(const qel_notification& notification, char* text) {
    if (notification.fetched || notification.kind == QEL_OVERDUE) {
        return QEL_OK;
    }
    const auto& refused = m_oOptions.m_vRefused;
    bool refuse = std::find(refused.begin(), refused.end(), notification.code) != refused.end();
    if (refuse || m_oOptions.m_eAnswer == EAnswer::fail) {
        // One byte stays free for the NUL.
        *fmt::format_to_n(text, QEL_TEXT_SIZE - 1, "refused at the prompt").out = '\0';
        return QEL_REFUSED;
    }
    if (m_oOptions.m_eAnswer == EAnswer::none) {
        ++m_nUnanswered;
        return QEL_NO_REPLY;
    }
    return QEL_OK;
}

// Counts and prints here and not in cbNotify(), for the trace also sees requests, answers, and the messages
// that the library ignores.
void CPromptComponent::cbTrace(void* user, int sent, const uint8_t* body, size_t length) {
    auto& self = *static_cast<CPromptComponent*>(user);
    SMessageText message = sent ? describeSent(body, length) : describeReceived(body, length, self.m_oNames);
    ++(sent ? self.m_oSent : self.m_oReceived)[message.m_sKind];
    self.printLine(sent ? "->" : "<-", message, sent ? EColour::dim : EColour::green);
}

int CPromptComponent::cbNotify(void* user, const qel_notification* notification, char* text) {
    return static_cast<CPromptComponent*>(user)->answer(*notification, text);
}

} // namespace

int runComponent(const SComponentOptions& options) {
    // Before the endpoint is opened, which takes the name from the environment.
    setProcessName(options.m_sProcess);
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    if (!options.m_bTakeOver && isNameTaken(options.m_sName)) {
        return exitFailed;
    }
    return CPromptComponent(options).run();
}
