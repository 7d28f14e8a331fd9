// qelctl fleet apply, undo, rollout
#include "agent/fleet_topics.h"
#include "ctl/list_errors.h"
#include "ctl/list_signer.h"
#include "ctl/terminal.h"
#include "fleet/CFleetLink.h"
#include "fleet/CRolloutDriver.h"
#include "fleet/commands.h"
#include "fleet/fleet_report.h"
#include "source/list/list_digest.h"
#include "source/list/list_fields.h"
#include "source/list/whole_file.h"

#include <algorithm>
#include <ctime>
#include <fmt/format.h>
#include <random>

namespace {

using namespace std::chrono_literals;

constexpr auto tSettled = 3s; // a driver that is there sees a wish long before

int fail(const std::string& text, EExitStatus status = exitFailed) {
    complain(text);
    return status;
}

// What apply, undo and rollout have in common: a view of the fleet.
struct SFleetSession {
    SFleetSession(const SFleetOptions& options, const SAgentConfig& config)
        : m_oView(config.m_sFleet), m_oLink(config, m_oView, rolloutTopics(config, options.m_sGroup)) {
        if (!options.m_sGroup.empty()) {
            holdTexts(m_oView, config, options.m_sGroup);
        }
        m_sTrouble = m_oLink.open(answerTime(options));
    }

    const SRollout* rollout(const std::string& group) const {
        const auto found = m_oView.rollouts().find(group);
        return found == m_oView.rollouts().end() ? nullptr : &found->second;
    }

    CFleetView m_oView;
    CFleetLink m_oLink;
    std::string m_sTrouble; // not empty: there is no view
};

int finish(const SFleetOptions& options, const char* command, const SRollout& rollout,
           const CFleetView& view) {
    if (options.m_bJson && !options.m_bQuiet) {
        CJson document = jsonDocument(command);
        document["rollout"] = toJson(rollout, view.reports());
        document["rollout"]["counts"] = toJson(countsOf(rollout, view.reports()));
        printJson(document);
    } else if (!options.m_bQuiet) {
        fmt::print("rollout of {}\n", describe(rollout, view.reports()));
    }
    if (!flushOutput()) {
        return exitFailed;
    }
    const SRolloutCounts counts = countsOf(rollout, view.reports());
    const bool isRefused = counts.m_nRefused + counts.m_nGaveUp != 0;
    return rollout.m_eState == ERolloutState::done && isRefused ? exitRefused : statusOf(rollout);
}

int drive(const SFleetOptions& options, const char* command, CRolloutDriver& driver, const CFleetView& view) {
    using EEnd = CRolloutDriver::EEnd;
    if (const std::string trouble = driver.claim(); !trouble.empty()) {
        return fail(trouble);
    }
    const EEnd end = driver.drive();
    const SRollout& rollout = driver.rollout();
    if (end == EEnd::denied) {
        return fail("the broker denies it: see its access control", exitNoDaemon);
    }
    if (end == EEnd::interrupted) {
        complain(
            fmt::format("the rollout of {} stands at the broker, at step {} of {}, and nobody drives it: "
                        "'qelctl fleet rollout resume --group {}' goes on, with 'abort' it ends",
                        rollout.m_nSerial, rollout.m_nStep + 1, rollout.m_vSteps.size(), rollout.m_sGroup));
    }
    if (end == EEnd::taken) {
        complain(fmt::format("somebody else has taken the rollout: it is {}{}", wordOf(rollout.m_eState),
                             rollout.m_eState == ERolloutState::paused
                                 ? "; 'qelctl fleet rollout resume --group " + rollout.m_sGroup + "' goes on"
                                 : ""));
    }
    return finish(options, command, rollout, view);
}

// One run of apply or undo.
class CFleetApply {
public:
    CFleetApply(const SFleetApplyOptions& options, const SAgentConfig& config)
        : m_oOptions(options), m_oConfig(config), m_oRollout(options.m_oPlan) {}

    int run();

private:
    bool readFile();
    bool readBefore(const CFleetView& view);
    bool sign(uint64_t serial);
    void plan(const CFleetView& view);
    std::string whyLeftAlone(const CFleetView& view, const std::string& name,
                             const SApplianceReport& report) const;
    void tellPlan() const;
    void checkScope(const CFleetView& view) const;

    const SFleetApplyOptions& m_oOptions;
    const SAgentConfig& m_oConfig;
    SRollout m_oRollout;
    std::string m_sText;
    SListHead m_oHead;
};

int CFleetApply::run() {
    if (!m_oOptions.m_bUndo && !readFile()) {
        return exitFailed;
    }
    SFleetSession session(m_oOptions, m_oConfig);
    if (!session.m_sTrouble.empty()) {
        return fail(session.m_sTrouble, exitNoDaemon);
    }
    const CFleetView& view = session.m_oView;
    plan(view);
    if (const std::string overlap = overlapOf(m_oRollout, view); !overlap.empty()) {
        return fail(overlap);
    }
    if (view.unreadable().count(m_oOptions.m_sGroup) != 0) {
        return fail("the broker has a rollout to the group that this program cannot read");
    }
    if (m_oRollout.m_vAppliances.empty()) {
        return fail(fmt::format("no appliance of group {} takes its list from it", m_oOptions.m_sGroup));
    }
    if ((m_oOptions.m_bUndo && !readBefore(view)) || !sign(view.highestSerial())) {
        return exitFailed;
    }
    checkScope(view);
    noteAway(m_oRollout, view.reports(), 0);
    tellPlan();
    if (m_oOptions.m_bDryRun) {
        return exitOk;
    }
    CRolloutDriver driver(session.m_oLink, view, m_oConfig.m_sFleet, m_oRollout, m_sText,
                          m_oOptions.m_bQuiet);
    return drive(m_oOptions, m_oOptions.m_bUndo ? "fleet undo" : "fleet apply", driver, view);
}

bool CFleetApply::readFile() {
    SWholeFile file = readWholeFile(m_oOptions.m_sFile, nMaxListFileSize);
    m_sText = std::move(file.m_sText);
    if (!file.m_sError.empty()) {
        complain(printListError(m_oOptions.m_sFile, {0, file.m_sError}));
    }
    return file.m_sError.empty();
}

// Where the latest rollout went half way, the group's topic still has the list before it.
bool CFleetApply::readBefore(const CFleetView& view) {
    const std::string& group = m_oOptions.m_sGroup;
    const std::string& there = view.held(groupTopic(m_oConfig.m_sFleet, group));
    const bool isHalf =
        !m_oRollout.m_sReplaces.empty() && printListDigest(listDigest(there)) != m_oRollout.m_sReplaces;
    m_sText =
        view.held(isHalf ? groupTopic(m_oConfig.m_sFleet, group) : previousTopic(m_oConfig.m_sFleet, group));
    if (m_sText.empty()) {
        complain(fmt::format("the broker has no list before that of group {}", group));
    }
    return !m_sText.empty();
}

bool CFleetApply::sign(uint64_t highest) {
    highest = std::max(highest, parseListHead(m_sText).m_oHead.m_nSerial);
    if (highest >= nMaxListSerial) {
        complain("a serial that is the highest that there is has been seen: none can be above it");
        return false;
    }
    SSignedList list = signText(m_sText, m_oOptions.m_sKey, highest + 1);
    const std::string name = m_oOptions.m_bUndo ? "the list before" : m_oOptions.m_sFile;
    printErrors(name, list.m_oList.m_vErrors, list.m_oList.m_nErrors);
    if (!list.isSigned()) {
        if (!list.m_sError.empty()) {
            complain(printListError(name, {0, list.m_sError}));
        }
        return false;
    }
    m_oHead = list.m_oList.m_oHead;
    m_sText = std::move(list.m_sText);
    m_oRollout.m_nSerial = highest + 1;
    m_oRollout.m_sDigest = printListDigest(listDigest(m_sText));
    return true;
}

void CFleetApply::plan(const CFleetView& view) {
    m_oRollout.m_sId = fmt::format("{:08x}{:08x}", std::random_device{}(), std::random_device{}());
    m_oRollout.m_sGroup = m_oOptions.m_sGroup;
    m_oRollout.m_bByGroup = m_oOptions.m_bUndo;
    m_oRollout.m_tBegun = std::time(nullptr);
    const auto latest = view.rollouts().find(m_oOptions.m_sGroup);
    if (latest != view.rollouts().end() && !latest->second.isAlive() &&
        latest->second.m_eState != ERolloutState::done) {
        m_oRollout.m_sReplaces = latest->second.m_sDigest;
    }
    for (const auto& [name, report] : view.reports()) {
        const auto& groups = report.m_vGroups;
        if (std::find(groups.begin(), groups.end(), m_oOptions.m_sGroup) == groups.end()) {
            continue;
        }
        std::string why = whyLeftAlone(view, name, report);
        if (why.empty()) {
            m_oRollout.m_vAppliances.push_back(name);
        } else {
            m_oRollout.m_vLeftAlone.push_back({name, std::move(why)});
        }
    }
    orderAppliances(m_oRollout, view.reports());
}

std::string CFleetApply::whyLeftAlone(const CFleetView& view, const std::string& name,
                                      const SApplianceReport& report) const {
    const auto own = view.ownLists().find(name);
    if (own != view.ownLists().end() && own->second.m_sDigest != m_oRollout.m_sReplaces) {
        return "it has a list of its own";
    }
    for (const std::string& group : report.m_vGroups) {
        if (group == m_oOptions.m_sGroup) {
            break;
        }
        if (view.groupLists().count(group) != 0) {
            return "it takes the list of group " + group + " before";
        }
    }
    return "";
}

void CFleetApply::tellPlan() const {
    if (m_oOptions.m_bQuiet) {
        return;
    }
    fmt::print(stderr, "serial {} for {} of group {}\n", m_oRollout.m_nSerial,
               counted(m_oRollout.m_vAppliances.size(), "appliance"), m_oRollout.m_sGroup);
    for (const SLeftAlone& one : m_oRollout.m_vLeftAlone) {
        fmt::print(stderr, "{} is left alone: {}\n", one.m_sAppliance, one.m_sWhy);
    }
}

// A word beforehand: who refuses it says so in any case.
void CFleetApply::checkScope(const CFleetView& view) const {
    const auto& scope = m_oHead.m_vScope;
    const auto isNamed = [&](const std::string& name) {
        return std::find(scope.begin(), scope.end(), name) != scope.end();
    };
    const auto isMeant = [&](const std::string& name) {
        const auto& groups = view.reports().find(name)->second.m_vGroups;
        return isNamed(name) || std::any_of(groups.begin(), groups.end(), isNamed);
    };
    const auto& all = m_oRollout.m_vAppliances;
    const auto other = std::find_if_not(all.begin(), all.end(), isMeant);
    if (!scope.empty() && other != all.end()) {
        complain(fmt::format("the list's scope has neither {} nor a group of it: it will be refused there",
                             *other));
    }
}

// One run of rollout.
class CFleetRollout {
public:
    CFleetRollout(const SFleetRolloutOptions& options, const SAgentConfig& config)
        : m_oOptions(options), m_oConfig(config), m_oSession(options, config) {}

    int run() {
        if (!m_oSession.m_sTrouble.empty()) {
            return fail(m_oSession.m_sTrouble, exitNoDaemon);
        }
        if (m_oOptions.m_sWish.empty()) {
            return show();
        }
        const SRollout* rollout = m_oSession.rollout(m_oOptions.m_sGroup);
        if (rollout == nullptr) {
            return fail("the broker has no rollout to group " + m_oOptions.m_sGroup);
        }
        const bool isOver =
            rollout->m_eState == ERolloutState::done || rollout->m_eState == ERolloutState::aborted;
        const bool isPause = m_oOptions.m_sWish == "pause";
        if (isOver || (isPause && rollout->m_eState != ERolloutState::running)) {
            return fail(
                fmt::format("the rollout to group {} is {}", m_oOptions.m_sGroup, wordOf(rollout->m_eState)));
        }
        return m_oOptions.m_sWish == "resume"
                   ? resume(*rollout)
                   : put(*rollout, isPause ? ERolloutState::paused : ERolloutState::aborted);
    }

private:
    int show();
    int put(SRollout rollout, ERolloutState state);
    int resume(const SRollout& rollout);

    const SFleetRolloutOptions& m_oOptions;
    const SAgentConfig& m_oConfig;
    SFleetSession m_oSession;
};

int CFleetRollout::show() {
    CJson document = jsonDocument("fleet rollout");
    document["rollouts"] = CJson::array();
    EExitStatus status = exitOk;
    for (const auto& [group, rollout] : m_oSession.m_oView.rollouts()) {
        if (!m_oOptions.m_sGroup.empty() && group != m_oOptions.m_sGroup) {
            continue;
        }
        const EExitStatus one = statusOf(rollout);
        status = one == exitRefused || status == exitRefused ? exitRefused : std::max(status, one);
        if (!m_oOptions.m_bJson && !m_oOptions.m_bQuiet) {
            fmt::print("{}\n", describe(rollout, m_oSession.m_oView.reports()));
        }
        document["rollouts"].push_back(toJson(rollout, m_oSession.m_oView.reports()));
    }
    for (const std::string& group : m_oSession.m_oView.unreadable()) {
        complain(fmt::format("a rollout to group {} cannot be read", group));
    }
    if (m_oOptions.m_bJson && !m_oOptions.m_bQuiet) {
        printJson(document);
    } else if (document["rollouts"].empty() && !m_oOptions.m_bQuiet) {
        fmt::print("there is no rollout\n");
    }
    return flushOutput() ? status : exitFailed;
}

// The driver may write once more before he sees it: then it is written again.
int CFleetRollout::put(SRollout rollout, ERolloutState state) {
    rollout.m_eState = state;
    rollout.m_sReason = fmt::format("{} by {}", wordOf(state), driverName());
    rollout.m_sDriver.clear();
    CFleetLink& link = m_oSession.m_oLink;
    const std::string topic = rolloutTopic(m_oConfig.m_sFleet, rollout.m_sGroup);
    const auto end = std::chrono::steady_clock::now() + tSettled;
    bool isWritten = link.put(topic, printRollout(rollout)) && link.flush();
    while (isWritten && std::chrono::steady_clock::now() < end && link.denied().empty()) {
        link.rest(300ms);
        const SRollout* there = m_oSession.rollout(rollout.m_sGroup);
        if (there != nullptr && there->m_eState != state) {
            rollout.m_nStep = there->m_nStep;
            rollout.m_vAway = there->m_vAway;
            isWritten = there->m_eState == ERolloutState::running && link.put(topic, printRollout(rollout)) &&
                        link.flush();
        }
        if (isSignalled()) {
            break;
        }
    }
    if (isWritten && state == ERolloutState::aborted) {
        isWritten = link.put(rolloutListTopic(m_oConfig.m_sFleet, rollout.m_sGroup), "") && link.flush();
    }
    if (!isWritten || !link.denied().empty()) {
        return fail(link.denied().empty()
                        ? "it came to its end, or the broker is gone: it is not known whether that "
                          "was before"
                        : "the broker denies it: " + link.denied(),
                    exitNoDaemon);
    }
    if (m_oOptions.m_bJson || m_oOptions.m_bQuiet) {
        finish(m_oOptions, "fleet rollout", rollout, m_oSession.m_oView);
    } else {
        fmt::print("rollout of {}\n", describe(rollout, m_oSession.m_oView.reports()));
    }
    return flushOutput() ? exitOk : exitFailed;
}

int CFleetRollout::resume(const SRollout& rollout) {
    if (rollout.m_eState == ERolloutState::running && !isDriverless(rollout, std::time(nullptr))) {
        return fail(fmt::format("{} drives it, and was heard {} s ago", printable(rollout.m_sDriver),
                                std::time(nullptr) - rollout.m_tBeat));
    }
    if (const std::string overlap = overlapOf(rollout, m_oSession.m_oView); !overlap.empty()) {
        return fail(overlap);
    }
    const std::string text = m_oSession.m_oView.held(rolloutListTopic(m_oConfig.m_sFleet, rollout.m_sGroup));
    if (printListDigest(listDigest(text)) != rollout.m_sDigest) {
        return fail("the broker no longer has the rollout's list");
    }
    CRolloutDriver driver(m_oSession.m_oLink, m_oSession.m_oView, m_oConfig.m_sFleet, rollout, text,
                          m_oOptions.m_bQuiet);
    return drive(m_oOptions, "fleet rollout", driver, m_oSession.m_oView);
}

} // namespace

int runFleetApply(const SFleetApplyOptions& options) {
    SAgentConfig config;
    return readOperatorConfig(options, config) ? CFleetApply(options, config).run() : int{exitFailed};
}

int runFleetRollout(const SFleetRolloutOptions& options) {
    SAgentConfig config;
    return readOperatorConfig(options, config) ? CFleetRollout(options, config).run() : int{exitFailed};
}
