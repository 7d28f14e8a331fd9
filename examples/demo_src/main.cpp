// The demonstration: real processes get real features from a real daemon.
//
//     qel_demo PROGRAMS LIST      directory of the programs, and the example list
#include "CChronicle.h"
#include "CStage.h"
#include "script.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace {

constexpr auto oTurn = std::chrono::milliseconds(50); // between looks at what was said
constexpr int nExitUnplayable = 2;

volatile sig_atomic_t nInterrupted = 0; // the signal's number

std::string printFeature(const SFeatureRecord& feature, const char* end) {
    return fmt::format("[[feature]]{0}code = {1}{0}data = {2}{0}components = {3}{0}sourced = {4}{0}", end,
                       feature.m_nCode, feature.m_nData, feature.m_vComponents, feature.m_bSourced);
}

void writeList(const CFeatures& list, const std::string& path) {
    std::ofstream file(path);
    for (const SFeatureRecord& feature : list) {
        file << printFeature(feature, "\n");
    }
}

// Plays the script, with an ear on what the processes say.
class CStory {
public:
    CStory(std::string programs, std::string list)
        : m_sPrograms(std::move(programs)), m_sList(std::move(list)),
          m_sDescriptions(std::filesystem::path(m_sList).replace_filename("descriptions.csv")),
          m_oStage(m_oChronicle, m_sDescriptions) {
        const SFeatureList example = readFeatureList(m_sList);
        if (!example.isGood()) {
            throw std::runtime_error(printListError(m_sList, example.m_vErrors.front()));
        }
        m_vBefore = example.m_vFeatures;
        m_vBefore.insert(m_vBefore.begin(), oCommonFeature);
        m_vBefore.push_back(oSilentFeature);
        m_vAfter = m_vBefore;
        change(m_vAfter);
        writeList(m_vBefore, m_oStage.listPath());
        writeList(m_vAfter, m_oStage.listPath() + ".changed");
    }

    // The exit status: 0 if everything happened that had to happen.
    int play() {
        try {
            introduce();
            std::ranges::all_of(aSteps, [this](const SStep& step) { return perform(step, false); });
            std::ranges::for_each(aEnding, [this](const SStep& step) { perform(step, true); });
            if (nInterrupted == 0) {
                return sumUp() ? 0 : 1;
            }
        } catch (const std::exception& error) {
            if (nInterrupted == 0) { // a reader of ours that went away is no fault
                const std::string kept = m_oChronicle.keep(m_oStage.transcriptPath());
                fmt::print(stderr, "demo: {} (all that was said: {})\n", error.what(), kept);
                return nExitUnplayable;
            }
        }
        std::fputs("interrupted\n", stderr);
        return 128 + nInterrupted;
    }

private:
    void introduce() {
        std::string players;
        for (const SPart& part : aParts) {
            players += part.m_bStays ? commandOf(part) + "\n  " : "";
        }
        m_oChronicle.plain(fmt::format(sIntroduction, fmt::arg("list", m_sList),
                                       fmt::arg("names", m_sDescriptions),
                                       fmt::arg("feature", printFeature(oSilentFeature, "\\n")),
                                       fmt::arg("players", players), fmt::arg("programs", m_sPrograms)));
    }

    // False: the time is over, or the story cannot go on.
    bool perform(const SStep& step, bool ending) {
        if (nInterrupted != 0) {
            return false;
        }
        if (step.m_szChapter != nullptr) {
            m_oChronicle.chapter(step.m_szChapter);
        }
        const auto* part = std::ranges::find(aParts, step.m_sEnters, &SPart::m_sName);
        if (part != std::end(aParts)) {
            m_oStage.start(std::string(part->m_sName), commandOf(*part), part->m_bStays);
        }
        const int64_t deadline = m_oStage.now() + step.m_nSeconds * int64_t{1000};
        while (m_oStage.now() < deadline && nInterrupted == 0 && (ending || areThere(oNobodyDead))) {
            std::this_thread::sleep_for(oTurn);
            m_oStage.listen();
            m_oChronicle.tell(m_oStage.now(), step.m_szAwaited);
            if (*step.m_szUntil != '\0' ? areThere({step.m_szUntil}) : m_oStage.dismiss()) {
                return true;
            }
        }
        if (nInterrupted == 0) {
            m_oStage.say("...", fmt::format("no longer waiting for {}", step.m_szAwaited));
        }
        return false;
    }

    std::string commandOf(const SPart& part) const {
        return fmt::format(fmt::runtime(part.m_szCommand), m_sPrograms);
    }

    // The patterns that a pattern stands for.
    std::vector<std::string> fillIn(const std::string& pattern) const {
        if (pattern.find('{') == std::string::npos) {
            return {pattern};
        }
        const std::string speaker = pattern.substr(0, pattern.find(':'));
        const bool shown = speaker == "before" || speaker == "after";
        CFeatures features = speaker == "after" ? m_vAfter : m_vBefore;
        std::erase_if(features, [&](const SFeatureRecord& feature) {
            return shown ? feature.m_bSourced : std::ranges::count(feature.m_vComponents, speaker) == 0;
        });
        std::vector<std::string> patterns;
        for (const SFeatureRecord& feature : features) {
            patterns.push_back(fmt::format(fmt::runtime(pattern), feature.m_nCode, feature.m_nData,
                                           fmt::arg("count", features.size())));
        }
        return patterns;
    }

    bool areThere(const SLines& lines) const {
        const std::vector<std::string> patterns = fillIn(lines.m_sPattern);
        return !patterns.empty() && std::ranges::all_of(patterns, [&](const std::string& pattern) {
            const int times = m_oChronicle.count(pattern);
            return lines.m_nTimes < 0 ? times > 0 : times == lines.m_nTimes;
        });
    }

    bool sumUp() {
        m_oChronicle.chapter("Expected");
        bool allMet = true;
        for (const auto& [text, conditions] : aExpectations) {
            const bool met =
                std::ranges::all_of(conditions, [this](const SLines& lines) { return areThere(lines); });
            const std::string mark = m_oChronicle.paint(met ? mnGood : mnBad, met ? "ok     " : "MISSING");
            const size_t features = fillIn(conditions.front().m_sPattern).size();
            m_oChronicle.plain("  " + mark + "  " + fmt::format(fmt::runtime(text), features));
            allMet = allMet && met;
        }
        m_oChronicle.chapter("In all");
        m_oChronicle.plain(totals());
        if (!allMet) {
            m_oChronicle.plain(
                m_oChronicle.paint(mnBad, "  not everything happened that had to; all that was said: " +
                                              m_oChronicle.keep(m_oStage.transcriptPath())));
        }
        return allMet;
    }

    std::string totals() const {
        const auto count = [this](const char* pattern) { return m_oChronicle.count(pattern); };
        const int spared = count("daemon: already has feature");
        const int again = count(R"(daemon: .* again \(.*)");
        const int sent =
            count("daemon: audit comp") +
            count(R"(daemon: (?:replied|moded|notifying|audit|modifying|disabling) feature \(.*)");
        const int refused = count("daemon: .*: got reply(?! ok)");
        return fmt::format(
            "  deliveries {}, answers {}, resends {}, failures {}, sends spared {}; {:.1f} seconds",
            sent - spared - again, count("daemon: .*: got reply") - spared,
            again + count("daemon: timeout feature"),
            refused + count("daemon: feature: (?:failed|disable|modify) comp"), spared,
            static_cast<double>(m_oStage.now()) / 1000);
    }

    const std::string m_sPrograms;
    const std::string m_sList;
    const std::string m_sDescriptions;
    CChronicle m_oChronicle;
    CStage m_oStage;
    CFeatures m_vBefore; // the list at first, and after the change
    CFeatures m_vAfter;
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: qel_demo PROGRAMS LIST\n", stderr);
        return nExitUnplayable;
    }
    struct sigaction action = {};
    action.sa_handler = [](int signal) { nInterrupted = signal; };
    for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        sigaction(signal, &action, nullptr);
    }
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    try {
        return CStory(argv[1], argv[2]).play();
    } catch (const std::exception& error) {
        fmt::print(stderr, "demo: {}\n", error.what());
        return nExitUnplayable;
    }
}
