// What qelctl fleet can do. Each command prints, and returns the process's exit status (ctl/commands.h).
#ifndef QEL_FLEET_COMMANDS_H
#define QEL_FLEET_COMMANDS_H

#include "agent/agent_config.h"
#include "ctl/commands.h"
#include "fleet/CFleetView.h"
#include "fleet/SRollout.h"

#include <string>
#include <vector>

struct SFleetOptions : SCommonOptions {
    std::string m_sConfig;
    std::string m_sGroup; // empty: all, where that is possible
};

struct SFleetWatchOptions : SFleetOptions {
    double m_nSeconds = 0; // 0: until a signal
};

struct SFleetApplyOptions : SFleetOptions {
    std::string m_sFile; // of apply
    std::string m_sKey;
    SRollout m_oPlan; // steps and limits
    bool m_bUndo = false;
    bool m_bDryRun = false;
};

struct SFleetRolloutOptions : SFleetOptions {
    std::string m_sWish; // "pause", "resume", "abort"; empty: show
};

int runFleetStatus(const SFleetOptions& options);
int runFleetWatch(const SFleetWatchOptions& options);
int runFleetApply(const SFleetApplyOptions& options);
int runFleetRollout(const SFleetRolloutOptions& options);

// Reads the configuration, and gives it a name for the broker that no other process has. False: it was
// complained of.
[[nodiscard]] bool readOperatorConfig(const SFleetOptions& options, SAgentConfig& config);

#endif
