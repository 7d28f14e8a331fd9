// qelctl fleet status, qelctl fleet watch
#include "agent/fleet_topics.h"
#include "ctl/CTable.h"
#include "ctl/pairs.h"
#include "ctl/terminal.h"
#include "fleet/CFleetLink.h"
#include "fleet/commands.h"
#include "fleet/fleet_report.h"

#include <algorithm>
#include <ctime>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <map>
#include <set>

namespace {

using namespace std::chrono_literals;

bool isWanted(const SFleetOptions& options, const SApplianceReport& report) {
    return options.m_sGroup.empty() || std::find(report.m_vGroups.begin(), report.m_vGroups.end(),
                                                 options.m_sGroup) != report.m_vGroups.end();
}

CReports select(const SFleetOptions& options, const CFleetView& view) {
    CReports reports = view.reports();
    std::erase_if(reports, [&](const auto& entry) { return !isWanted(options, entry.second); });
    return reports;
}

std::string serialText(const SApplianceReport& report) {
    return report.m_nSerial == 0 ? "-" : std::to_string(report.m_nSerial);
}

EColour colourOf(EExitStatus status) {
    return status == exitRefused ? EColour::red : status == exitOk ? EColour::none : EColour::yellow;
}

// Where everybody is in one group at most, where a list came from says nothing.
bool hasSources(const CReports& reports) {
    return std::any_of(reports.begin(), reports.end(), [](const auto& entry) {
        return entry.second.m_vGroups.size() > 1 || sourceOf(entry.second) == "own";
    });
}

void printTable(const CReports& reports) {
    const bool withSource = hasSources(reports);
    std::vector<CTable::SColumn> columns = {{"APPLIANCE", CTable::EAlign::left, true}, {"SERIAL"},
                                            {"FROM", CTable::EAlign::left, true},      {"DELIVERED"},
                                            {"PROBLEMS", CTable::EAlign::left, true},  {"SEEN"}};
    if (!withSource) {
        columns.erase(columns.begin() + 2);
    }
    CTable table(columns);
    const int64_t now = std::time(nullptr);
    for (const auto& [name, report] : reports) {
        const std::string problem = problemOf(report);
        const std::string source = sourceOf(report);
        std::vector<CTable::SCell> row = {{name},
                                          {serialText(report)},
                                          {source.empty() ? "-" : source},
                                          {deliveredOf(report)},
                                          {problem.empty() ? "-" : problem, colourOf(statusOf(report))},
                                          {seenOf(report, now)}};
        if (!withSource) {
            row.erase(row.begin() + 2);
        }
        table.add(std::move(row));
    }
    table.print(stdout, lineWidth(stdout));
}

// By serial, the highest first.
std::map<uint64_t, size_t, std::greater<>> countSerials(const CReports& reports) {
    std::map<uint64_t, size_t, std::greater<>> counts;
    for (const auto& [name, report] : reports) {
        if (report.m_bInForce && report.m_nSerial != 0) {
            ++counts[report.m_nSerial];
        }
    }
    return counts;
}

std::string summarize(const CReports& reports) {
    const auto serials = countSerials(reports);
    if (serials.empty()) {
        return fmt::format("no serial is in force on any of {}", reports.size());
    }
    std::vector<std::string> parts;
    parts.reserve(serials.size());
    for (const auto& [serial, count] : serials) {
        parts.push_back(parts.empty()
                            ? fmt::format("{} is in force on {} of {}", serial, count, reports.size())
                            : fmt::format("{} on {}", serial, count));
    }
    return fmt::format("{}", fmt::join(parts, ", "));
}

void printStatusJson(const SAgentConfig& config, const CFleetView& view, const CReports& reports) {
    CJson document = jsonDocument("fleet status");
    document["fleet"] = config.m_sFleet;
    document["appliances"] = CJson::array();
    for (const auto& [name, report] : reports) {
        document["appliances"].push_back(toJson(name, report));
    }
    document["in_force"] = CJson::array();
    for (const auto& [serial, count] : countSerials(reports)) {
        document["in_force"].push_back({{"serial", serial}, {"appliances", count}});
    }
    document["rollouts"] = CJson::array();
    for (const auto& [group, rollout] : view.rollouts()) {
        document["rollouts"].push_back(toJson(rollout, view.reports()));
    }
    printJson(document);
}

std::vector<std::string> topicsOf(const SAgentConfig& config) {
    return {stateTopic(config.m_sFleet, "+"), rolloutTopic(config.m_sFleet, "+")};
}

// What a watcher is told of.
std::string lineOf(const SApplianceReport& report) {
    const std::string problem = problemOf(report);
    const std::string source = sourceOf(report);
    return fmt::format("{:>6}  {:<14}  {:>9}  {}", serialText(report), source.empty() ? "-" : source,
                       deliveredOf(report), problem.empty() ? "-" : problem);
}

// One run of watch.
class CFleetWatch {
public:
    CFleetWatch(const SFleetWatchOptions& options, const SAgentConfig& config)
        : m_oOptions(options), m_oView(config.m_sFleet), m_oLink(config, m_oView, topicsOf(config)) {}

    int run() {
        if (const std::string trouble = m_oLink.open(answerTime(m_oOptions)); !trouble.empty()) {
            complain(trouble);
            return exitNoDaemon;
        }
        const auto begin = std::chrono::steady_clock::now();
        const std::chrono::duration<double> length(m_oOptions.m_nSeconds);
        while (!isSignalled() && !std::ferror(stdout) &&
               (m_oOptions.m_nSeconds == 0 || std::chrono::steady_clock::now() - begin < length)) {
            if (m_oLink.isWhole()) {
                tell();
            }
            m_oLink.turn(250ms);
        }
        return !flushOutput() ? exitFailed : m_bRefusal ? exitRefused : exitOk;
    }

private:
    // After a loss of the connection everything comes anew, and what is as before is not told.
    void tell() {
        for (const auto& [name, report] : m_oView.reports()) {
            std::string line = lineOf(report);
            if (isWanted(m_oOptions, report) && m_oTold[name] != line) {
                print(name, report, line);
                m_oTold[name] = std::move(line);
            }
        }
        for (const auto& [group, rollout] : m_oView.rollouts()) {
            SRollout shown = rollout;
            shown.m_tBeat = 0;
            std::string line = printRollout(shown);
            if (std::exchange(m_oToldRollouts[group], line) != line && !m_oOptions.m_bQuiet) {
                printRolloutLine(rollout);
            }
        }
        std::fflush(stdout);
    }

    void print(const std::string& name, const SApplianceReport& report, const std::string& line) {
        m_bRefusal = m_bRefusal || statusOf(report) == exitRefused;
        if (m_oOptions.m_bQuiet) {
            return;
        }
        if (m_oOptions.m_bJson) {
            CJson document = jsonDocument("fleet watch");
            document["event"] = "appliance";
            document["time"] = std::time(nullptr);
            document.update(toJson(name, report));
            printJsonLine(document);
        } else {
            fmt::print("{}  {:<16}  {}\n", timeOfDay(std::time(nullptr)), name,
                       paint(line, colourOf(statusOf(report)), stdout));
        }
    }

    void printRolloutLine(const SRollout& rollout) const {
        if (m_oOptions.m_bJson) {
            CJson document = jsonDocument("fleet watch");
            document["event"] = "rollout";
            document["time"] = std::time(nullptr);
            document.update(toJson(rollout, m_oView.reports()));
            printJsonLine(document);
        } else {
            fmt::print("{}  rollout of {}\n", timeOfDay(std::time(nullptr)),
                       describe(rollout, m_oView.reports()));
        }
    }

    const SFleetWatchOptions& m_oOptions;
    CFleetView m_oView;
    CFleetLink m_oLink;
    std::map<std::string, std::string> m_oTold;
    std::map<std::string, std::string> m_oToldRollouts;
    bool m_bRefusal = false;
};

} // namespace

int runFleetStatus(const SFleetOptions& options) {
    SAgentConfig config;
    if (!readOperatorConfig(options, config)) {
        return exitFailed;
    }
    CFleetView view(config.m_sFleet);
    CFleetLink link(config, view, topicsOf(config));
    if (const std::string trouble = link.open(answerTime(options)); !trouble.empty()) {
        complain(trouble);
        return exitNoDaemon;
    }
    const CReports reports = select(options, view);
    if (options.m_bJson && !options.m_bQuiet) {
        printStatusJson(config, view, reports);
    } else if (!options.m_bQuiet) {
        printTable(reports);
        fmt::print("{}\n", summarize(reports));
        for (const auto& [group, rollout] : view.rollouts()) {
            if (rollout.m_eState != ERolloutState::done) {
                fmt::print("rollout of {}\n", describe(rollout, view.reports()));
            }
        }
    }
    EExitStatus status = reports.empty() ? exitNotYet : exitOk;
    for (const auto& [name, report] : reports) {
        status = worse(status, statusOf(report));
    }
    return flushOutput() ? status : exitFailed;
}

int runFleetWatch(const SFleetWatchOptions& options) {
    SAgentConfig config;
    return readOperatorConfig(options, config) ? CFleetWatch(options, config).run() : int{exitFailed};
}
