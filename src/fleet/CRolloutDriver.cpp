#include "fleet/CRolloutDriver.h"

#include "agent/fleet_topics.h"
#include "ctl/terminal.h"
#include "fleet/fleet_report.h"
#include "source/list/list_digest.h"

#include <ctime>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <pwd.h>
#include <random>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr auto tTurn = 200ms;
constexpr auto tSettle = 1500ms; // within which two that begin at one moment see each other
// Seconds, in which an appliance tells two states: where much changes at once, a refusal may be of the past.
constexpr int64_t nBadFor = 5;
constexpr size_t nMaxNamed = 5; // appliances in a message

int64_t now() {
    return std::time(nullptr);
}

} // namespace

std::vector<std::string> rolloutTopics(const SAgentConfig& config, const std::string& group) {
    const std::string& fleet = config.m_sFleet;
    std::vector<std::string> topics = {stateTopic(fleet, "+"), rolloutTopic(fleet, "+")};
    if (!group.empty()) {
        topics.insert(topics.end(), {applianceTopic(fleet, "+"), groupTopic(fleet, "+"),
                                     rolloutListTopic(fleet, group), previousTopic(fleet, group)});
    }
    return topics;
}

void holdTexts(CFleetView& view, const SAgentConfig& config, const std::string& group) {
    view.hold(groupTopic(config.m_sFleet, group));
    view.hold(previousTopic(config.m_sFleet, group));
    view.hold(rolloutListTopic(config.m_sFleet, group));
}

std::string overlapOf(const SRollout& rollout, const CFleetView& view) {
    for (const auto& [group, other] : view.rollouts()) {
        if (!other.isAlive() || other.m_sId == rollout.m_sId) {
            continue;
        }
        std::vector<std::string> common = inCommon(rollout, other);
        if (group == rollout.m_sGroup || !common.empty()) {
            const size_t more = common.size() - std::min(common.size(), nMaxNamed);
            common.resize(common.size() - more);
            return fmt::format("a rollout of {} to group {} is {}{}{}{} (qelctl fleet rollout shows it)",
                               other.m_nSerial, group, wordOf(other.m_eState),
                               common.empty() ? "" : ", and has in common: ", fmt::join(common, ", "),
                               more == 0 ? "" : fmt::format(" and {} more", more));
        }
    }
    return "";
}

std::string driverName() {
    const passwd* user = getpwuid(geteuid());
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    return fmt::format("{}@{} ({:08x})", user != nullptr ? user->pw_name : "?", host, std::random_device{}());
}

CRolloutDriver::CRolloutDriver(CFleetLink& link, const CFleetView& view, const std::string& fleet,
                               SRollout rollout, std::string list, bool isQuiet)
    : m_oLink(link), m_oView(view), m_sFleet(fleet), m_oRollout(std::move(rollout)), m_sList(std::move(list)),
      m_bQuiet(isQuiet) {
    m_oRollout.m_sDriver = driverName();
    m_oRollout.m_eState = ERolloutState::running;
    m_oRollout.m_sReason.clear();
    m_oRollout.m_tStep = now();
}

// Of two for the same group the broker keeps the one that was written last. Of two for different groups the
// one with the lower id goes on: both know both.
std::string CRolloutDriver::claim() {
    const std::string listTopic = rolloutListTopic(m_sFleet, m_oRollout.m_sGroup);
    if (!m_oLink.put(listTopic, m_sList)) {
        return "the broker is gone";
    }
    save();
    if (!m_oLink.flush()) {
        return "the broker is gone";
    }
    m_oLink.rest(tSettle);
    if (!m_oLink.denied().empty()) {
        return "the broker denies it: " + m_oLink.denied();
    }
    const auto mine = m_oView.rollouts().find(m_oRollout.m_sGroup);
    if (mine == m_oView.rollouts().end() || mine->second.m_sId != m_oRollout.m_sId) {
        return "another operator has begun a rollout to the same group at the same moment";
    }
    for (const auto& [group, other] : m_oView.rollouts()) {
        if (other.isAlive() && other.m_sId < m_oRollout.m_sId && !inCommon(m_oRollout, other).empty()) {
            const std::string overlap = overlapOf(m_oRollout, m_oView);
            return end(ERolloutState::aborted, overlap) ? overlap : "the broker is gone";
        }
    }
    return "";
}

CRolloutDriver::EEnd CRolloutDriver::drive() {
    if (!isOurs()) {
        return EEnd::taken;
    }
    publishStep();
    for (bool isLost = false;;) {
        if (isSignalled()) {
            return leave();
        }
        m_oLink.turn(tTurn);
        if (!m_oLink.isWhole()) {
            isLost = true;
            continue;
        }
        if (!m_oLink.denied().empty()) {
            return EEnd::denied;
        }
        if (!isOurs()) {
            return EEnd::taken;
        }
        if (std::exchange(isLost, false)) {
            save();
            publishStep();
        }
        if (noteReturned(m_oRollout, m_oView.reports())) {
            save();
        }
        beat();
        const SJudgement judgement = judge(m_oRollout, m_oView.reports(), now());
        report(judgement.m_oCounts, judgement.m_eVerdict != EVerdict::wait);
        if (!act(judgement)) {
            return EEnd::ended;
        }
    }
}

// False: it has come to its end. What the broker did not get is done anew.
bool CRolloutDriver::act(const SJudgement& judgement) {
    const bool isBad = judgement.m_eVerdict == EVerdict::stop;
    m_tBad = !isBad ? 0 : m_tBad == 0 ? now() : m_tBad;
    switch (judgement.m_eVerdict) {
    case EVerdict::wait:
        return true;
    case EVerdict::next:
        ++m_oRollout.m_nStep;
        beginStep();
        publishStep();
        return true;
    case EVerdict::finish:
        return !((m_oRollout.m_bByGroup || bringGroup()) &&
                 end(ERolloutState::done, judgement.m_oCounts.text()));
    case EVerdict::stop:
        return now() - m_tBad < nBadFor || !end(ERolloutState::stopped, judgement.m_sReason);
    }
    return true;
}

// What somebody else wrote holds from now on.
bool CRolloutDriver::isOurs() {
    const auto found = m_oView.rollouts().find(m_oRollout.m_sGroup);
    if (found == m_oView.rollouts().end()) {
        m_oRollout.m_eState = ERolloutState::aborted;
        m_oRollout.m_sReason = "it is no longer at the broker";
        return false;
    }
    const SRollout& other = found->second;
    if (other.m_sDriver == m_oRollout.m_sDriver && other.m_eState == ERolloutState::running) {
        return true;
    }
    m_oRollout = other;
    return false;
}

void CRolloutDriver::save() {
    m_oRollout.m_tBeat = now();
    // A loss is mended by the next: whoever is connected again reads what the broker has before he writes.
    (void)m_oLink.put(rolloutTopic(m_sFleet, m_oRollout.m_sGroup), printRollout(m_oRollout));
}

void CRolloutDriver::beat() {
    if (now() - m_oRollout.m_tBeat >= nBeatEvery || now() < m_oRollout.m_tBeat) {
        save();
    }
}

void CRolloutDriver::beginStep() {
    const size_t from = m_oRollout.m_nStep == 0 ? 0 : reachOf(m_oRollout, m_oRollout.m_nStep - 1);
    m_oRollout.m_tStep = now();
    noteAway(m_oRollout, m_oView.reports(), from);
    save();
}

bool CRolloutDriver::isReplaceable(const std::string& digest) const {
    return digest == m_oRollout.m_sDigest || (!digest.empty() && digest == m_oRollout.m_sReplaces);
}

void CRolloutDriver::publishStep() {
    const size_t reach = reachOf(m_oRollout, m_oRollout.m_nStep);
    tell(fmt::format("step {} of {} ({:g} %): {}", m_oRollout.m_nStep + 1, m_oRollout.m_vSteps.size(),
                     m_oRollout.m_vSteps[m_oRollout.m_nStep], counted(reach, "appliance")));
    if (m_oRollout.m_bByGroup) {
        (void)bringGroup(); // what is missing is seen when the connection is back
        return;
    }
    for (size_t i = 0; i < reach; ++i) {
        const std::string& name = m_oRollout.m_vAppliances[i];
        const auto own = m_oView.ownLists().find(name);
        const bool hasOwn = own != m_oView.ownLists().end();
        if (hasOwn && !isReplaceable(own->second.m_sDigest)) {
            tell(fmt::format("{} has been given a list of its own meanwhile: left alone", name));
        } else if (!hasOwn || own->second.m_sDigest != m_oRollout.m_sDigest) {
            (void)m_oLink.put(applianceTopic(m_sFleet, name), m_sList);
        }
        beat();
    }
}

// The list before is kept for an undo. One that undoes a rollout half way has the group's own list to keep,
// which it brings anew: then what was before that stays.
bool CRolloutDriver::bringGroup() {
    const std::string topic = groupTopic(m_sFleet, m_oRollout.m_sGroup);
    const std::string before = m_oView.held(topic);
    const std::string digest = printListDigest(listDigest(before));
    const bool isHalf =
        m_oRollout.m_bByGroup && !m_oRollout.m_sReplaces.empty() && digest != m_oRollout.m_sReplaces;
    if (digest == m_oRollout.m_sDigest) {
        return clearOwn();
    }
    if (!before.empty() && !isHalf && !m_oLink.put(previousTopic(m_sFleet, m_oRollout.m_sGroup), before)) {
        return false;
    }
    return m_oLink.put(topic, m_sList) && m_oLink.flush() && clearOwn();
}

bool CRolloutDriver::clearOwn() {
    const auto own = m_oView.ownLists(); // a copy: the echo of each message changes it
    for (const auto& [name, list] : own) {
        if (isReplaceable(list.m_sDigest) && !m_oLink.put(applianceTopic(m_sFleet, name), "")) {
            return false;
        }
    }
    return m_oLink.flush();
}

// False: the broker did not get it, and it is not so.
bool CRolloutDriver::end(ERolloutState state, const std::string& reason) {
    const SRollout before = m_oRollout;
    m_oRollout.m_eState = state;
    m_oRollout.m_sReason = reason;
    m_oRollout.m_sDriver.clear();
    save();
    if (state != ERolloutState::stopped) {
        (void)m_oLink.put(rolloutListTopic(m_sFleet, m_oRollout.m_sGroup), "");
    }
    if (!m_oLink.flush()) {
        m_oRollout = before;
        return false;
    }
    return true;
}

CRolloutDriver::EEnd CRolloutDriver::leave() {
    m_oRollout.m_sDriver.clear();
    save();
    (void)m_oLink.flush();
    return EEnd::interrupted;
}

// Once a second at most, but always what decides.
void CRolloutDriver::report(const SRolloutCounts& counts, bool isForced) {
    if (counts != m_oTold && (isForced || now() != m_tTold)) {
        m_oTold = counts;
        m_tTold = now();
        tell("  " + counts.text());
    }
}

void CRolloutDriver::tell(const std::string& text) const {
    if (!m_bQuiet) {
        fmt::print(stderr, "{}  {}\n", timeOfDay(now()), text);
    }
}
