// qelctl: the operator's command.
#include "client/qelclient.h"
#include "ctl/commands.h"
#include "ctl/terminal.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <exception>

namespace {

constexpr char sNamesAndStatus[] =
    "Names come from the description file: QEL_DESCRIPTION in the environment, else the one compiled in.\n"
    "It has a line CODE,NAME for each feature; qelctl check --descriptions checks it.\n"
    "Exit status: 0, or 2 where no daemon answers.";

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

void addList(CLI::App& app, SListOptions& options) {
    auto* list = app.add_subcommand("list", "Print the features in force, as the running daemon tells them.");
    list->add_flag("--json", options.m_bJson, "Print JSON");
    list->add_option("--timeout", options.m_nTimeout, "Seconds to wait for the daemon's answer")
        ->check(CLI::Range(0.0, 3600.0))
        ->capture_default_str();
    list->footer(sNamesAndStatus);
}

void addCheck(CLI::App& app, SCheckOptions& options) {
    auto* check =
        app.add_subcommand("check", "Check a feature list, a description file, or both, without a daemon.");
    check->add_option("FILE", options.m_sList, "The feature list");
    check->add_option("--descriptions", options.m_sDescriptions, "The description file")->option_text("FILE");
    check->require_option(1, 2);
    check->footer(
        "Prints every error as FILE:LINE: text. Exit status: 0 for good files, 1 if one is bad.\n"
        "A description file has a line CODE,NAME for each feature, such as 116,Hunt groups. Without\n"
        "quotes and comments; what follows a second comma is ignored.");
}

void addComponent(CLI::App& app, SComponentOptions& options) {
    // Static, because the option's function below runs only when the command line is parsed.
    static const std::map<std::string, EAnswer> answers = {
        {"ok", EAnswer::ok}, {"fail", EAnswer::fail}, {"none", EAnswer::none}};
    auto* component = app.add_subcommand("component", "Be a component: print every message, answer as told.");
    // The library checks the name too, but only here can the operator be told what is wrong with it.
    component->add_option("NAME", options.m_sName, "Name to announce, 1 to 16 characters")
        ->required()
        ->check([](const std::string& name) {
            return name.empty() || name.size() > QEL_MAX_NAME ? "must have 1 to 16 characters" : "";
        });
    component
        ->add_option_function<std::string>(
            "--answer", [&options](const std::string& word) { options.m_eAnswer = answers.at(word); },
            "How to answer notifications")
        ->check(CLI::IsMember({"ok", "fail", "none"}))
        ->option_text("ok|fail|none");
    component->add_option("--refuse", options.m_vRefused, "Answer fail for these codes")
        ->option_text("CODE ...");
    component
        ->add_option_function<std::vector<std::string>>(
            "--hold",
            [&options](const std::vector<std::string>& pairs) {
                for (const auto& pair : pairs) {
                    options.m_vHeld.push_back(readPair(pair));
                }
            },
            "Announce these features as held already")
        ->option_text("CODE:DATA ...");
    component->add_flag("--fetch", options.m_bFetch, "Fetch the list");
    component->add_flag("--monitor", options.m_bMonitor, "Start monitoring, to be notified of changes");
    component->add_option("--for", options.m_nSeconds, "Stop after so long; 0: at SIGINT or SIGTERM")
        ->check(CLI::Range(0.0, 1e6))
        ->option_text("SECONDS");
    component->add_flag("--wait", options.m_bWait, "Wait for a daemon that is not running yet");
    component->add_option("--process", options.m_sProcess, "Name of this process on the message framework")
        ->option_text("NAME");
    component->footer(std::string("-> is sent, <- is received. ") + sNamesAndStatus);
}

// app.parse() fills the option structs and checks them. Its exception for --help and --version is no error:
// app.exit() prints what is due and returns 0.
int run(int argc, char** argv) {
    SListOptions listOptions;
    SCheckOptions checkOptions;
    SComponentOptions componentOptions;
    CLI::App app("Ask the feature daemon, check its list, or act as one of its components.", "qelctl");
    app.set_version_flag("--version", "qelctl " QEL_VERSION);
    app.require_subcommand(1);
    // One line, in the form of complain(), instead of the whole help.
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("qelctl: ") + error.what() + " (--help tells more)\n";
    });
    addList(app, listOptions);
    addCheck(app, checkOptions);
    addComponent(app, componentOptions);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // The parser has a status for each kind of mistake; one for all of them is what scripts expect.
        return app.exit(error) == 0 ? exitOk : exitUsage;
    }
    if (app.got_subcommand("list")) {
        return runList(listOptions);
    }
    return app.got_subcommand("check") ? runCheck(checkOptions) : runComponent(componentOptions);
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
