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

// How long the thread waits before it looks at the file without an event. The shorter time is also how often
// a note is repeated while there is work left; the longer one saves wake-ups of an idle appliance, and bounds
// how late a change is found that inotify does not report.
constexpr auto oWatchPeriod = std::chrono::seconds(1);
constexpr auto oRestPeriod = std::chrono::seconds(4);
constexpr uint32_t nNoteLength = 4; // bytes, without meaning

std::string listPath() {
    const char* path = std::getenv("QEL_FEATURE_LIST");
    return path != nullptr && *path != '\0' ? path : QEL_FEATURE_LIST;
}

// While it lives, threads that are started inherit a mask with all signals blocked. The source's thread waits
// for none: a signal must go to a thread that does, and not interrupt this one's reading.
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

// Reads on the main thread: nothing is served before the first list is in force. Once the thread runs, the
// loader is the thread's, so a second call (init() after a clear()) only tells whether there is a list.
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

// The callback first: without it every note would be wasted. A clean-up of the framework forgets it, so a
// second call registers it again, while the thread is started once.
void CFeatureSource::startWatching() {
    const auto callback = [](uint16_t, uint32_t, const sOvuMfwMessage*, uint32_t) { instance().takeMail(); };
    if (const int error = OvuMfwRegisterCallback(nQelSourceMfwMsgId, callback)) {
        logEvent(svError, evTrouble, "feature list: changes cannot be handed over, no callback: error %d",
                 error);
    } else if (!m_bThread && m_pControl != nullptr) {
        startThread();
    }
}

// Without a thread the daemon serves the first list, and takes up changes with a restart. Detached, since
// nobody ever joins it: it runs until the process ends.
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

// Work that is left keeps the waits short, so that the next note follows within a second. Notes are sent from
// here, and not from the main loop to itself, because this thread has the clock for them anyway.
void CFeatureSource::watch() {
    for (bool isNoted = true;;) { // the first list, too, may have left features waiting in the hand-over
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

// A list that does not fit into memory must not end the daemon: the list in force stays, and the next change
// of the file is a new attempt.
std::optional<CFreshList> CFeatureSource::readList() {
    try {
        return m_oLoader.load(*m_pControl);
    } catch (const std::bad_alloc&) {
        logEvent(svError, evTrouble, "feature list %s: out of memory", m_oLoader.path().c_str());
        return std::nullopt;
    }
}

// Only the newest list counts: it replaces an older one that the main loop has not taken yet. That one is
// destroyed after the lock is released (`mail` outlives `lock`), since destroying a long list takes time, in
// which the main loop would wait.
void CFeatureSource::post(CFreshList list) {
    auto mail = std::make_unique<CFreshList>(std::move(list));
    const std::lock_guard lock(m_oMailMutex);
    m_pMail.swap(mail);
}

bool CFeatureSource::isWorkLeft() {
    const std::lock_guard lock(m_oMailMutex);
    return m_pMail != nullptr || m_bWaiting;
}

// A note may fail, when the process's own queue is full or the endpoint is closed. It is sent again after a
// second, for the work stays; only the first failure of a row is logged. The handle is asked for each time,
// which costs nothing: it is the process's own.
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

// On the main loop's thread. The lock is held for the exchange of a pointer only. A new list goes first: it
// replaces what still waits of the older one.
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

// The audit of the well-known components comes last, so that those that it finds running are registered with
// the new list in the table.
void CFeatureSource::handOver(CFreshList list) {
    const size_t count = list.size();
    m_bInForce = true;
    const std::optional<CHandOver::SResult> result = m_pHandOver->apply(list);
    if (!result) {
        return;
    }
    logEvent(svInfo, evHandedOver, "feature list %s: %zu features, handed over (result %d)",
             m_oLoader.path().c_str(), count, result->m_nMerge);
    if (result->m_bRestart) {
        tellRestart();
    }
    if (result->m_nMerge == CFeatureMerge::rsWithdrawn) {
        logEvent(svInfo, evWithdrawn,
                 "feature list: features were withdrawn or told anew, or their data was lowered");
    }
    setWaiting();
    m_pControl->auditComponent();
}

void CFeatureSource::carryOn() {
    m_pHandOver->carryOn();
    setWaiting();
}

// Logged when the waiting begins, not for each note while it lasts.
void CFeatureSource::setWaiting() {
    const size_t waiting = m_pHandOver->waiting();
    if (waiting != 0 && !m_bWaiting) {
        logEvent(svInfo, evHeldBack,
                 "feature list: %zu features wait for a withdrawal or a modification to end", waiting);
    }
    m_bWaiting = waiting != 0;
}
