#include "server/loop/CQelServer.h"

#include "base/clock.h"
#include "features/CFeatureSupply.h"
#include "features/CQelControl.h"
#include "messaging/dispatcher/dispatcher.h"
#include "messaging/endpoint/CMFWServer.h"
#include "messaging/wire/wire.h"
#include "server/log/log.h"
#include "server/log/singleton.h"
#include "server/loop/names.h"

#include <algorithm>
#include <new>

constinit std::atomic<CQelServer*> CQelServer::m_pInstance = nullptr;
constinit CFeatureSupply* CQelServer::m_pSupply = nullptr;

namespace {

// The millisecond part within the current second. Differences of it wrap where a second ends in between, on
// purpose: such a turn counts as a long one.
uint32_t millisecondOfSecond() {
    return static_cast<uint32_t>(nowTimeOfDay().tv_usec / 1000);
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
    if (m_pSupply != nullptr) {
        m_pSupply->startWatching();
    }
    return 1;
}

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

// An event that a dead daemon left behind is killed and created anew. Any other failure than that of the new
// creation leaves the daemon running without an event: it then ends by the service manager's notice.
bool CQelServer::initEvent() {
    uint32_t event = OS_EVENT_NONE;
    const int error = osCreateEvent(sServiceEventName, 0, &event);
    if (error == OS_ERROR_EXISTS) {
        bool isCreated = osOpenEvent(sServiceEventName, &event) == 0;
        if (isCreated) {
            osKillEvent(event);
            isCreated = osCreateEvent(sServiceEventName, 0, &event) == 0;
        }
        if (!isCreated) {
            logEvent(svError, 31003, "failed to create event.");
            clear();
            return false;
        }
    } else if (error != 0) {
        event = OS_EVENT_NONE;
    }
    m_nEvent = event;
    return true;
}

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

int CQelServer::run() {
    for (uint32_t turn = 1;; ++turn) {
        const uint32_t start = millisecondOfSecond();
        if (turn % nAuditTurns == 0) {
            checkSignal();
        }
        processMessages();
        const uint32_t elapsed = millisecondOfSecond() - start;
        if (osReceiveEvent(m_nEvent.load(), waitAfter(elapsed)) == 0) {
            break;
        }
    }
    logEvent(svInfo, 31010, "recv stop event");
    return logEvent(svInfo, 31120, "main thread exited");
}

uint32_t CQelServer::waitAfter(uint32_t elapsed) {
    const uint32_t counted = std::min(elapsed, nMaxLoopDelay);
    return std::max(35 - counted, nMinLoopDelay);
}

int CQelServer::processMessages() {
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
    control->audit();
    control->timeout();
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
