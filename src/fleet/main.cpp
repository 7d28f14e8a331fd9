// qelctl fleet: the operator's command for many appliances. A program of its own, which qelctl starts, so
// that qelctl itself has no network library.
#include "ctl/terminal.h"
#include "fleet/commands.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdlib>
#include <exception>
#include <fmt/format.h>
#include <random>
#include <unistd.h>

namespace {

// "5%" or "5".
bool readPercent(std::string_view text, double& percent) {
    if (text.ends_with('%')) {
        text.remove_suffix(1);
    }
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), percent);
    return error == std::errc() && end == text.data() + text.size() && percent >= 0 && percent <= 100;
}

void addPercent(CLI::App& command, const std::string& name, double& percent, const std::string& meaning) {
    command
        .add_option_function<std::string>(
            name, [&percent](const std::string& text) { (void)readPercent(text, percent); }, meaning)
        ->check([](const std::string& text) {
            double number = 0;
            return readPercent(text, number) ? "" : "must be per cent, from 0 to 100";
        })
        ->option_text("PERCENT");
}

bool readSteps(std::string_view text, std::vector<double>& steps) {
    steps.clear();
    for (;;) {
        const size_t comma = text.find(',');
        double step = 0;
        if (!readPercent(text.substr(0, comma), step) || step <= (steps.empty() ? 0 : steps.back())) {
            return false;
        }
        steps.push_back(step);
        if (comma == std::string_view::npos) {
            return step == 100;
        }
        text.remove_prefix(comma + 1);
    }
}

void addCommon(CLI::App& command, SFleetOptions& options) {
    command.add_flag("--json", options.m_bJson, "Print JSON");
    command.add_flag("-q,--quiet", options.m_bQuiet, "Print errors only; the exit status tells the rest");
    command
        .add_option("--config", options.m_sConfig,
                    "The configuration (QEL_FLEET_CONFIG, " QEL_FLEET_CONFIG ")")
        ->option_text("FILE");
    command.add_option("--timeout", options.m_nTimeout, "How long the broker may take to answer (10)")
        ->check(CLI::Range(0.0, 1e6))
        ->option_text("SECONDS");
}

CLI::Option* addGroup(CLI::App& command, SFleetOptions& options, const char* meaning) {
    return command.add_option("--group", options.m_sGroup, meaning)
        ->check([](const std::string& name) { return isApplianceName(name) ? "" : "is no name of a group"; })
        ->option_text("GROUP");
}

void addChange(CLI::App& command, SFleetApplyOptions& options) {
    addCommon(command, options);
    addGroup(command, options, "To whom")->required();
    command.add_option("--key", options.m_sKey, "The private key to sign with, PEM")
        ->required()
        ->option_text("KEY");
    addPercent(command, "--success", options.m_oPlan.m_nSuccess,
               "Share that must have it before it goes on (95%)");
    addPercent(command, "--stop-at", options.m_oPlan.m_nStopAt,
               "Share of those that answered that may refuse, give up or fall silent (2%)");
    command
        .add_option("--at-least", options.m_oPlan.m_nAtLeast,
                    "So many must have answered before that is judged, or all of the step (10)")
        ->check(CLI::Range(1, 1000000))
        ->option_text("NUMBER");
    command
        .add_option("--patience", options.m_oPlan.m_nPatience,
                    "After so long a step counts who says nothing as silent (600)")
        ->check(CLI::Range(1, 10000000))
        ->option_text("SECONDS");
}

void addApply(CLI::App& command, SFleetApplyOptions& options) {
    command.add_option("FILE", options.m_sFile, "The feature list")->required();
    addChange(command, options);
    command
        .add_option_function<std::string>(
            "--steps",
            [&options](const std::string& text) { (void)readSteps(text, options.m_oPlan.m_vSteps); },
            "Per cent of the group, rising to 100 (5%,25%,100%)")
        ->check([](const std::string& text) {
            std::vector<double> steps;
            return readSteps(text, steps) ? "" : "must be per cents that rise to 100";
        })
        ->option_text("PERCENT,...");
    command.add_flag("--dry-run", options.m_bDryRun, "Tell what would be done, and do nothing");
}

struct SAllOptions {
    SFleetOptions m_oStatus;
    SFleetWatchOptions m_oWatch;
    SFleetApplyOptions m_oApply;
    SFleetApplyOptions m_oUndo;
    SFleetRolloutOptions m_oRollout;
};

void addAll(CLI::App& app, SAllOptions& all) {
    CLI::App& status =
        *app.add_subcommand("status", "Print which appliance has which list, and what is wrong there.");
    addCommon(status, all.m_oStatus);
    addGroup(status, all.m_oStatus, "Only appliances of this group");
    CLI::App& watch =
        *app.add_subcommand("watch", "Print each change of an appliance's state as it happens.");
    addCommon(watch, all.m_oWatch);
    addGroup(watch, all.m_oWatch, "Only appliances of this group");
    watch.add_option("--for", all.m_oWatch.m_nSeconds, "Stop after so long; 0: at SIGINT or SIGTERM")
        ->check(CLI::Range(0.0, 1e6))
        ->option_text("SECONDS");
    addApply(*app.add_subcommand("apply", "Sign a list, and put it in force in a group, step by step."),
             all.m_oApply);
    addChange(*app.add_subcommand("undo", "Put the group's list before back into force."), all.m_oUndo);
    CLI::App& rollout =
        *app.add_subcommand("rollout", "Show the rollouts; pause one, drive it on, or end it.");
    addCommon(rollout, all.m_oRollout);
    rollout.add_option("WISH", all.m_oRollout.m_sWish, "pause, resume or abort; without: show")
        ->check(CLI::IsMember({"pause", "resume", "abort"}))
        ->option_text("[pause|resume|abort]");
    addGroup(rollout, all.m_oRollout, "Of this group");
}

int run(int argc, char** argv) {
    SAllOptions all;
    for (SFleetApplyOptions* options : {&all.m_oApply, &all.m_oUndo}) {
        options->m_oPlan.m_nSuccess = 95;
        options->m_oPlan.m_nStopAt = 2;
        options->m_oPlan.m_nAtLeast = 10;
    }
    all.m_oApply.m_oPlan.m_vSteps = {5, 25, 100};
    all.m_oUndo.m_bUndo = true;
    CLI::App app("One signed list for many appliances, and their state in one place.", "qelctl fleet");
    app.require_subcommand(1);
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("qelctl fleet: ") + error.what() + " (--help tells more)\n";
    });
    addAll(app, all);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? exitOk : exitUsage;
    }
    if (!all.m_oRollout.m_sWish.empty() && all.m_oRollout.m_sGroup.empty()) {
        complain("--group says whose rollout (--help tells more)");
        return exitUsage;
    }
    const std::string name = app.get_subcommands().front()->get_name();
    return name == "status"    ? runFleetStatus(all.m_oStatus)
           : name == "watch"   ? runFleetWatch(all.m_oWatch)
           : name == "rollout" ? runFleetRollout(all.m_oRollout)
                               : runFleetApply(name == "undo" ? all.m_oUndo : all.m_oApply);
}

} // namespace

// An appliance cannot be called so: its name has no '@'.
bool readOperatorConfig(const SFleetOptions& options, SAgentConfig& config) {
    const char* named = std::getenv("QEL_FLEET_CONFIG");
    const std::string path = !options.m_sConfig.empty()             ? options.m_sConfig
                             : named != nullptr && named[0] != '\0' ? named
                                                                    : QEL_FLEET_CONFIG;
    config = readAgentConfig(path);
    for (const SListError& error : config.m_vErrors) {
        fmt::print(stderr, "{}\n", printListError(path, error));
    }
    config.m_sAppliance = fmt::format("@{}-{:08x}", getpid(), std::random_device{}());
    return config.m_vErrors.empty();
}

int main(int argc, char** argv) {
    setProgram("qelctl fleet");
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        complain(error.what());
        return exitFailed;
    }
}
