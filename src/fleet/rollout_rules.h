// When a rollout goes on, when it stops, and why. Knows neither broker nor clock.
//
// The steps are per cent of the rollout's appliances, in the order of their turn; a step includes the ones
// before it. Judged are all that were reached so far, by their latest word:
//
//     delivered   the list is in force, and everybody concerned has taken it
//     refused     the appliance or a component of it refuses
//     gave up     it cannot be placed, or a component was given up
//     silent      offline, but was there when it was reached; or said nothing for as long as patience lasts
//     away        offline since before it was reached: it takes the list when it returns, and does not count
//     pending     the rest
//
// Answered are the first four. Once as many have answered as --at-least says, or all of the step, the rollout
// stops if refused, gave up and silent are more than --stop-at per cent of those. It goes on if delivered are
// --success per cent of all but the away; and stops if all have answered and these are not enough.
#ifndef QEL_FLEET_ROLLOUT_RULES_H
#define QEL_FLEET_ROLLOUT_RULES_H

#include "fleet/SRollout.h"
#include "fleet/appliance_report.h"

#include <map>

using CReports = std::map<std::string, SApplianceReport, std::less<>>;

struct SRolloutCounts {
    size_t m_nReached = 0;
    size_t m_nDelivered = 0;
    size_t m_nRefused = 0;
    size_t m_nGaveUp = 0;
    size_t m_nSilent = 0;
    size_t m_nAway = 0;
    size_t m_nPending = 0;

    size_t bad() const { return m_nRefused + m_nGaveUp + m_nSilent; }
    size_t answered() const { return m_nDelivered + bad(); }
    std::string text() const; // "3 of 5 delivered, 1 refused"
    bool operator==(const SRolloutCounts&) const = default;
};

enum class EVerdict { wait, next, finish, stop };
struct SJudgement {
    EVerdict m_eVerdict = EVerdict::wait;
    std::string m_sReason; // of stop; of wait, where nobody is there
    SRolloutCounts m_oCounts;
};

// How many appliances have had their turn when this step is under way.
size_t reachOf(const SRollout& rollout, size_t step);
// In an order that is another with each rollout, so that not always the same go first; who is there goes
// before who is offline.
void orderAppliances(SRollout& rollout, const CReports& reports);
// At the begin of a step: notes who is offline. Later: forgets who has come back. True: something has
// changed.
bool noteAway(SRollout& rollout, const CReports& reports, size_t from);
bool noteReturned(SRollout& rollout, const CReports& reports);

SJudgement judge(const SRollout& rollout, const CReports& reports, int64_t now);

// Appliances that both have.
std::vector<std::string> inCommon(const SRollout& one, const SRollout& other);

#endif
