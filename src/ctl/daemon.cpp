// qelctl daemon: plays the daemon for a component under test, as a script says.
#include "ctl/CDaemonProcess.h"
#include "ctl/CPlayedDaemon.h"
#include "ctl/CStartedCommand.h"
#include "ctl/commands.h"
#include "ctl/daemon_report.h"
#include "ctl/daemon_script.h"
#include "ctl/list_errors.h"
#include "ctl/terminal.h"
#include "platform/mfw.h"
#include "source/list/whole_file.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fmt/format.h>
#include <functional>
#include <system_error>
#include <thread>

namespace {

using CClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr size_t nMaxScript = 1 << 20;
constexpr milliseconds tTick{10};  // between looks at the component's process, and for a signal
constexpr milliseconds tLate{500}; // in which the last messages of a process that has ended are still read

std::atomic<bool> bSignalled{false};

void cbSignal(int) {
    bSignalled = true;
}

// Where daemon and component meet. One of our own goes with us.
class CMeetingPlace {
public:
    ~CMeetingPlace();
    CMeetingPlace() = default;
    CMeetingPlace(const CMeetingPlace&) = delete;
    CMeetingPlace& operator=(const CMeetingPlace&) = delete;

    // False: there is none, or somebody is there; it is complained of. `mayMake`: where none is named.
    [[nodiscard]] bool open(bool mayMake);

private:
    std::string m_sMade;
};

CMeetingPlace::~CMeetingPlace() {
    std::error_code ignored;
    if (!m_sMade.empty()) {
        std::filesystem::remove_all(m_sMade, ignored);
    }
}

// Without a name it is the place of the host's own processes, which would take us for their daemon.
bool CMeetingPlace::open(bool mayMake) {
    const char* named = std::getenv("QEL_RUNTIME_DIR");
    if (named == nullptr || *named == '\0') {
        if (!mayMake) {
            complain("QEL_RUNTIME_DIR must name the directory in which daemon and component are to meet");
            return false;
        }
        std::error_code error;
        std::string path = (std::filesystem::temp_directory_path(error) / "qel-play-XXXXXX").string();
        if (error || mkdtemp(path.data()) == nullptr) {
            complain(fmt::format("no temporary directory can be made: {}", std::strerror(errno)));
            return false;
        }
        m_sMade = path;
        setenv("QEL_RUNTIME_DIR", path.c_str(), 1);
    }
    uint32_t other = nNoHandle;
    if (OvuMfwGetProcessHandle("qelserver", &other) == 0) {
        complain("a daemon runs there already");
        return false;
    }
    return true;
}

// One run of a script.
class CPlay {
public:
    CPlay(const SDaemonOptions& options, const SScript& script)
        : m_oScript(script), m_oReport(options, script.m_vSteps.size()), m_oCommand(options.m_vCommand),
          m_tWithin(static_cast<int64_t>(options.m_nWithin * 1000)) {}

    int run();

private:
    bool begin();
    SResult perform(const SStep& step);
    SResult notify(const SStep& step);
    SResult giveUp(const SStep& step);
    SResult expect(const SStep& step);
    SResult expectNothing(milliseconds time);
    SResult expectEnd(const SExpectation& expected);
    SResult live();
    SResult end(int signal);
    SResult start();
    void stayAway(milliseconds time);

    bool converse(CClock::time_point end, const std::function<bool()>& isReached);
    void take(const std::vector<uint8_t>& body);
    int send(const CQelServerMessage& message);
    bool find(const SExpectation& expected);
    std::string whatCame() const;
    bool hasEndedByItself() { return m_oCommand.isGiven() && !m_bEnded && !m_oCommand.isRunning(); }

    const SScript& m_oScript;
    CPlayReport m_oReport;
    CDaemonProcess m_oProcess;
    CPlayedDaemon m_oDaemon;
    CStartedCommand m_oCommand;
    const milliseconds m_tWithin; // where an expectation names no time
    bool m_bEnded = false;        // the script has ended the component, or has expected its end
    std::deque<SDeed> m_oDeeds;   // that no step has expected yet
    std::string m_sPassed;        // what the expectation at hand has passed over
};

// Stops at the first failure, since what follows mostly fails with it, each step after its time.
int CPlay::run() {
    if (!begin()) {
        return exitFailed;
    }
    EExitStatus status = exitOk;
    for (const SStep& step : m_oScript.m_vSteps) {
        const auto before = CClock::now();
        SResult result = perform(step);
        if (result.m_eStatus == exitOk && bSignalled) {
            result = {exitNotYet, "the end of the script", "a signal to qelctl"};
        }
        m_oReport.step(step, result, std::chrono::duration_cast<milliseconds>(CClock::now() - before));
        status = result.m_eStatus;
        if (status != exitOk) {
            break;
        }
    }
    m_oReport.end();
    return flushOutput() ? status : exitFailed;
}

bool CPlay::begin() {
    struct sigaction action = {};
    action.sa_handler = cbSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    m_oReport.begin();
    for (const SResult& result : {live(), m_oCommand.isGiven() ? start() : SResult{}}) {
        if (result.m_eStatus != exitOk) {
            complain(result.m_sCame);
            return false;
        }
    }
    return true;
}

SResult CPlay::perform(const SStep& step) {
    const milliseconds time = step.m_oExpected.m_oTime.value_or(milliseconds(0));
    switch (step.m_eStep) {
    case EStep::list:
        m_oDaemon.setList(step.m_vFeatures);
        return {};
    case EStep::enable:
    case EStep::modify:
    case EStep::disable:
        return notify(step);
    case EStep::overdue:
        return giveUp(step);
    case EStep::expect:
        return expect(step);
    case EStep::wait:
        converse(CClock::now() + time, [] { return false; });
        return {};
    case EStep::silent:
        stayAway(time);
        return {};
    case EStep::die:
    case EStep::restart:
        m_oProcess.kill();
        m_oDaemon.forget();
        return step.m_eStep == EStep::die ? SResult{} : live();
    case EStep::start:
        return live();
    case EStep::stop:
        return end(SIGTERM);
    case EStep::kill:
        return end(SIGKILL);
    case EStep::run:
        return start();
    }
    return {exitFailed, "", ""};
}

SResult CPlay::notify(const SStep& step) {
    const uint32_t type = step.m_eStep == EStep::enable   ? nQelServerNotifyMsgType
                          : step.m_eStep == EStep::modify ? nQelServerModifyMsgType
                                                          : nQelServerDisableMsgType;
    if (!converse(CClock::now() + m_tWithin, [this] { return m_oDaemon.component() != nNoHandle; })) {
        return {exitNotYet, "a component that has announced itself", whatCame()};
    }
    const int error = send(m_oDaemon.notify(type, step.m_vFeatures.front(), step.m_nNumber));
    return error == 0 ? SResult{}
                      : SResult{exitRefused, "a component that takes it",
                                fmt::format("it is gone, or its queue is full ({})", std::strerror(error))};
}

SResult CPlay::giveUp(const SStep& step) {
    const auto message = m_oDaemon.giveUp(step.m_nNumber);
    if (!message) {
        return {exitRefused, fmt::format("that a reply about {} is awaited", step.m_nNumber), "none is"};
    }
    send(*message); // whoever cannot take it has not read what it is about either
    return {};
}

// Requests may be passed over; a reply or a shutdown is the component's decision, so
// that it must be expected.
bool CPlay::find(const SExpectation& expected) {
    while (!m_oDeeds.empty() && !expected.fits(m_oDeeds.front()) && m_oDeeds.front().isRequest()) {
        m_sPassed += (m_sPassed.empty() ? "" : ", ") + describe(m_oDeeds.front());
        m_oDeeds.pop_front();
    }
    return !m_oDeeds.empty();
}

SResult CPlay::expect(const SStep& step) {
    const SExpectation& expected = step.m_oExpected;
    const milliseconds time = expected.m_oTime.value_or(m_tWithin);
    m_sPassed.clear();
    if (expected.m_eDeed == EDeed::nothing) {
        return expectNothing(time);
    }
    if (expected.m_eDeed == EDeed::end) {
        return expectEnd(expected);
    }
    const std::string what =
        step.m_sText.substr(std::strlen("expect ")) + (expected.m_oTime ? "" : " within " + timeText(time));
    if (!converse(CClock::now() + time, [&] { return find(expected); })) {
        return {hasEndedByItself() ? exitRefused : exitNotYet, what, whatCame()};
    }
    if (!expected.fits(m_oDeeds.front())) {
        return {exitRefused, what, describe(m_oDeeds.front())};
    }
    m_oDeeds.pop_front();
    return {};
}

SResult CPlay::expectNothing(milliseconds time) {
    if (converse(CClock::now() + time, [this] { return !m_oDeeds.empty(); })) {
        return {exitRefused, "nothing for " + timeText(time), describe(m_oDeeds.front())};
    }
    return hasEndedByItself() ? SResult{exitRefused, "a component that lives", whatCame()} : SResult{};
}

SResult CPlay::expectEnd(const SExpectation& expected) {
    const milliseconds time = expected.m_oTime.value_or(m_tWithin);
    m_bEnded = true;
    const bool hasEnded = converse(CClock::now() + time, [this] { return !m_oCommand.isRunning(); });
    const SDeed deed{EDeed::end, "", {}, {}, "", m_oCommand.status().value_or(0)};
    if (hasEnded && expected.fits(deed)) {
        return {};
    }
    const std::string what = expected.m_oStatus ? fmt::format("end {}", *expected.m_oStatus) : "end";
    return {hasEnded ? exitRefused : exitNotYet, what + " within " + timeText(time),
            hasEnded ? describe(deed) : "it still runs"};
}

SResult CPlay::live() {
    const int error = m_oProcess.start();
    return error == 0 ? SResult{}
                      : SResult{exitFailed, "the daemon's place",
                                fmt::format("cannot take the daemon's place: {}", std::strerror(error))};
}

SResult CPlay::start() {
    if (m_oCommand.isRunning()) {
        return {exitRefused, "that the component has ended", "it runs"};
    }
    m_bEnded = false;
    return m_oCommand.start() ? SResult{} : SResult{exitFailed, "a process", "no process can be started"};
}

SResult CPlay::end(int signal) {
    if (!m_oCommand.isRunning()) {
        return {exitRefused, "a component that runs", fmt::format("end {}", m_oCommand.status().value_or(0))};
    }
    m_bEnded = true;
    m_oCommand.signal(signal);
    return converse(CClock::now() + m_tWithin, [this] { return !m_oCommand.isRunning(); })
               ? SResult{}
               : SResult{exitNotYet, "the component's end within " + timeText(m_tWithin), "it still runs"};
}

// What comes meanwhile waits, as with a daemon that hangs.
void CPlay::stayAway(milliseconds time) {
    const auto end = CClock::now() + time;
    for (auto now = CClock::now(); now < end && !bSignalled; now = CClock::now()) {
        std::this_thread::sleep_for(std::min<CClock::duration>(end - now, tTick));
    }
}

// Takes and answers messages until something is reached. False: the time is up, the user has had enough, or
// the component has ended without being asked to.
bool CPlay::converse(CClock::time_point end, const std::function<bool()>& isReached) {
    std::vector<uint8_t> body;
    bool isLate = false;
    while (!isReached()) {
        const auto now = CClock::now();
        if (now >= end || bSignalled) {
            return false;
        }
        if (!isLate && hasEndedByItself()) {
            isLate = true;
            end = std::min(end, now + tLate);
        }
        const auto wait = std::chrono::ceil<milliseconds>(std::min<CClock::duration>(end - now, tTick));
        if (m_oProcess.receive(wait, body)) {
            take(body);
        }
    }
    return true;
}

void CPlay::take(const std::vector<uint8_t>& body) {
    m_oReport.received(body.data(), body.size());
    CPlayedDaemon::SHeard heard = m_oDaemon.hear(body.data(), body.size());
    if (heard.m_oDeed) {
        m_oDeeds.push_back(std::move(*heard.m_oDeed));
    } else {
        m_oReport.note("it is not answered: it is no message, or from nobody who has announced himself");
    }
    if (heard.m_oAnswer) {
        send(*heard.m_oAnswer);
    }
}

int CPlay::send(const CQelServerMessage& message) {
    const std::span<const char> body = bytesOf(message);
    const int error = m_oProcess.send(m_oDaemon.component(), body);
    m_oReport.sent(reinterpret_cast<const uint8_t*>(body.data()), body.size());
    if (error != 0) {
        m_oReport.note(fmt::format("it did not arrive: {}", std::strerror(error)));
    }
    return error;
}

std::string CPlay::whatCame() const {
    std::string came = m_sPassed.empty() ? "nothing" : "only " + m_sPassed;
    if (bSignalled) {
        return came + ", then a signal to qelctl";
    }
    const auto status = m_bEnded ? std::nullopt : m_oCommand.status();
    return status ? fmt::format("{}, then the component's end with status {}", came, *status) : came;
}

} // namespace

int runDaemon(const SDaemonOptions& options) {
    const SWholeFile file = readWholeFile(options.m_sScript, nMaxScript);
    const SScript script = file.m_sError.empty() ? readScript(file.m_sText, !options.m_vCommand.empty())
                                                 : SScript{{}, {{0, file.m_sError}}};
    if (!script.m_vErrors.empty()) {
        printErrors(options.m_sScript, script.m_vErrors, script.m_vErrors.size());
        return exitFailed;
    }
    CMeetingPlace place;
    return place.open(!options.m_vCommand.empty()) ? CPlay(options, script).run() : exitFailed;
}
