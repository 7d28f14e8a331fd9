#include "server/loop/CQelServer.h"

#include "base/clock.h"
#include "features/CFeatureSupply.h"
#include "features/CQelControl.h"
#include "features/counters.h"
#include "messaging/dispatcher/dispatcher.h"
#include "messaging/endpoint/CMFWServer.h"
#include "messaging/wire/wire.h"
#include "platform/service.h"
#include "server/log/log.h"
#include "server/log/singleton.h"
#include "server/loop/names.h"
#include "server/status/status.h"

#include <algorithm>
#include <new>

constinit std::atomic<CQelServer*> CQelServer::m_pInstance = nullptr;
constinit CFeatureSupply* CQelServer::m_pSupply = nullptr;

namespace {

// The millisecond part within the current second. If a second ends between two readings, their unsigned
// difference wraps to a huge number, and the turn counts as a long one. It then waits 5 ms instead of up to
// 35, once a second at most, which does no harm.
uint32_t millisecondOfSecond() {
    return static_cast<uint32_t>(nowTimeOfDay().tv_usec / 1000);
}

// A service manager that watches over the daemon ends one whose loop hangs, so only the loop may say this.
// The reference is weak (platform/service.h).
void reportAlive() {
    if (!bQelServerDebugFlag && OvuServiceAlive != nullptr) {
        OvuServiceAlive();
    }
}

} // namespace

CQelServer* CQelServer::instance() {
    return singleton(m_pInstance, [] { return new (std::nothrow) CQelServer; });
}

CQelServer::~CQelServer() {
    clear();
}

void CQelServer::setSupply(CFeatureSupply& supply) {
    m_pSupply = &supply;
}

// The list comes first: whoever announces itself once the endpoint is open finds the features in force. The
// watch comes last, for its callback is registered with the message framework and is lost when that is
// cleaned up.
//
// Without a usable list the daemon starts all the same, so that an operator repairs the file and need not
// restart anything: the watch picks the repaired file up.
int CQelServer::init() {
    if (m_pControl.load() == nullptr) {
        m_pControl = CQelControl::instance();
    }
    CQelControl* control = m_pControl.load();
    if (control == nullptr || m_pSupply == nullptr || !m_pSupply->supply(*control)) {
        logEvent(svError, 31000, "failed to add the initial feature list.");
    }
    if (!initEndpoint() || !initEvent()) {
        return 0;
    }
    startAnswering(*CMFWServer::instance(), m_pSupply);
    if (m_pSupply != nullptr) {
        m_pSupply->startWatching();
    }
    return 1;
}

// instance() initialises the endpoint that it creates, but one that outlived a clear() is closed: hence
// init() again. On an open endpoint that is harmless.
bool CQelServer::initEndpoint() {
    CMFWServer* endpoint = CMFWServer::instance();
    if (endpoint == nullptr || endpoint->init() != 0) {
        logEvent(svError, 31001, "failed to init message framework.");
        if (endpoint != nullptr) {
            endpoint->clear();
        }
        return false;
    }
    if (endpoint->addCallback(nQelServerMfwMsgId, cbQelServer) != 0) {
        logEvent(svError, 31002, "failed to add message Callback.");
        return false;
    }
    return true;
}

// An event that exists was left behind by a dead daemon, for runDaemon() lets only one instance run. It is
// killed and created anew, since a stop signal that nobody received might still be in it and would end this
// daemon at once. If that fails, the start fails.
//
// If no event can be created for another reason, the daemon runs without one: `qelserver -stop` cannot reach
// it then, but the service manager's notice still ends it.
bool CQelServer::initEvent() {
    uint32_t event = OS_EVENT_NONE;
    const int error = osCreateEvent(sServiceEventName, 0, &event);
    if (error != OS_ERROR_EXISTS) {
        m_nEvent = error == 0 ? event : OS_EVENT_NONE;
        return true;
    }
    if (osOpenEvent(sServiceEventName, &event) == 0) {
        m_nEvent = event; // clear() kills it once more if it cannot be replaced
        osKillEvent(event);
        if (osCreateEvent(sServiceEventName, 0, &event) == 0) {
            m_nEvent = event;
            return true;
        }
    }
    logEvent(svError, 31003, "failed to create event.");
    clear();
    return false;
}

// The exchange lets only one of two threads kill the event, when a stop event and the service manager's
// notice come together. existing() and not instance(), which would open an endpoint only to close it.
void CQelServer::clear() {
    const uint32_t event = m_nEvent.exchange(OS_EVENT_NONE);
    if (event != OS_EVENT_NONE) {
        osKillEvent(event);
    }
    if (CMFWServer* endpoint = CMFWServer::existing()) {
        endpoint->delCallback(nQelServerMfwMsgId);
        endpoint->clear();
    }
    m_pControl = nullptr;
}

// One thread does everything in turn: the passes, one message, the wait. So the tables need no lock, and a
// message never sees a pass half done.
//
// Whatever a turn calls that has nothing to do is marked hot, from here to the platform: the linker then puts it side by
// side. A turn begins after 50 ms of sleep with cold caches, and what it costs is the pages that it touches, not its
// thousand instructions.
[[gnu::hot]] int CQelServer::run() {
    for (uint32_t turn = 1;; ++turn) {
        const uint32_t start = millisecondOfSecond();
        reportAlive();
        if (turn % nAuditTurns == 0) {
            checkSignal();
        }
        processMessages();
        noteTurn(nAuditTurns - turn % nAuditTurns);
        const uint32_t elapsed = millisecondOfSecond() - start;
        // The wait is also the pause that keeps a flood of messages from taking the whole processor.
        if (osReceiveEvent(m_nEvent.load(), waitAfter(elapsed)) == 0) {
            break;
        }
    }
    logEvent(svInfo, 31010, "recv stop event");
    return logEvent(svInfo, 31120, "main thread exited");
}

// The cap comes before the subtraction, which therefore cannot wrap, however large `elapsed` is.
uint32_t CQelServer::waitAfter(uint32_t elapsed) {
    const uint32_t counted = std::min(elapsed, nMaxLoopDelay);
    return std::max(35 - counted, nMinLoopDelay);
}

// The message is handled inside the call, by cbQelServer() or by the feature source's callback. No message
// within the time is the normal case of an idle daemon.
[[gnu::hot]] int CQelServer::processMessages() {
    CMFWServer* endpoint = CMFWServer::instance();
    if (endpoint == nullptr) {
        logEvent(svError, 31122, "cannot get message framework");
        return 0;
    }
    const int result = endpoint->recvMessage(nReceiveTimeout);
    if (result == 0 || result == OVU_MFW_NO_MESSAGE) {
        return 1;
    }
    logEvent(svError, 31009, "failed to recv MFW message");
    return 0;
}

int CQelServer::checkSignal() {
    CQelControl* control = CQelControl::instance();
    if (control == nullptr) {
        logEvent(svWarning, 31004, "failed to find control object.");
        return 0;
    }
    beginWork();
    // Audit first: what the timeout pass declares overdue is then not sent again in the same turn.
    control->audit();
    control->timeout();
    notePass();
    return 1;
}

uint32_t CQelServer::stop() {
    const uint32_t event = m_nEvent.load();
    return event == OS_EVENT_NONE ? OS_EVENT_NONE : static_cast<uint32_t>(osSendEvent(event));
}

int CQelServer::LogFile(uint16_t severity, uint32_t event, const char* text) {
    return logEntry(severity, event, text);
}

int CQelServer::LogFile(const char* text) {
    return logLine(text);
}

void CQelServer::cbQelServer(uint16_t type, uint32_t id, const sOvuMfwMessage* message, uint32_t length) {
    dispatchRequest(type, id, message, length);
}
