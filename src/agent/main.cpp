// qelagent: the appliance's link to its fleet.
#include "agent/CAgent.h"
#include "source/SFingerprint.h"
#include "source/list/list_paths.h"
#include "source/trust/appliance.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fmt/core.h>
#include <utility>

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

// Which appliance this is. While the agent runs, a change is followed, unless the file is wrong; that is
// looked for every ten seconds.
class CSelf {
public:
    explicit CSelf(std::string path) : m_sPath(std::move(path)) { read(); }

    // With an error where it has no name for a topic, as a host's may be none.
    const SAppliance& appliance() const { return m_oAppliance; }

    bool isChanged() {
        const auto now = std::chrono::steady_clock::now();
        if (now < m_tLook || m_oRead == SFingerprint::of(m_sPath.c_str())) {
            return false;
        }
        const SAppliance before = m_oAppliance;
        read();
        if (!m_oAppliance.m_sError.empty()) {
            fail(m_oAppliance.m_sError + ": going on as " + before.text());
            m_oAppliance = before;
        }
        return m_oAppliance.text() != before.text();
    }

private:
    void read() {
        m_tLook = std::chrono::steady_clock::now() + std::chrono::seconds{10};
        m_oRead = SFingerprint::of(m_sPath.c_str());
        m_oAppliance = readAppliance(m_sPath);
        if (m_oAppliance.m_sError.empty() && !isApplianceName(m_oAppliance.m_sName)) {
            m_oAppliance.m_sError =
                fmt::format("the host's name is no name of an appliance: write one to {}", m_sPath);
        }
    }

    std::string m_sPath;
    SAppliance m_oAppliance;
    SFingerprint m_oRead;
    std::chrono::steady_clock::time_point m_tLook;
};

int run(const std::string& path, bool isCheck) {
    SAgentConfig config = readAgentConfig(path);
    for (size_t i = 0; i < std::min(config.m_vErrors.size(), nMaxShownErrors); ++i) {
        std::fprintf(stderr, "%s\n", printListError(path, config.m_vErrors[i]).c_str());
    }
    if (!config.m_vErrors.empty()) {
        return 1;
    }
    endOnSignals();
    CSelf self(appliancePath());
    do {
        config.m_sAppliance = self.appliance().m_sName;
        config.m_vGroups = self.appliance().m_vGroups;
        if (const std::string& trouble = self.appliance().m_sError; !trouble.empty()) {
            return fail(trouble);
        }
        CAgent agent(config, featureListPath());
        if (const std::string trouble = agent.prepare(); !trouble.empty()) {
            return fail(trouble);
        }
        if (isCheck) {
            std::printf("%s: good: appliance %s of fleet %s\n", path.c_str(), self.appliance().text().c_str(),
                        config.m_sFleet.c_str());
            return 0;
        }
        while (bEnd == 0 && !self.isChanged()) {
            agent.turn();
        }
        agent.leave();
    } while (bEnd == 0);
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
