#include "source/CFeatureSource.h"

#include "base/clock.h"
#include "features/CFeatureMerge.h"
#include "features/CQelControl.h"
#include "features/counters.h"
#include "messaging/wire/wire.h"
#include "platform/mfw.h"
#include "server/log/log.h"
#include "source/events.h"
#include "source/list/list_paths.h"

#include <csignal>
#include <new>
#include <system_error>
#include <thread>

namespace {

// How long the thread waits at rest before it looks at the file without an event. It saves wake-ups of an idle
// appliance, and bounds how late a change is found that inotify does not report.
constexpr int nRestPeriods = 4;
constexpr uint32_t nNoteLength = 4; // bytes, without meaning

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

// The source whose thread runs, for the callback, which the framework gives no place for a pointer. Never
// destroyed. Only the main thread's.
CFeatureSource* pWatching = nullptr;

void tellRestart() {
    logEvent(svWarning, evRestartNeeded,
             "a feature added or changed takes effect with a restart of the appliance");
}

} // namespace

CFeatureSource& CFeatureSource::instance() {
    static auto* const source = new CFeatureSource(featureListPath(), stateDirectory());
    return *source;
}

CFeatureSource::CFeatureSource(std::string path, std::string stateDirectory, std::chrono::milliseconds period)
    : m_oLoader(path, stateDirectory.empty() ? "" : keptListPath(stateDirectory)),
      m_oKept(std::move(stateDirectory)), m_oWatch(path), m_nPeriod(period), m_oReading(period) {
    m_oState.m_sPath = std::move(path);
}

// Reads on the main thread: nothing is served before the first list is in force. Once the thread runs, the
// loader is the thread's, so a second call (init() after a clear()) only tells whether there is a list.
bool CFeatureSource::supply(CQelControl& control) {
    if (m_bThread) {
        return isInForce();
    }
    m_pControl = &control;
    m_oHandOver.emplace(control);
    readList();
    if (!m_oLoader.hasAccepted()) {
        readKept();
    }
    takeMail();
    return isInForce();
}

// The callback first: without it every note would be wasted. A clean-up of the framework forgets it, so a
// second call registers it again, while the thread is started once.
void CFeatureSource::startWatching() {
    if (m_pControl == nullptr) {
        return;
    }
    pWatching = this;
    const auto callback = [](uint16_t, uint32_t, const sOvuMfwMessage*, uint32_t) {
        beginWork();
        pWatching->takeMail();
    };
    if (const int error = OvuMfwRegisterCallback(nQelSourceMfwMsgId, callback)) {
        logEvent(svError, evTrouble, "feature list: changes cannot be handed over, no callback: error %d",
                 error);
    } else if (!m_bThread) {
        startThread();
    }
}

// Without a thread the daemon serves the first list, and takes up changes with a restart. Detached, since
// nobody ever joins it: it runs until the process ends.
void CFeatureSource::startThread() {
    constexpr auto tell = [](const char* reason) {
        logEvent(svError, evTrouble, "feature list: changes are not watched, no thread: %s", reason);
    };
    try {
        const CSignalsBlocked blocked;
        std::thread([this] { watch(); }).detach();
        m_bThread = true;
        logEvent(svInfo, evWatching, "feature list %s: watching for changes", m_oLoader.path().c_str());
    } catch (const std::system_error& fault) {
        tell(fault.what());
    } catch (const std::bad_alloc&) {
        tell("out of memory");
    }
}

void CFeatureSource::watch() {
    for (;;) {
        turn();
    }
}

// Work that is left keeps the waits short, so that the next note follows within a period. Notes are sent from
// here, and not from the main loop to itself, because this thread has the clock for them anyway. While a writer
// is at the file, an attempt that is due waits for him: the change brings it anyway.
//
// What was taken is kept at the begin of the next turn: the main loop need not wait for the disk.
void CFeatureSource::turn() {
    m_oKept.save();
    const bool isBusy = m_bNoted || m_oReading.isFailing() || !m_oWatch.isAtRest();
    const bool isChanged = m_oWatch.wait(isBusy ? m_nPeriod : nRestPeriods * m_nPeriod);
    const bool isDue = m_oReading.isDue(std::chrono::steady_clock::now()) && !m_oWatch.isChanging();
    if (isChanged || isDue || m_oLoader.isTrustChanged()) {
        readList();
    }
    m_bNoted = isWorkLeft();
    if (m_bNoted) {
        sendNote();
    }
}

// The mail is made first: once the loader has accepted a list it does not give it out again, so from there on
// nothing may fail. The texts for a shortage of memory are short enough to need none themselves.
void CFeatureSource::readList() {
    CMail mail;
    SLoaded loaded;
    try {
        mail = std::make_unique<SMail>();
        loaded = m_oLoader.load(*m_pControl);
    } catch (const std::bad_alloc&) {
        loaded.m_sFailure = "out of memory";
        SListReading& reading = loaded.m_oReading;
        reading.m_eResult = lrUnreadable;
        reading.m_tRead = nowSeconds();
        reading.m_nErrors = 1;
        reading.m_sErrors = "0: no memory";
    }
    tellReading(loaded.m_sFailure);
    if (loaded.m_bNew) {
        *mail = {std::move(loaded.m_vList), loaded.m_oReading};
    } else {
        mail.reset();
    }
    if (loaded.m_bNew || loaded.m_bKeptFirst) {
        m_oKept.take(std::move(loaded.m_sText));
    }
    if (loaded.m_bKeptFirst) {
        m_oKept.save();
    }
    post(std::move(loaded.m_oReading), std::move(mail));
}

// Logs the first failure of a row, and the end of the row.
void CFeatureSource::tellReading(const std::string& failure) {
    if (failure.empty()) {
        if (m_oReading.succeed()) {
            logEvent(svInfo, evTrouble, "feature list %s: reading works again", m_oLoader.path().c_str());
        }
    } else if (m_oReading.fail(std::chrono::steady_clock::now())) {
        logEvent(svError, evTrouble, "feature list %s: %s; trying again", m_oLoader.path().c_str(),
                 failure.c_str());
    }
}

// Where none is kept, or it is no good, there is no list. What is wrong with the operator's list has been
// told by then, so it is enough to say what is done about it.
void CFeatureSource::readKept() try {
    if (!m_oKept.isThere()) {
        return;
    }
    auto mail = std::make_unique<SMail>();
    SLoaded loaded = m_oLoader.loadKept(*m_pControl);
    if (!loaded.m_bNew) {
        logEvent(svWarning, evTrouble, "feature list: the one taken last cannot be used either: %s",
                 loaded.m_sFailure.c_str());
        return;
    }
    *mail = {std::move(loaded.m_vList), std::move(loaded.m_oReading)};
    logEvent(svWarning, evListRefused, "feature list %s: the one taken last is used instead, %zu features",
             m_oLoader.path().c_str(), mail->m_vList.size());
    post({}, std::move(mail));
} catch (const std::bad_alloc&) {
    logEvent(svWarning, evTrouble, "feature list: the one taken last cannot be used either: %s",
             "out of memory");
}

// What is given is destroyed without the lock, since destroying a long list takes time, in which the main
// loop would wait. A reading without a result is none of the operator's file.
void CFeatureSource::post(SListReading reading, CMail mail) {
    const std::lock_guard lock(m_oMailMutex);
    m_oNews.m_nTaken += reading.m_eResult == lrTaken ? 1 : 0;
    m_oNews.m_nRefused += reading.m_eResult == lrRefused ? 1 : 0;
    if (reading.m_eResult != lrNone) {
        std::swap(m_oNews.m_oLatest, reading);
    }
    if (mail != nullptr) {
        m_pMail.swap(mail);
    }
}

bool CFeatureSource::isWorkLeft() {
    const std::lock_guard lock(m_oMailMutex);
    return m_pMail != nullptr || m_oNews.m_oLatest.m_eResult != lrNone || m_bWaiting;
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

// On the main loop's thread. The lock is held for exchanges only. A new list goes first: it replaces what
// still waits of the older one.
void CFeatureSource::takeMail() {
    CMail mail;
    SNews news;
    {
        const std::lock_guard lock(m_oMailMutex);
        m_pMail.swap(mail);
        std::swap(m_oNews, news);
    }
    if (mail != nullptr) {
        takeNotice(std::move(news), mail->m_oReading);
        deliver(std::move(mail));
        return;
    }
    takeNotice(std::move(news), m_oState.m_oInForce);
    if (m_bWaiting) {
        carryOn();
    }
}

// A file that says the same as the kept list stands for it from then on. It was compared with the list accepted
// last, which may still be in the mail.
void CFeatureSource::takeNotice(SNews news, SListReading& accepted) {
    if (news.m_oLatest.m_eResult == lrNone) {
        return;
    }
    aCounters[coListsTaken] += news.m_nTaken;
    aCounters[coListsRefused] += news.m_nRefused;
    m_oState.m_oLatest = std::move(news.m_oLatest);
    if (m_oState.m_oLatest.m_eResult == lrUnchanged) {
        accepted.m_bKept = false;
        accepted.m_oSeal = m_oState.m_oLatest.m_oSeal;
    }
}

// A list that could not be handed over goes back, unless a newer one has come
// meanwhile: only the newest counts.
void CFeatureSource::deliver(CMail mail) {
    if (!handOver(*mail)) {
        const std::lock_guard lock(m_oMailMutex);
        if (m_pMail == nullptr) {
            m_pMail.swap(mail);
        }
    }
}

// False: nothing has changed, and the list is as it was. The audit of the well-known components comes last,
// so that those that it finds running are registered with the new list in the table.
bool CFeatureSource::handOver(SMail& mail) {
    const size_t count = mail.m_vList.size();
    const std::optional<CHandOver::SResult> result = m_oHandOver->apply(mail.m_vList);
    if (!result && !m_bShort) {
        logEvent(svError, evTrouble, "feature list %s: no memory to hand it over; trying again",
                 m_oLoader.path().c_str());
    }
    m_bShort = !result;
    if (!result) {
        return false;
    }
    m_oState.m_oInForce = std::move(mail.m_oReading);
    m_oState.m_tHandedOver = nowSeconds();
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
    return true;
}

void CFeatureSource::carryOn() {
    m_oHandOver->carryOn();
    setWaiting();
}

// Logged when the waiting begins, not for each note while it lasts.
void CFeatureSource::setWaiting() {
    const size_t waiting = m_oHandOver->waiting();
    if (waiting != 0 && !m_bWaiting) {
        logEvent(svInfo, evHeldBack,
                 "feature list: %zu features wait for a withdrawal or a modification to end", waiting);
    }
    m_bWaiting = waiting != 0;
}
