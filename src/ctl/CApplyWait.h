// Waits until the daemon has taken a list that was put in place, and has delivered what it changes.
#ifndef QEL_CTL_CAPPLYWAIT_H
#define QEL_CTL_CAPPLYWAIT_H

#include "ctl/CDaemonView.h"
#include "ctl/commands.h"
#include "ctl/list_state.h"
#include "ctl/pairs.h"
#include "ctl/terminal.h"
#include "source/list/feature_list.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

// Everything that is under way is waited for, whichever list has caused it. Who is dead or does not monitor is
// not told anything, and not waited for.
//
// The daemon has taken the list when the digests of the list in force and of the file as it was read last are
// those of its text, and its features those of the list: a feature may have to wait for another to leave. A daemon
// that does not tell which list is in force has taken it when its features are those of the list; and, if it had
// those before, when something has happened to them.
class CApplyWait {
public:
    // Asks the daemon how far it is; to be made before the list is put in place. `isProgress`: shows how far
    // it is on a terminal.
    CApplyWait(double seconds, bool isProgress);

    struct SWanted {
        const std::vector<SFeatureRecord>& m_vList; // the one in place
        uint64_t m_nDigest;                         // of its text
        bool m_bToldAgain; // whether there is one of its features that every new list has told
    };
    // Returns the exit status, and tells on stderr why there is no answer, or why the daemon refused the list.
    EExitStatus run(const SWanted& wanted);

    bool hasAnswered() const { return m_bRead; } // the following are known
    const SPairCounts& counts() const { return m_oCounts; }
    double seconds() const { return m_nSeconds; } // it took
    bool isTaken() const { return m_bTaken; }
    std::string text() const; // "5 of 5 delivered after 12.3 s"

private:
    using CClock = std::chrono::steady_clock;

    EAsked look(const SWanted& wanted);
    bool judgeTaken(const SWanted& wanted) const;
    bool isRefused(const SWanted& wanted) const;
    bool isInForce(const std::vector<SFeatureRecord>& list) const;
    bool isDue(const SSummaryView& summary) const;
    bool isDone() const { return m_bTaken && m_oCounts.m_nUnderWay == 0; }
    std::string progress() const;

    CStatusQuery m_oQuery;
    std::chrono::duration<double> m_tLimit;
    CProgressLine m_oProgress;
    std::optional<SSummaryView> m_oBefore; // nothing: no daemon answered
    CDaemonView m_oView;
    std::optional<SListView> m_oList; // nothing: the daemon is too old to tell
    CClock::time_point m_tRead;
    bool m_bRead = false;
    bool m_bTaken = false;
    SPairCounts m_oCounts;
    double m_nSeconds = 0;
};

#endif
