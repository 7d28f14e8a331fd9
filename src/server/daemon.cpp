#include "server/daemon.h"

#include "platform/os.h"
#include "platform/service.h"
#include "server/log/log.h"
#include "server/loop/CQelServer.h"
#include "server/loop/names.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <unistd.h>

namespace {

constexpr int nExitOk = 0;
constexpr int nExitFailed = 1;

// How long the start may take, in milliseconds: far longer than the longest list, so that no service manager
// takes a slow start for one that hangs.
constexpr uint32_t nStartTime = 10 * 60 * 1000;

// SIGXFSZ: the text log has met a size limit, and the line is lost. SIGPIPE: nobody reads any more what
// -debug prints. SIGHUP: sent by the rotation of the log, which needs none, or a terminal is gone. By default
// each of them ends the process.
void ignoreSignals() {
    for (const int signal : {SIGXFSZ, SIGPIPE, SIGHUP}) {
        std::signal(signal, SIG_IGN);
    }
}

void endAtOnce(int) {
    ::_exit(nExitOk);
}

// For the time before a service manager takes these signals over, and for one that does not: then, too, they
// are a usual way to end the daemon, and not a death. Nothing is cleared, but what a daemon leaves behind
// does not disturb the next one.
void endOnSignals() {
    for (const int signal : {SIGTERM, SIGINT}) {
        std::signal(signal, endAtOnce);
    }
}

// Runs on the service manager's own thread and does not ask the main loop to finish its turn: a host that
// goes down waits for nobody, and the daemon keeps nothing that has to be saved. What both threads touch is
// made for this (CQelServer.h). clear() removes the stop event's name, which would outlive the process.
void cbOVUService(uint32_t event) {
    if (event == OVU_CALLBACK_NOTIFY_SERVICE_SHUTDOWN) {
        logEvent(svInfo, 31160, "the Callback event is 'OVU_CALLBACK_NOTIFY_SERVICE_SHUTDOWN'");
    } else if (event == OVU_CALLBACK_NOTIFY_SERVICE_STOP) {
        logEvent(svInfo, 31161, "the Callback event is 'OVU_CALLBACK_NOTIFY_SERVICE_STOP'");
    }
    if (CQelServer* server = CQelServer::instance()) {
        server->clear();
    }
    claimProcessEnd();
    std::exit(nExitOk);
}

// The answer "not running" also claims the name for this process, so of two daemons started at the same
// moment one gives way. If the platform cannot tell, the daemon starts all the
// same, and without that protection.
bool isOtherInstanceRunning() {
    int state = OS_PROCESS_NOT_RUNNING;
    if (const int error = osGetProcessState(sQelLockFileName, &state)) {
        std::printf("osGetProcessState error %d\n", error);
    }
    return state != OS_PROCESS_NOT_RUNNING;
}

// A failure is logged and no more: the daemon then serves as usual, and `qelserver -stop` still ends it.
void registerService() {
    const int result = OvuServiceStartService(sOvuQelServiceName, 1, 1, cbOVUService, 3);
    logEvent(svInfo, 31162, "OvuServiceStartService return %d", result);
}

// Through the weak reference of platform/service.h.
void reportStart(uint32_t state, const char* text, uint32_t timeMs) {
    if (!bQelServerDebugFlag && OvuServiceReport != nullptr) {
        OvuServiceReport(state, text, timeMs);
    }
}

bool nameSupply(CFeatureSupply& (*supply)()) try {
    CQelServer::setSupply(supply());
    return true;
} catch (const std::bad_alloc&) {
    logEvent(svError, 31124, "failed to new obj");
    return false;
}

// The service manager is told that the daemon is ready when the next thing is the first turn of the loop: the
// endpoint is open by then, and a start that fails was never called ready.
int serve(CFeatureSupply& (*supply)()) {
    CQelServer* server = CQelServer::instance();
    if (server == nullptr) {
        logEvent(svInfo, 31163, "can't get server object.");
        return nExitFailed;
    }
    server->clear();
    reportStart(OVU_SERVICE_STARTING, "reading the feature list", nStartTime);
    if (!nameSupply(supply) || server->init() != 1) {
        server->clear();
        logEvent(svInfo, 31164, "can't init server object.");
        return nExitFailed;
    }
    reportStart(OVU_SERVICE_READY, "serving", 0);
    server->run();
    server->clear();
    return nExitOk;
}

} // namespace

// The order counts. The signals come first, since they may come at any moment. A second daemon must end
// before it touches the log or the stop event of the first. The debug flag must stand before the first line
// and the first thread. And the service manager comes before the list's thread, because it blocks the signals
// that it waits for, and threads inherit that.
//
// With -debug it is left out: SIGTERM and SIGINT keep their usual effect, so Ctrl-C ends
// the daemon in the terminal.
int runDaemon(bool isDebugging, CFeatureSupply& (*supply)()) {
    ignoreSignals();
    if (!isDebugging) {
        endOnSignals();
    }
    if (isOtherInstanceRunning()) {
        std::puts("Another instance of Qel server is running");
        return nExitFailed;
    }
    bQelServerDebugFlag = isDebugging;
    logEvent(svInfo, 31162, "run qel service.");
    if (!isDebugging) {
        registerService();
    }
    return serve(supply);
}

// A stop event and a notice of the service manager may come together, and exit(3) must not run in two threads
// at once. So the first to get here ends the process; the other's thread waits for that in pause(2), which a
// signal handler may interrupt, hence the loop.
void claimProcessEnd() {
    static std::atomic_flag isClaimed = ATOMIC_FLAG_INIT;
    while (isClaimed.test_and_set()) {
        ::pause();
    }
}

// Opens the event of the running daemon and signals it; does not wait for the daemon's end, which comes with
// the end of a turn of its loop.
//
// If no daemon runs, this creates the event and the signal reaches nobody. That is no error, since the caller
// has what they wanted. The event's name stays behind, and the next daemon replaces it
// (CQelServer::initEvent()). If the event can be neither created nor found, for example without access to the
// runtime directory, nothing is signalled, and the status is 0 as well.
int stopDaemon() {
    uint32_t event = OS_EVENT_NONE;
    if (osCreateEvent(sServiceEventName1, 0, &event) == OS_ERROR_EXISTS) {
        if (const int error = osOpenEvent(sServiceEventName1, &event)) {
            std::printf("Failed to create event (%d, 0x%x)\n", error, event);
            return error;
        }
    }
    if (event == OS_EVENT_NONE) {
        return nExitOk;
    }
    std::printf("Sending stop event (0x%x)\n", event);
    osSendEvent(event);
    return nExitOk;
}
