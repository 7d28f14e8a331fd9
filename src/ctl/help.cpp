#include "ctl/help.h"

#include "ctl/commands.h"
#include "ctl/environment.h"
#include "ctl/json.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace {

// As they are typed: "-q", "--quiet".
CJson namesOf(const CLI::Option& option) {
    CJson names = CJson::array();
    for (const std::string& name : option.get_snames()) {
        names.push_back("-" + name);
    }
    for (const std::string& name : option.get_lnames()) {
        names.push_back("--" + name);
    }
    return names;
}

CJson describeOption(const CLI::Option& option) {
    if (option.get_positional()) {
        return {{"name", option.get_name(true)},
                {"required", option.get_required()},
                {"meaning", option.get_description()}};
    }
    const bool isFlag = option.get_items_expected_max() == 0;
    return {{"names", namesOf(option)},
            {"value", isFlag ? CJson() : CJson(option.get_option_text())},
            {"meaning", option.get_description()}};
}

// Without --help, which all have. Groups of options have no name of their own.
void addOptions(const CLI::App& app, CJson& arguments, CJson& options) {
    for (const CLI::Option* option : app.get_options()) {
        if (option != app.get_help_ptr()) {
            (option->get_positional() ? arguments : options).push_back(describeOption(*option));
        }
    }
    for (const CLI::App* group :
         app.get_subcommands([](const CLI::App* part) { return part->get_name().empty(); })) {
        addOptions(*group, arguments, options);
    }
}

CJson describeCommand(const CLI::App& command) {
    CJson arguments = CJson::array();
    CJson options = CJson::array();
    addOptions(command, arguments, options);
    return {{"name", command.get_name()},
            {"meaning", command.get_description()},
            {"notes", command.get_footer()},
            {"arguments", std::move(arguments)},
            {"options", std::move(options)}};
}

CJson describeEnvironment() {
    CJson variables = CJson::array();
    for (const SEnvironmentText& variable : aEnvironmentTexts) {
        variables.push_back({{"name", variable.m_sName},
                             {"meaning", variable.m_sMeaning},
                             {"otherwise", variable.m_sOtherwise},
                             {"daemon", variable.m_bDaemon},
                             {"qelctl", variable.m_bCtl},
                             {"qelweb", variable.m_bWeb},
                             {"qelagent", variable.m_bAgent}});
    }
    return variables;
}

} // namespace

void printHelpAsJson(const CLI::App& app) {
    CJson document = jsonDocument("help");
    document["meaning"] = app.get_description();
    for (const CLI::App* command : app.get_subcommands({})) {
        document["commands"].push_back(describeCommand(*command));
    }
    for (const SExitText& exit : aExitTexts) {
        document["exit_statuses"].push_back({{"status", exit.m_eStatus}, {"meaning", exit.m_szMeaning}});
    }
    document["environment"] = describeEnvironment();
    printJson(document);
}

std::string helpFooter() {
    std::string text = "Exit status:\n";
    for (const SExitText& exit : aExitTexts) {
        text += fmt::format("  {:>2}  {}\n", static_cast<int>(exit.m_eStatus), exit.m_szMeaning);
    }
    text += "Environment:\n";
    for (const SEnvironmentText& variable : aEnvironmentTexts) {
        if (variable.m_bCtl) {
            text += fmt::format("  {:<16}  {}\n", variable.m_sName, variable.m_sMeaning);
        }
    }
    return text;
}
