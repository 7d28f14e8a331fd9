// Asks the daemon for all viewers together, and keeps the copy that they are served from.
//
// One thread asks, at most one round a second, and only while somebody has looked within the last seconds: who
// watches costs the daemon the same as one who does. A round asks for
//
// - the summary, which has the number of the latest step (one small question),
// - the steps after the last known one, where there are any (a page has some 800),
// - one of components, counters and list, by turns; all three after a pause,
// - two pages of the patrol through the deliveries, a minute after the one before; of a reading that is owed
//   (CLiveView), up to sixteen: half of what the daemon, which takes one message a turn, can answer in a second.
//
// So the steady cost is two small questions a second, three where something happens, four on patrol. Summary and
// steps are published before the rest is asked for: a step is in the copy a second and two turns of the loop
// after it was taken at the latest, and viewers are told when to come for the next.
//
// Texts are made where somebody wants them, once for each version, and shared: what a viewer holds on to is
// a text, never the copy. All but the thread's own members are under one mutex, which is never held while the
// daemon is asked.
#ifndef QEL_WEB_CCOLLECTOR_H
#define QEL_WEB_CCOLLECTOR_H

#include "ctl/CTransitions.h"
#include "ctl/metrics.h"
#include "ctl/page.h"
#include "web/CCounterHour.h"
#include "web/CLiveView.h"

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

using SharedText = std::shared_ptr<const std::string>;

// A document, or why there is none.
struct SServed {
    SharedText m_pText;    // null: there is nothing newer; or nothing at all, if m_sWhyNot says so
    std::string m_sWhyNot; // nothing has been read yet, for this reason
    std::chrono::milliseconds m_tNext; // until there is likely to be more
};

class CCollector {
public:
    CCollector();
    ~CCollector(); // ends the thread; waits for the table that is being asked for
    CCollector(const CCollector&) = delete;
    CCollector& operator=(const CCollector&) = delete;

    // No more rounds; whoever waits for one is served with what there is.
    void end();

    // From any thread. Each counts as a look, and waits for a copy that is not older than some seconds; but not
    // for longer than some seconds: then the copy says so.
    //
    // The page's object; where `since` is a version that was told before, what has changed after it.
    SServed status(const std::string& since);
    SServed metrics(EMetricsFormat format);

private:
    using CClock = std::chrono::steady_clock;
    enum ETurn { tuComponents, tuCounters, tuList, nTurns };

    // On the thread:
    void run();
    bool awaitLook();
    EAsked round();
    EAsked askSummary();
    EAsked askSteps();
    EAsked askTurns();
    EAsked askTurn(ETurn turn);
    EAsked payDebts();
    EAsked readComponent(const std::string& name);
    EAsked readFeatures();
    EAsked beginReading(bool isOwed);
    EAsked readOn();
    bool goesOn(EAsked asked) const { return asked == EAsked::answered && !m_bEnding; }
    void giveUp();
    void conclude(EAsked asked, bool isShort);

    // Under the mutex:
    void look(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds patience);
    void publish();
    void renew();
    std::chrono::milliseconds untilNext() const;
    // What is known was told just now; if only that the daemon does not answer.
    bool isOfNow() const;
    std::string whyNot() const;
    CJson head() const;
    std::string wholeText();
    std::string changesText(uint64_t since);

    // The thread's own.
    CTransitions m_oSteps{0};
    uint32_t m_nDaemon = nNoHandle;
    std::unique_ptr<CStatusQuery> m_pQuery;
    std::array<CClock::time_point, nTurns> m_aAsked = {}; // when each was asked for last
    std::unique_ptr<SReading> m_pReading;                 // under way; null: none is
    bool m_bOwed = false;                                 // it is more than a patrol
    CStatusCursor m_oReadCursor;
    CClock::time_point m_tRead;       // when the latest reading ended
    CClock::duration m_tReadLength{}; // how long it took
    CClock::time_point m_tReadBegun;
    CClock::time_point m_tFeaturesRead; // when features were read by themselves
    CClock::time_point m_tFollowed;     // when all steps were known last

    std::mutex m_oMutex;
    std::condition_variable m_oLooked;   // somebody looks, or it ends
    std::condition_variable m_oRound;    // a round has ended
    std::atomic<bool> m_bEnding = false; // changed under the mutex
    CClock::time_point m_tLooked;
    CClock::time_point m_tRound;        // when the latest round began
    bool m_bAwaited = false;            // it has published nothing yet
    CClock::time_point m_tTold;         // and when one last published something
    CClock::duration m_tLength{};       // of the latest
    uint32_t m_nQuestions = 0;          // to the daemon, so far
    EAsked m_eAsked = EAsked::answered; // how the latest ended
    bool m_bShort = false;              // or memory ran out in it
    int64_t m_tSilent = 0;              // since when there is no answer, by the wall clock; 0: there is
    CLiveView m_oView;
    CCounterHour m_oHour;
    CPageStates m_oStates;
    uint64_t m_nVersion = 0; // of what is published
    // Which run of the program a version is of.
    std::string m_sRun;
    // Texts of this version.
    std::map<uint64_t, SharedText> m_oChanges; // by what was seen before
    SharedText m_pWhole;
    std::array<SharedText, 2> m_aMetrics; // by format

    std::thread m_oThread; // last: it uses all the others
};

#endif
