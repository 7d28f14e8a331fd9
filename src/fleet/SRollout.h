// A rollout: a list on its way to the appliances of a group, step by step.
#ifndef QEL_FLEET_SROLLOUT_H
#define QEL_FLEET_SROLLOUT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum class ERolloutState { running, paused, stopped, aborted, done };
inline constexpr std::string_view aRolloutStates[] = {"running", "paused", "stopped", "aborted", "done"};

struct SLeftAlone {
    std::string m_sAppliance;
    std::string m_sWhy;
};

// All that whoever drives it on has to know: the broker keeps it as JSON (docs/fleet.md). Times are seconds
// since the epoch.
struct SRollout {
    std::string m_sId;
    std::string m_sGroup;
    uint64_t m_nSerial = 0;
    std::string m_sDigest; // of the list
    std::string
        m_sReplaces; // of the list of an earlier rollout, which may still stand in own topics; or empty

    std::vector<std::string> m_vAppliances; // in the order of their turn
    std::vector<SLeftAlone> m_vLeftAlone;
    std::vector<double> m_vSteps{100}; // per cent of the appliances, rising to 100
    double m_nSuccess = 100;           // per cent
    double m_nStopAt = 0;
    uint64_t m_nAtLeast = 1;
    int64_t m_nPatience = 600; // seconds after which who says nothing of the list counts as silent
    bool m_bByGroup = false;   // by the group's topic at once, as an undo does

    size_t m_nStep = 0; // the one under way
    int64_t m_tBegun = 0;
    int64_t m_tStep = 0;              // when the step began, or was resumed
    std::vector<std::string> m_vAway; // of those reached, who was offline then and has been since

    std::string m_sDriver; // who drives it; empty: nobody
    int64_t m_tBeat = 0;   // when the driver last said that he is there
    ERolloutState m_eState = ERolloutState::running;
    std::string m_sReason; // why it is in that state

    // Nobody else may begin one for its appliances.
    bool isAlive() const { return m_eState == ERolloutState::running || m_eState == ERolloutState::paused; }
};

std::string_view wordOf(ERolloutState state);
std::string printRollout(const SRollout& rollout);
// Nothing: it is no rollout that this program understands; whoever can write to the broker can write
// anything.
[[nodiscard]] std::optional<SRollout> readRollout(std::string_view text);

#endif
