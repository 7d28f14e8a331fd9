// How qelctl fleet tells of appliances and rollouts.
#ifndef QEL_FLEET_FLEET_REPORT_H
#define QEL_FLEET_FLEET_REPORT_H

#include "ctl/commands.h"
#include "ctl/json.h"
#include "fleet/CFleetView.h"

#include <string>

// How one appliance stands: exitOk where the list that it is to have is in force and all of it delivered.
EExitStatus statusOf(const SApplianceReport& report);
std::string deliveredOf(const SApplianceReport& report); // "398/412", or "-"
CJson toJson(const std::string& name, const SApplianceReport& report);

// As it stands; who waits while nobody drives it is not silent for that.
SRolloutCounts countsOf(const SRollout& rollout, const CReports& reports);
CJson toJson(const SRolloutCounts& counts);
// Beside what the broker keeps, the counts of one that lives: later lists change those of the others.
CJson toJson(const SRollout& rollout, const CReports& reports);
// "118 to group canary: running, step 2 of 3 (25 %): 3 of 5 delivered, 1 away"
std::string describe(const SRollout& rollout, const CReports& reports);
// exitOk: done. exitRefused: stopped, aborted. exitNotYet: may go on.
EExitStatus statusOf(const SRollout& rollout);
// Nobody has driven it for longer than a driver is silent.
bool isDriverless(const SRollout& rollout, int64_t now);

inline constexpr int64_t nBeatEvery = 5;  // seconds
inline constexpr int64_t nBeatIsOld = 30; // also where the clocks of two operators differ by some seconds

#endif
