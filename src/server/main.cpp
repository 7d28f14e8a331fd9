// Entry and command line: the daemon's start, its stop, and the tools.
#include "platform/os.h"
#include "platform/service.h"
#include "server/log/log.h"
#include "server/loop/CQelServer.h"
#include "server/loop/names.h"
#include "server/signing.h"
#include "source/CFeatureSource.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr int nExitOk = 0;
constexpr int nExitFailed = 1;

// A stop event and a notice of the service manager may come together: the first ends the process, and the
// second's thread waits for that.
void claimProcessEnd() {
    static std::atomic_flag isClaimed = ATOMIC_FLAG_INIT;
    while (isClaimed.test_and_set()) {
        ::pause();
    }
}

// On the service manager's own thread; the main loop is not asked to finish its turn.
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

bool isOtherInstanceRunning() {
    int state = OS_PROCESS_NOT_RUNNING;
    if (const int error = osGetProcessState(sQelLockFileName, &state)) {
        std::printf("osGetProcessState error %d\n", error);
    }
    return state != OS_PROCESS_NOT_RUNNING;
}

void registerService() {
    const int result = OvuServiceStartService(sOvuQelServiceName, 1, 1, cbOVUService, 3);
    logEvent(svInfo, 31162, "OvuServiceStartService return %d", result);
}

int serve() {
    CQelServer* server = CQelServer::instance();
    if (server == nullptr) {
        logEvent(svInfo, 31163, "can't get server object.");
        return nExitFailed;
    }
    CQelServer::setSupply(CFeatureSource::instance());
    server->clear();
    if (server->init() != 1) {
        server->clear();
        logEvent(svInfo, 31164, "can't init server object.");
        return nExitFailed;
    }
    server->run();
    server->clear();
    return nExitOk;
}

int run(int argc, char** argv) {
    if (isOtherInstanceRunning()) {
        std::puts("Another instance of Qel server is running");
        return nExitFailed;
    }
    bQelServerDebugFlag = argc > 2 && std::strcmp(argv[2], "-debug") == 0;
    logEvent(svInfo, 31162, "run qel service.");
    if (!bQelServerDebugFlag) {
        registerService();
    }
    const int status = serve();
    claimProcessEnd();
    return status;
}

// Without a daemon the event is created afresh and sent to nobody: on purpose no error.
int stop(int, char**) {
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

struct SMode {
    const char* m_szWord;
    int (*m_fnRun)(int argc, char** argv);
};

constexpr SMode aModes[] = {
    {"-newkey", runSigningTool},
    {"-run", run},
    {"-check", runSigningTool},
    {"-signature", runSigningTool},
    {"-signverify", runSigningTool},
    {"-certverify", runSigningTool},
    {"-stop", stop},
};

} // namespace

// A word that is no mode is no error either: nothing is printed, and the status is 0.
int main(int argc, char** argv) {
    if (argc <= 1) {
        std::puts("Usage: qelserver -[newkey|run|check|signature|signverify] [...]");
        return nExitFailed;
    }
    for (const SMode& mode : aModes) {
        if (std::strcmp(argv[1], mode.m_szWord) == 0) {
            return mode.m_fnRun(argc, argv);
        }
    }
    return nExitOk;
}
