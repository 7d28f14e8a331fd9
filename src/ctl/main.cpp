// qelctl: the operator's command.
#include "client/qelclient.h"
#include "ctl/CDaemonView.h"
#include "ctl/commands.h"
#include "ctl/help.h"
#include "ctl/terminal.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <exception>
#include <fmt/format.h>

namespace {

constexpr char sNames[] =
    "Names come from the description file: QEL_DESCRIPTION in the environment, else the one compiled in.\n"
    "It has a line CODE,NAME for each feature; qelctl check --descriptions checks it.";

// The whole text, decimal, without sign or blanks, within 32 bits: std::from_chars allows nothing else here.
bool readNumber(std::string_view text, uint32_t& number) {
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

// 0:0 is no feature: on the wire it ends a list.
SFeature readPair(const std::string& text) {
    SFeature feature;
    size_t colon = text.find(':');
    std::string_view view(text);
    if (colon == std::string::npos || !readNumber(view.substr(0, colon), feature.m_nCode) ||
        !readNumber(view.substr(colon + 1), feature.m_nData) || feature == SFeature{}) {
        throw CLI::ValidationError("--hold", "'" + text + "' is not CODE:DATA");
    }
    return feature;
}

// The options of all commands: one is run, with its own.
struct SOptions {
    SListOptions m_oList;
    SStatusOptions m_oStatus;
    SWhyOptions m_oWhy;
    SWatchOptions m_oWatch;
    SWaitOptions m_oWait;
    SCheckOptions m_oCheck;
    SApplyOptions m_oApply;
    SApplyOptions m_oUndo;
    SSignOptions m_oSign;
    SVerifyOptions m_oVerify;
    SComponentOptions m_oComponent;
    SExplainOptions m_oExplain;
    SDaemonOptions m_oDaemon;
    SMetricsOptions m_oMetrics;
    SPageOptions m_oPage;
    std::string m_sHelp; // the command that help is asked for; empty: all
    bool m_bHelpJson = false;
};

// 0: no limit, and not worth telling.
void addSeconds(CLI::App& command, const std::string& name, double& seconds, const std::string& meaning) {
    command.add_option(name, seconds, seconds == 0 ? meaning : fmt::format("{} ({:g})", meaning, seconds))
        ->check(CLI::Range(0.0, 1e6))
        ->option_text("SECONDS");
}

void addCommon(CLI::App& command, SCommonOptions& options) {
    command.add_flag("--json", options.m_bJson, "Print JSON");
    command.add_flag("-q,--quiet", options.m_bQuiet, "Print errors only; the exit status tells the rest");
}

// Of a command that asks the daemon.
void addAsking(CLI::App& command, SCommonOptions& options) {
    addCommon(command, options);
    addSeconds(command, "--timeout", options.m_nTimeout, "How long each answer of the daemon may take");
}

constexpr char sArguments[] = "A feature is CODE, CODE:DATA or its name; a component is its name.";

void addList(CLI::App& command, SOptions& all) {
    addAsking(command, all.m_oList);
    command.footer(sNames);
}

void addStatus(CLI::App& command, SOptions& all) {
    addAsking(command, all.m_oStatus);
    command.add_option("WHAT", all.m_oStatus.m_sArgument, "A feature or a component, in detail");
    command.add_flag("-a,--all", all.m_oStatus.m_bAll, "Also what is delivered, and the daemon's counters");
    command.footer(
        std::string(sArguments) +
        "\nIn the matrix, . is a feature that does not concern the component, - one that it was not told of"
        "\nbefore it died.");
}

void addWhy(CLI::App& command, SOptions& all) {
    addAsking(command, all.m_oWhy);
    command.add_option("FEATURE", all.m_oWhy.m_sFeature, "Which feature")->required();
    command.add_option("COMPONENT", all.m_oWhy.m_sComponent, "At whom")->required();
    command.footer(sArguments);
}

void addWatch(CLI::App& command, SOptions& all) {
    addAsking(command, all.m_oWatch);
    command.add_option("WHAT", all.m_oWatch.m_sArgument, "Only of this feature or component");
    command
        .add_option("--since", all.m_oWatch.m_sSince, "Begin after this number; 0: with all that are kept")
        ->check(CLI::TypeValidator<uint64_t>("NUMBER"))
        ->option_text("NUMBER");
    addSeconds(command, "--for", all.m_oWatch.m_nSeconds, "Stop after so long; 0: at SIGINT or SIGTERM");
    command.footer(std::string(sArguments) + "\nExits with 3 if a refusal or a giving up was seen.");
}

void addWait(CLI::App& command, SOptions& all) {
    SWaitOptions& options = all.m_oWait;
    addCommon(command, options);
    command.add_option("WHAT", options.m_sFirst, "A feature or a component");
    command.add_option("COMPONENT", options.m_sSecond, "After a feature: at whom");
    command
        .add_option_function<std::string>(
            "--until", [&options](const std::string& word) { options.m_bDelivered = word == "delivered"; },
            "delivered: everybody concerned has it; settled: or has refused it, or was given up")
        ->check(CLI::IsMember({"delivered", "settled"}))
        ->option_text("delivered|settled");
    addSeconds(command, "--timeout", options.m_nSeconds, "How long to wait at most");
    command.footer(std::string(sArguments) + "\nComponents that are dead are waited for only if "
                                             "they are named.");
}

void addCheck(CLI::App& command, SOptions& all) {
    addCommon(command, all.m_oCheck);
    auto* files = command.add_option_group("Files", "At least one");
    files->add_option("FILE", all.m_oCheck.m_sList, "The feature list");
    files->add_option("--descriptions", all.m_oCheck.m_sDescriptions, "The description file")
        ->option_text("FILE");
    files->require_option(1, 2);
    command.footer(
        "Prints every error as FILE:LINE: text.\n"
        "A description file has a line CODE,NAME for each feature, such as 116,Hunt groups. Without\n"
        "quotes and comments; what follows a second comma is ignored.");
}

void addComponent(CLI::App& command, SOptions& all) {
    SComponentOptions& options = all.m_oComponent;
    // Static, because the option's function below runs only when the command line is parsed.
    static const std::map<std::string, EAnswer> answers = {
        {"ok", EAnswer::ok}, {"fail", EAnswer::fail}, {"none", EAnswer::none}};
    addCommon(command, options);
    // The library checks the name too, but only here can the operator be told what is wrong with it.
    command.add_option("NAME", options.m_sName, "Name to announce, 1 to 16 characters")
        ->required()
        ->check([](const std::string& name) {
            return name.empty() || name.size() > QEL_MAX_NAME ? "must have 1 to 16 characters" : "";
        });
    command
        .add_option_function<std::string>(
            "--answer", [&options](const std::string& word) { options.m_eAnswer = answers.at(word); },
            "How to answer notifications")
        ->check(CLI::IsMember({"ok", "fail", "none"}))
        ->option_text("ok|fail|none");
    command.add_option("--refuse", options.m_vRefused, "Answer fail for these codes")
        ->option_text("CODE ...");
    command
        .add_option_function<std::vector<std::string>>(
            "--hold",
            [&options](const std::vector<std::string>& pairs) {
                for (const auto& pair : pairs) {
                    options.m_vHeld.push_back(readPair(pair));
                }
            },
            "Announce these features as held already")
        ->option_text("CODE:DATA ...");
    command.add_flag("--fetch", options.m_bFetch, "Fetch the list");
    command.add_flag("--monitor", options.m_bMonitor, "Start monitoring, to be notified of changes");
    addSeconds(command, "--for", options.m_nSeconds, "Stop after so long; 0: at SIGINT or SIGTERM");
    command.add_flag("--take-over", options.m_bTakeOver, "Even if a process of that name lives");
    command.add_flag("--wait", options.m_bWait, "Wait for a daemon that is not running yet");
    command.add_option("--process", options.m_sProcess, "Name of this process on the message framework")
        ->option_text("NAME");
    command.footer(
        std::string("-> is sent, <- is received. A name that a living process has announced is refused.\n") +
        sNames);
}

void addDaemon(CLI::App& command, SOptions& all) {
    SDaemonOptions& options = all.m_oDaemon;
    addCommon(command, options);
    command.add_option("--script", options.m_sScript, "What to do and to expect, a step a line")
        ->required()
        ->option_text("FILE");
    command
        .add_option("--within", options.m_nWithin, "How long to wait for what the script gives no time (5)")
        ->check(CLI::Range(0.0, 3600.0))
        ->option_text("SECONDS");
    command.add_option("COMMAND", options.m_vCommand, "Behind --: starts the component")
        ->option_text("[ARGUMENT ...]");
    command.footer("Prints TAP. Steps: list, enable, modify, disable, overdue, expect, wait, silent, die, "
                   "start, restart,\n"
                   "and of the component that COMMAND starts: stop, kill, run. Without COMMAND, "
                   "QEL_RUNTIME_DIR says where\n"
                   "to play. Exits with 3 if the component did something else than was expected, with 4 if "
                   "it did not do\n"
                   "it in time.");
}

void addChange(CLI::App& command, SApplyOptions& options) {
    addCommon(command, options);
    command.add_option("--list", options.m_sList, "The list in place, if not the daemon's own")
        ->option_text("PATH");
    command
        .add_option("--key", options.m_sKey,
                    "Sign it on the way, with this private key, and raise its serial")
        ->option_text("KEY");
    command.add_flag("--dry-run", options.m_bDryRun, "Show what would change, and change nothing");
    command.add_flag("!--no-wait", options.m_bWait, "Do not wait until it is delivered");
    addSeconds(command, "--timeout", options.m_nSeconds, "How long to wait at most");
    command.footer("The daemon's list is that of QEL_FEATURE_LIST in the environment, else the one compiled "
                   "in.\nThe lists before it are kept beside it, as PATH.1 (the latest) to PATH.5.");
}

void addApply(CLI::App& command, SOptions& all) {
    command.add_option("FILE", all.m_oApply.m_sFile, "The new feature list")->required();
    command.add_flag("--force", all.m_oApply.m_bForce, "Even if more than a fifth of the features go");
    addChange(command, all.m_oApply);
}

void addUndo(CLI::App& command, SOptions& all) {
    addChange(command, all.m_oUndo);
}

void addSign(CLI::App& command, SOptions& all) {
    addCommon(command, all.m_oSign);
    command.add_option("FILE", all.m_oSign.m_sFile, "The feature list")->required();
    command.add_option("--key", all.m_oSign.m_sKey, "The private key, PEM")->required()->option_text("KEY");
    command
        .add_option("--serial", all.m_oSign.m_sSerial, "Write this serial, or the one after the list's own")
        ->check([](const std::string& text) {
            uint64_t number = 0;
            const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
            const bool isNumber = error == std::errc() && end == text.data() + text.size() && number != 0;
            return text == "next" || isNumber ? "" : "must be 'next' or a number from 1 on";
        })
        ->option_text("NUMBER|next");
    command.footer(
        "The signature becomes the last line of the file, in place of an older one. Without --serial "
        "nothing else changes.");
}

void addVerify(CLI::App& command, SOptions& all) {
    addCommon(command, all.m_oVerify);
    command.add_option("FILE", all.m_oVerify.m_sFile, "The feature list")->required();
    command
        .add_option("--trust", all.m_oVerify.m_sTrust,
                    "The directory of certificates, if not the daemon's own")
        ->option_text("DIR");
    command.footer("The daemon's is that of QEL_TRUST_DIR in the environment, else the one compiled in.");
}

void addExplain(CLI::App& command, SOptions& all) {
    addCommon(command, all.m_oExplain);
    command.add_option("EVENT", all.m_oExplain.m_vWords, "Its number, or a line of the log")->required();
    command.footer("Asks no daemon. The line may have time, host and program before its text.");
}

void addOutput(CLI::App& command, SCommonOptions& common, std::string& path) {
    command.add_option("-o,--output", path, "Write this file, in one step")->option_text("FILE");
    addSeconds(command, "--timeout", common.m_nTimeout, "How long each answer of the daemon may take");
}

void addMetrics(CLI::App& command, SOptions& all) {
    addOutput(command, all.m_oMetrics, all.m_oMetrics.m_sOutput);
    command
        .add_option_function<std::string>(
            "--format", [&all](const std::string& word) { all.m_oMetrics.m_bOldFormat = word == "text"; },
            "OpenMetrics, or the text format before it")
        ->check(CLI::IsMember({"openmetrics", "text"}))
        ->option_text("openmetrics|text");
    command.footer("Where no daemon answers, it prints qel_up 0 and exits with 2.");
}

void addPage(CLI::App& command, SOptions& all) {
    addOutput(command, all.m_oPage, all.m_oPage.m_sOutput);
    command.footer("HTML that needs nothing else: to be looked at in a browser, or to go with a ticket.");
}

void addSchema(CLI::App& command, SOptions&) {
    command.footer("Editors that know it check a list while it is written.");
}

void addFleet(CLI::App& command, SOptions&) {
    command.footer(
        "status, watch, apply, undo, rollout: qelctl fleet --help tells more.\n"
        "The configuration is that of QEL_FLEET_CONFIG in the environment, else /etc/qel/fleet.toml.");
}

void addHelp(CLI::App& command, SOptions& all) {
    command.add_option("COMMAND", all.m_sHelp, "Which command");
    command.add_flag("--json", all.m_bHelpJson, "Print JSON, of all commands");
}

struct SCommand {
    const char* m_szName;
    const char* m_szSummary;
    void (*m_fnAdd)(CLI::App& command, SOptions& options);
    int (*m_fnRun)(const SOptions& options); // null: help and fleet, which run() sees to
};

constexpr SCommand aCommands[] = {
    {"list", "Print the features in force, as the running daemon tells them.", addList,
     [](const SOptions& options) { return runList(options.m_oList); }},
    {"status", "Print which component has what, problems first.", addStatus,
     [](const SOptions& options) { return runStatus(options.m_oStatus); }},
    {"why", "Tell how a feature's delivery to a component came to be as it is, and what happens next.",
     addWhy, [](const SOptions& options) { return runWhy(options.m_oWhy); }},
    {"watch", "Print each step of the deliveries as it happens.", addWatch,
     [](const SOptions& options) { return runWatch(options.m_oWatch); }},
    {"wait", "Wait until everything, a feature or a component is delivered.", addWait,
     [](const SOptions& options) { return runWait(options.m_oWait); }},
    {"check", "Check a feature list, a description file, or both, without a daemon.", addCheck,
     [](const SOptions& options) { return runCheck(options.m_oCheck); }},
    {"apply", "Put a feature list in place, if it is good and meant.", addApply,
     [](const SOptions& options) { return runApply(options.m_oApply); }},
    {"undo", "Go back to the list before the latest apply.", addUndo,
     [](const SOptions& options) { return runUndo(options.m_oUndo); }},
    {"sign", "Sign a feature list, with a private key.", addSign,
     [](const SOptions& options) { return runSign(options.m_oSign); }},
    {"verify", "Tell who has signed a feature list, and whether that is to be trusted.", addVerify,
     [](const SOptions& options) { return runVerify(options.m_oVerify); }},
    {"component", "Be a component: print every message, answer as told.", addComponent,
     [](const SOptions& options) { return runComponent(options.m_oComponent); }},
    {"explain", "Tell what an event of the log means, and what to do.", addExplain,
     [](const SOptions& options) { return runExplain(options.m_oExplain); }},
    {"metrics", "Print what there is to count and measure, for those who keep graphs.", addMetrics,
     [](const SOptions& options) { return runMetrics(options.m_oMetrics); }},
    {"page", "Print all that the daemon tells as a page for a browser.", addPage,
     [](const SOptions& options) { return runPage(options.m_oPage); }},
    {"schema", "Print the JSON Schema of the feature list.", addSchema,
     [](const SOptions&) { return runSchema(); }},
    {"daemon", "Play the daemon by a script, to test a component.", addDaemon,
     [](const SOptions& options) { return runDaemon(options.m_oDaemon); }},
    {"fleet", "Many appliances: their state, and one signed list for all, step by step.", addFleet, nullptr},
    {"help", "Print this, or the help of a command.", addHelp, nullptr},
};

const SCommand* findCommand(std::string_view name) {
    const auto* found = std::find_if(std::begin(aCommands), std::end(aCommands),
                                     [&](const SCommand& command) { return command.m_szName == name; });
    return found == std::end(aCommands) ? nullptr : found;
}

int refuseCommand(std::string_view name) {
    std::vector<std::string_view> words;
    for (const SCommand& command : aCommands) {
        words.emplace_back(command.m_szName);
    }
    const std::string meant = nearest(name, words);
    complain(fmt::format("there is no command '{}'{} (--help tells more)", printable(name),
                         meant.empty() ? "" : fmt::format("; did you mean '{}'?", meant)));
    return exitUsage;
}

// A value that a script left empty must not stand for everything, or for nothing to be done.
void refuseEmpty(CLI::App& command) {
    const auto hasValue = [](const CLI::Option* option) { return option->get_items_expected_max() > 0; };
    for (CLI::Option* option : command.get_options(hasValue)) {
        option->check([](const std::string& text) { return text.empty() ? "must not be empty" : ""; });
    }
    for (CLI::App* group : command.get_subcommands({})) {
        refuseEmpty(*group);
    }
}

// `all` is the help of the program.
int printHelp(const CLI::App& app, const SOptions& options, const std::string& all) {
    if (options.m_bHelpJson) {
        printHelpAsJson(app);
        return flushOutput() ? exitOk : exitFailed;
    }
    const std::string& name = options.m_sHelp;
    if (!name.empty() && findCommand(name) == nullptr) {
        return refuseCommand(name);
    }
    fmt::print("{}", name.empty() ? all : app.get_subcommand(name)->help("qelctl"));
    return exitOk;
}

// app.parse() fills the options and checks them. Its exception for --help and --version is no error: app.exit()
// prints what is due and returns 0.
int run(int argc, char** argv) {
    if (argc > 1 && argv[1][0] != '-' && findCommand(argv[1]) == nullptr) {
        return refuseCommand(argv[1]);
    }
    if (argc > 1 && std::string_view(argv[1]) == "fleet") {
        return runFleet(argv + 1);
    }
    SOptions options;
    CLI::App app("Ask the feature daemon, check its list, or act as one of its components.", "qelctl");
    app.set_version_flag("--version", "qelctl " QEL_VERSION);
    app.require_subcommand(1);
    app.footer(helpFooter());
    // One line, in the form of complain(), instead of the whole help.
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("qelctl: ") + error.what() + " (--help tells more)\n";
    });
    for (const SCommand& command : aCommands) {
        CLI::App& added = *app.add_subcommand(command.m_szName, command.m_szSummary);
        command.m_fnAdd(added, options);
        refuseEmpty(added);
    }
    const std::string help = app.help(); // now: when a command was parsed, it would be that command's
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // The parser has a status for each kind of mistake; one for all of them is what scripts expect.
        return app.exit(error) == 0 ? exitOk : exitUsage;
    }
    const SCommand* command = findCommand(app.get_subcommands().front()->get_name());
    return command->m_fnRun ? command->m_fnRun(options) : printHelp(app, options, help);
}

} // namespace

// What comes here is memory that ran out, or an output that cannot be written: fmt::print throws then.
int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        complain(error.what());
        return exitFailed;
    }
}
