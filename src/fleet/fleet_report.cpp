#include "fleet/fleet_report.h"

#include "ctl/pairs.h"
#include "ctl/terminal.h"

#include <ctime>
#include <fmt/format.h>

namespace {

CJson textOrNull(const std::string& text) {
    return text.empty() ? CJson() : CJson(text);
}

CJson timeOrNull(int64_t time) {
    return time == 0 ? CJson() : CJson(time);
}

} // namespace

CJson toJson(const SRolloutCounts& counts) {
    return {{"reached", counts.m_nReached}, {"delivered", counts.m_nDelivered},
            {"refused", counts.m_nRefused}, {"gave_up", counts.m_nGaveUp},
            {"silent", counts.m_nSilent},   {"away", counts.m_nAway},
            {"pending", counts.m_nPending}};
}

SRolloutCounts countsOf(const SRollout& rollout, const CReports& reports) {
    const bool isDriven = rollout.m_eState == ERolloutState::running && !rollout.m_sDriver.empty();
    return judge(rollout, reports, isDriven ? std::time(nullptr) : rollout.m_tStep).m_oCounts;
}

EExitStatus statusOf(const SApplianceReport& report) {
    if (!report.m_bOnline) {
        return exitNotYet;
    }
    const bool isPlaced = report.m_sDesired.empty() || report.hasInForce(report.m_sDesired);
    if (report.m_sResult == "refused" || report.m_sResult == "failed" || report.m_nProblems != 0 ||
        report.m_sReadResult == "refused") {
        return exitRefused;
    }
    return report.m_bInForce && isPlaced && report.m_nUnderWay == 0 ? exitOk : exitNotYet;
}

std::string deliveredOf(const SApplianceReport& report) {
    return report.m_bDaemon ? fmt::format("{}/{}", report.m_nDelivered, report.deliveries()) : "-";
}

CJson toJson(const std::string& name, const SApplianceReport& report) {
    return {{"appliance", name},
            {"groups", report.m_vGroups},
            {"online", report.m_bOnline},
            {"left", timeOrNull(report.m_tLeft)},
            {"connected", timeOrNull(report.m_tConnected)},
            {"from", textOrNull(report.m_sTopic)},
            {"wanted_digest", textOrNull(report.m_sDesired)},
            {"placed", textOrNull(report.m_sResult)},
            {"in_force", report.m_bInForce},
            {"serial", report.m_nSerial == 0 ? CJson() : CJson(report.m_nSerial)},
            {"digest", textOrNull(report.m_sDigest)},
            {"signer", textOrNull(report.m_sSigner)},
            {"delivered", report.m_nDelivered},
            {"failed", report.m_nFailed},
            {"under_way", report.m_nUnderWay},
            {"idle", report.m_nIdle},
            {"problem", textOrNull(problemOf(report))}};
}

CJson toJson(const SRollout& rollout, const CReports& reports) {
    CJson json = CJson::parse(printRollout(rollout), nullptr, false);
    json.erase("schema"); // the broker's document has one of its own
    json["counts"] = rollout.isAlive() ? toJson(countsOf(rollout, reports)) : CJson();
    return json;
}

std::string describe(const SRollout& rollout, const CReports& reports) {
    std::string text = fmt::format("{} to group {}: {}, step {} of {} ({:g} %)", rollout.m_nSerial,
                                   rollout.m_sGroup, wordOf(rollout.m_eState), rollout.m_nStep + 1,
                                   rollout.m_vSteps.size(), rollout.m_vSteps[rollout.m_nStep]);
    text += rollout.isAlive() ? ": " + countsOf(rollout, reports).text() : "";
    if (!rollout.m_sReason.empty()) {
        text += fmt::format("\n  {}", printable(rollout.m_sReason));
    }
    if (rollout.m_eState == ERolloutState::running) {
        const int64_t now = std::time(nullptr);
        text += isDriverless(rollout, now)
                    ? fmt::format("\n  nobody drives it: qelctl fleet rollout resume --group {} goes on",
                                  rollout.m_sGroup)
                    : fmt::format("\n  driven by {}, heard {} s ago", printable(rollout.m_sDriver),
                                  std::max<int64_t>(now - rollout.m_tBeat, 0));
    }
    return text;
}

EExitStatus statusOf(const SRollout& rollout) {
    switch (rollout.m_eState) {
    case ERolloutState::running:
    case ERolloutState::paused:
        return exitNotYet;
    case ERolloutState::stopped:
    case ERolloutState::aborted:
        return exitRefused;
    case ERolloutState::done:
        return exitOk;
    }
    return exitFailed;
}

bool isDriverless(const SRollout& rollout, int64_t now) {
    return rollout.m_sDriver.empty() || now - rollout.m_tBeat >= nBeatIsOld;
}
