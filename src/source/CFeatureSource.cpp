#include "source/CFeatureSource.h"

#include "features/CFeatureMerge.h"
#include "features/CQelControl.h"
#include "messaging/wire/wire.h"
#include "platform/mfw.h"
#include "server/log/log.h"
#include "source/events.h"

#include <csignal>
#include <cstdlib>
#include <system_error>
#include <thread>

namespace {

constexpr auto oWatchPeriod = std::chrono::seconds(1); // of the look at the file, and of notes that wait
constexpr auto oRestPeriod = std::chrono::seconds(4);  // of the look, where nothing is under way
constexpr uint32_t nNoteLength = 4;                    // bytes, of no meaning

std::string listPath() {
    const char* path = std::getenv("QEL_FEATURE_LIST");
    return path != nullptr && *path != '\0' ? path : QEL_FEATURE_LIST;
}

// Signals are for the threads that wait for them; threads started meanwhile inherit the mask.
class CSignalsBlocked {
public:
    CSignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_oBefore);
    }
    ~CSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_oBefore, nullptr); }
    CSignalsBlocked(const CSignalsBlocked&) = delete;
    CSignalsBlocked& operator=(const CSignalsBlocked&) = delete;

private:
    sigset_t m_oBefore;
};

void tellRestart() {
    logEvent(svWarning, evRestartNeeded,
             "a feature added or changed takes effect with a restart of the appliance");
}

} // namespace

CFeatureSource& CFeatureSource::instance() {
    static auto* const source = new CFeatureSource(listPath());
    return *source;
}

CFeatureSource::CFeatureSource(std::string path) : m_oLoader(path), m_oWatch(std::move(path)) {}

bool CFeatureSource::supply(CQelControl& control) {
    if (m_bThread) {
        return m_bInForce;
    }
    m_pControl = &control;
    m_pHandOver = std::make_unique<CHandOver>(control);
    if (std::optional<CFreshList> list = readList()) {
        handOver(std::move(*list));
    }
    return m_bInForce;
}

void CFeatureSource::startWatching() {
    const auto callback = [](uint16_t, uint32_t, const sOvuMfwMessage*, uint32_t) { instance().takeMail(); };
    if (const int error = OvuMfwRegisterCallback(nQelSourceMfwMsgId, callback)) {
        logEvent(svError, evTrouble, "feature list: changes cannot be handed over, no callback: error %d",
                 error);
    } else if (!m_bThread && m_pControl != nullptr) {
        startThread();
    }
}

void CFeatureSource::startThread() {
    try {
        const CSignalsBlocked blocked;
        std::thread([this] { watch(); }).detach();
        m_bThread = true;
        logEvent(svInfo, evWatching, "feature list %s: watching for changes", m_oLoader.path().c_str());
    } catch (const std::system_error& fault) {
        logEvent(svError, evTrouble, "feature list: changes are not watched, no thread: %s", fault.what());
    }
}

void CFeatureSource::watch() {
    for (bool isNoted = true;;) { // a note may leave work behind; so may the first list
        if (m_oWatch.wait(isNoted || !m_oWatch.isAtRest() ? oWatchPeriod : oRestPeriod)) {
            if (std::optional<CFreshList> list = readList()) {
                post(std::move(*list));
            }
        }
        isNoted = isWorkLeft();
        if (isNoted) {
            sendNote();
        }
    }
}

// A list that does not fit into memory must not end the daemon.
std::optional<CFreshList> CFeatureSource::readList() {
    try {
        return m_oLoader.load(*m_pControl);
    } catch (const std::bad_alloc&) {
        logEvent(svError, evTrouble, "feature list %s: out of memory", m_oLoader.path().c_str());
        return std::nullopt;
    }
}

// The newest list is the one that counts: an older one that still waits is destroyed, outside the lock.
void CFeatureSource::post(CFreshList list) {
    auto mail = std::make_unique<CFreshList>(std::move(list));
    const std::lock_guard lock(m_oMailMutex);
    m_pMail.swap(mail);
}

bool CFeatureSource::isWorkLeft() {
    const std::lock_guard lock(m_oMailMutex);
    return m_pMail != nullptr || m_bWaiting;
}

void CFeatureSource::sendNote() {
    static const sOvuMfwMessage note = {};
    uint32_t handle = nNoHandle;
    int error = OvuMfwGetProcessHandle(nullptr, &handle);
    if (error == 0) {
        error = OvuMfwSendMessage(handle, nQelSourceMfwMsgId, 0, &note, nNoteLength);
    }
    if (error != 0 && !m_bNoteFailed) {
        logEvent(svWarning, evTrouble, "feature list: note to the main loop failed, error %d; trying on",
                 error);
    }
    m_bNoteFailed = error != 0;
}

void CFeatureSource::takeMail() {
    std::unique_ptr<CFreshList> mail;
    {
        const std::lock_guard lock(m_oMailMutex);
        mail.swap(m_pMail);
    }
    if (mail != nullptr) {
        handOver(std::move(*mail));
    } else if (m_bWaiting) {
        carryOn();
    }
}

void CFeatureSource::handOver(CFreshList list) {
    const size_t count = list.size();
    m_bInForce = true;
    const int result = m_pHandOver->apply(std::move(list));
    logEvent(svInfo, evHandedOver, "feature list %s: %zu features, handed over (result %d)",
             m_oLoader.path().c_str(), count, result);
    if (result == CFeatureMerge::rsRestart) {
        tellRestart();
    } else if (result == CFeatureMerge::rsWithdrawn) {
        logEvent(svInfo, evWithdrawn,
                 "feature list: features were withdrawn or told anew, or their data was lowered");
    }
    setWaiting();
    m_pControl->auditComponent();
}

void CFeatureSource::carryOn() {
    if (m_pHandOver->carryOn() != 0) {
        tellRestart();
    }
    setWaiting();
}

void CFeatureSource::setWaiting() {
    const size_t waiting = m_pHandOver->waiting();
    if (waiting != 0 && !m_bWaiting) {
        logEvent(svInfo, evHeldBack,
                 "feature list: %zu features wait for a withdrawal or a modification to end", waiting);
    }
    m_bWaiting = waiting != 0;
}
