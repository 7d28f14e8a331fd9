// The agent's configuration, /etc/qel/agent.toml; and that of an operator's machine, /etc/qel/fleet.toml, which
// is the same without appliance and groups.
#ifndef QEL_AGENT_AGENT_CONFIG_H
#define QEL_AGENT_AGENT_CONFIG_H

#include "source/list/feature_list.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Paths are as they stand in the file; a relative one is relative to the working directory.
struct SAgentConfig {
    std::string m_sFleet;
    // Of /etc/qel/appliance, and not of this file: whoever reads it fills them in. A name of an appliance has
    // no meaning in a topic ('/', '+', '#', '$') or in a path; nor has the fleet's, which is made alike.
    std::string m_sAppliance;
    std::vector<std::string> m_vGroups; // in the order in which the appliance takes its list from them
    std::string m_sHost;                // of the broker
    uint32_t m_nPort = 0;               // 1 to 65535
    std::string m_sUser;                // empty: none
    std::string m_sPasswordFile;        // empty: none
    // With TLS all three are there; all empty: without it.
    std::string m_sAuthority;   // certificates that the broker's must come from, PEM
    std::string m_sCertificate; // the agent's own, PEM
    std::string m_sKey;         // the agent's own, PEM

    bool isEncrypted() const { return !m_sAuthority.empty(); }

    // By line. The rest is meaningful only where there is none.
    std::vector<SListError> m_vErrors;
};

inline constexpr size_t nMaxAgentConfigSize = 65536;

// Reads the file whole and checks it: types, ranges, unknown keys, what is missing.
[[nodiscard]] SAgentConfig readAgentConfig(const std::string& path);
[[nodiscard]] SAgentConfig parseAgentConfig(std::string_view text);

#endif
