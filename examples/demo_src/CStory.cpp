#include "CStory.h"

#include "cast.h"

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fmt/format.h>
#include <iterator>
#include <sstream>

namespace {

constexpr int nStartTime = 20;   // seconds; all of these are generous, for machines that have more to do
constexpr int nChangeTime = 90;  // three audit passes
constexpr int nGiveUpTime = 120; // four more
constexpr int nStopTime = 15;

std::string descriptionsBeside(const std::string& list) {
    return std::filesystem::path(list).replace_filename("descriptions.csv").string();
}

// For printf in a shell, within single quotes.
std::string escaped(const std::string& text) {
    std::string line;
    for (char c : text) {
        line += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    return line;
}

} // namespace

CStory::CStory(const std::string& programs, const std::string& list, const volatile sig_atomic_t& interrupted)
    : m_nInterrupted(interrupted), m_oStage(programs, descriptionsBeside(list)), m_sExampleList(list),
      m_oBefore(CDemoList::read(list)) {
    m_oBefore.insert(true, oCommonFeature);
    m_oBefore.insert(false, oSilentFeature);
    m_oAfter = m_oBefore;
    m_oAfter.find(nModifiedCode).m_nData += nModifiedBy;
    m_oAfter.remove(nWithdrawnCode);
    m_oAfter.insert(false, oAddedFeature);
}

int CStory::play() {
    try {
        introduce();
        bool played = openStage() && bringOnComponents() && changeList() && startSilent() && awaitChanges() &&
                      awaitGivingUp();
        if (m_nInterrupted == 0) {
            closeStage();
        }
        if (m_nInterrupted == 0) {
            return sumUp(played);
        }
        std::fputs("interrupted\n", stderr);
        return 128 + m_nInterrupted;
    } catch (const std::exception& error) {
        const std::string kept = m_oStage.keepTranscript();
        std::fputs(fmt::format("demo: {} (all that was said: {})\n", error.what(), kept).c_str(), stderr);
        return m_nInterrupted != 0 ? 128 + m_nInterrupted : 2;
    }
}

void CStory::introduce() {
    m_oNarrator.plain(fmt::format(
        R"(A daemon tells five components which features are theirs. One fetches its list and answers well, and
so does the example component; one refuses a feature; one holds two already; one never answers. While they
run the list changes: one feature comes, one changes, one goes. Giving the silent one up takes longest: a minute
and a half in all. Exit status 0 only if everything happened that had to happen.

By hand, in this directory, each program in a shell of its own, all with this environment:
  export QEL_RUNTIME_DIR=/tmp/qel QEL_DIAG=off QEL_DESCRIPTION={names}
  export QEL_FEATURE_LIST=/tmp/qel/features.toml QEL_LOG_FILE=/tmp/qel/qelserver.log
the list, with one feature more, for the door phone:
  mkdir $QEL_RUNTIME_DIR
  (grep -v ^count {list}; printf '{feature}') > $QEL_FEATURE_LIST
the daemon, the features in force, the components (each ends with Ctrl-C):
  {server} -run
  {ctl} list
  {good}
  {refusing}
  {example}
  {holding}
  {silent}
another list, at any time; what came of it; and the end:
  sed -i '/^code = {modified}$/,/^data/ s/^data.*/data = {data}/' $QEL_FEATURE_LIST
  {ctl} check $QEL_FEATURE_LIST
  tail $QEL_LOG_FILE
  {server} -stop)",
        fmt::arg("list", m_sExampleList), fmt::arg("names", descriptionsBeside(m_sExampleList)),
        fmt::arg("feature", escaped(printFeature(oSilentFeature))),
        fmt::arg("server", m_oStage.program("qelserver")), fmt::arg("ctl", m_oStage.program("qelctl")),
        fmt::arg("good", commandOf(sGood)), fmt::arg("refusing", commandOf(sRefusing)),
        fmt::arg("example", commandOf(sExample)), fmt::arg("holding", commandOf(sHolding)),
        fmt::arg("silent", commandOf(sSilent)), fmt::arg("modified", nModifiedCode),
        fmt::arg("data", m_oAfter.find(nModifiedCode).m_nData)));
    m_oNarrator.plain(fmt::format(R"(
The demonstration uses a directory of its own. Its copy of the list has, besides the door phone's, a feature
{}, which concerns the four that answer and stands first: the daemon pushes one feature every 8 to 12 s, each
answer brings on the next one, and so the changed list reaches all four at once.)",
                                  oCommonFeature.m_nCode));
}

bool CStory::openStage() {
    m_oNarrator.chapter("The daemon");
    m_oBefore.write(m_oStage.listPath());
    m_pDaemon = &m_oStage.startDaemon();
    m_oNarrator.tell(m_oStage.now(), "daemon", fmt::format("starts, process {}", m_pDaemon->pid()));
    const bool started = await("the daemon to take in its list", nStartTime, [this] {
        return m_oRecord.has({evListTaken, ""});
    });
    showList("before", false);
    return started;
}

bool CStory::bringOnComponents() {
    m_oNarrator.chapter("The components");
    return startGood() && startRefusing() && startExample() && startHolding();
}

bool CStory::startGood() {
    startComponent(sGood);
    return await("Telephony to fetch its list", nStartTime, [this] {
        return m_oRecord.has({cpMonitoring, sGood});
    });
}

bool CStory::startRefusing() {
    startComponent(sRefusing);
    const size_t features = m_oBefore.concerning(sRefusing).size();
    return await("Gateway to answer about all its features", nStartTime, [this, features] {
        return m_oRecord.count({cpAccepted, sRefusing}) + m_oRecord.count({cpRefused, sRefusing}) >= features;
    });
}

bool CStory::startExample() {
    startComponent(sExample);
    const size_t features = m_oBefore.concerning(sExample).size();
    return await("Voice to take up its features", nStartTime, [this, features] {
        return m_oRecord.count({cpTaken, sExample}) >= features;
    });
}

bool CStory::startHolding() {
    startComponent(sHolding);
    return await("the daemon to pass over what Tracing holds", nStartTime, [this] {
        return m_oRecord.has({evHeld, sHolding});
    });
}

void CStory::startComponent(const std::string& name) {
    std::istringstream words(commandOf(name));
    m_vComponents.push_back(&m_oStage.startComponent(name, {std::istream_iterator<std::string>(words), {}}));
}

std::string CStory::commandOf(const std::string& name) {
    if (name == sExample) {
        return fmt::format("{} {}", m_oStage.program("example-component"), name);
    }
    std::string process = name;
    process[0] = static_cast<char>(std::tolower(process[0]));
    std::string command =
        fmt::format("{} component {} --process {} --monitor", m_oStage.program("qelctl"), name, process);
    if (name == sSilent) {
        return command + " --answer none";
    }
    if (name == sGood) {
        return command + " --fetch";
    }
    if (name == sRefusing) {
        return fmt::format("{} --refuse {}", command, nRefusedCode);
    }
    command += " --hold";
    for (uint32_t code : aHeldCodes) {
        command += " " + pairText(code, m_oBefore.find(code).m_nData);
    }
    return command;
}

bool CStory::changeList() {
    m_oNarrator.chapter("The list changes");
    const SFeatureRecord& before = m_oBefore.find(nModifiedCode);
    const SFeatureRecord& gone = m_oBefore.find(nWithdrawnCode);
    const std::string text =
        fmt::format("adds {}, changes {} from {} to {}, withdraws {}",
                    pairText(oAddedFeature.m_nCode, oAddedFeature.m_nData), nModifiedCode, before.m_nData,
                    m_oAfter.find(nModifiedCode).m_nData, pairText(gone.m_nCode, gone.m_nData));
    m_oNarrator.tell(m_oStage.now(), "operator", m_oNarrator.good(text));
    for (uint32_t code : {nModifiedCode, nWithdrawnCode, oAddedFeature.m_nCode}) {
        m_oNarrator.single(code);
    }
    m_nChanged = m_oRecord.mark();
    m_oAfter.write(m_oStage.listPath());
    return await("the daemon to take in the list", nStartTime, [this] {
        return m_oRecord.has({evListTaken, ""}, m_nChanged);
    });
}

// Comes on when the list has changed, as the change begins the delivery of each feature anew, and before the
// next audit pass, which takes a feature that nobody waits for as settled.
bool CStory::startSilent() {
    startComponent(sSilent);
    return await("the door phone to get its feature", nStartTime, [this] {
        return m_oRecord.has({cpNotified, sSilent, oSilentFeature.m_nCode});
    });
}

bool CStory::awaitChanges() {
    return await("the daemon to push what changed: one feature every 8 to 12 s", nChangeTime,
                 [this] { return haveChangesArrived(); });
}

bool CStory::awaitGivingUp() {
    m_oNarrator.chapter("The silent one");
    return await("the door phone to be given up: a send every 8 to 12 s, three in all", nGiveUpTime, [this] {
        return m_oRecord.has({evGivenUp, sSilent});
    });
}

// Whatever went before, all are asked to end, and the daemon last.
void CStory::closeStage() {
    m_oNarrator.chapter("The end");
    showList("after", true);
    m_bClosing = true;
    for (const CProcess* component : m_vComponents) {
        component->send(SIGINT);
    }
    await("the components to end", nStopTime, [this] {
        return std::ranges::all_of(m_vComponents,
                                   [](CProcess* component) { return component->status().has_value(); });
    });
    m_oNarrator.tell(m_oStage.now(), "operator", m_oStage.program("qelserver") + " -stop");
    m_nStopStatus = m_oStage.call({m_oStage.program("qelserver"), "-stop"}).second;
    await("the daemon to end", nStopTime, [this] { return m_pDaemon->status().has_value(); });
    hearOut();
}

void CStory::showList(const std::string& when, bool settled) {
    const auto [lines, status] = m_oStage.call({m_oStage.program("qelctl"), "list"});
    m_oNarrator.tell(m_oStage.now(), "operator", m_oStage.program("qelctl") + " list");
    std::set<CDemoList::CPair> shown;
    bool active = true;
    for (const std::string& line : lines) {
        m_oNarrator.plain("             " + line);
        uint32_t code = 0;
        uint32_t data = 0;
        char word[16] = {};
        if (std::sscanf(line.c_str(), "%" SCNu32 " %" SCNu32 " %15s", &code, &data, word) == 3) {
            shown.emplace(code, data);
            active = active && word == std::string_view("active");
        }
    }
    const CDemoList& list = settled ? m_oAfter : m_oBefore;
    expect(fmt::format("the list {} shows the {} features in force{}", when, list.shown().size(),
                       settled ? ", all active" : ""),
           status == 0 && shown == list.shown() && (active || !settled));
}

bool CStory::await(const std::string& what, int seconds, const std::function<bool()>& condition) {
    const int64_t deadline = m_oStage.now() + seconds * int64_t{1000};
    while (m_nInterrupted == 0 && m_oStage.now() < deadline) {
        m_oStage.pump([this](const SEvent& event) { take(event); });
        m_oNarrator.tick(m_oStage.now(), what);
        if (condition()) {
            return true;
        }
        CProcess* dead = m_bClosing ? nullptr : m_oStage.findDead();
        if (dead != nullptr) {
            m_sDied = fmt::format("{} (status {})", dead->name(), dead->status().value_or(-1));
            m_oNarrator.tell(m_oStage.now(), dead->name(),
                             m_oNarrator.bad("ended before its time: " + m_sDied));
            return false;
        }
    }
    if (m_nInterrupted == 0) {
        m_oNarrator.tell(m_oStage.now(), "...",
                         m_oNarrator.bad(fmt::format("no longer waiting for {}", what)));
    }
    return false;
}

// What was said at last.
void CStory::hearOut() {
    m_oStage.pump([this](const SEvent& event) { take(event); }, true);
}

void CStory::take(const SEvent& event) {
    m_oRecord.add(event);
    m_oNarrator.listen(event);
}
