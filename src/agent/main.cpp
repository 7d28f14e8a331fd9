// qelagent: the appliance's link to its fleet.
#include "agent/CAgent.h"
#include "source/list/list_paths.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>

namespace {

constexpr size_t nMaxShownErrors = 100;

volatile std::sig_atomic_t bEnd = 0;

// Without SA_RESTART: what waits for the network ends its wait.
void endOnSignals() {
    struct sigaction action {};
    action.sa_handler = [](int) { bEnd = 1; };
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

int fail(const std::string& text) {
    std::fprintf(stderr, "qelagent: %s\n", text.c_str());
    return 1;
}

int run(const std::string& path, bool isCheck) {
    const SAgentConfig config = readAgentConfig(path);
    for (size_t i = 0; i < std::min(config.m_vErrors.size(), nMaxShownErrors); ++i) {
        std::fprintf(stderr, "%s\n", printListError(path, config.m_vErrors[i]).c_str());
    }
    if (!config.m_vErrors.empty()) {
        return 1;
    }
    CAgent agent(config, featureListPath());
    if (const std::string trouble = agent.prepare(); !trouble.empty()) {
        return fail(trouble);
    }
    if (isCheck) {
        std::printf("%s: good: appliance %s of fleet %s\n", path.c_str(), config.m_sAppliance.c_str(),
                    config.m_sFleet.c_str());
        return 0;
    }
    endOnSignals();
    while (bEnd == 0) {
        agent.turn();
    }
    agent.leave();
    return 0;
}

} // namespace

int main(int argc, char** argv) try {
    CLI::App app(
        "The appliance's link to its fleet: takes its feature list from an MQTT broker, and tells its state.",
        "qelagent");
    std::string config = QEL_AGENT_CONFIG;
    bool isCheck = false;
    app.set_version_flag("--version", "qelagent " QEL_VERSION);
    app.add_option("--config", config, "the configuration (" QEL_AGENT_CONFIG ")");
    app.add_flag("--check", isCheck, "check the configuration, and end");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int status = app.exit(error);
        return status == 0 ? 0 : exitUsage;
    }
    return run(config, isCheck);
} catch (const std::exception& error) {
    return fail(error.what());
}
