// Drives a rollout: publishes step by step, as the rules say (rollout_rules.h).
#ifndef QEL_FLEET_CROLLOUTDRIVER_H
#define QEL_FLEET_CROLLOUTDRIVER_H

#include "fleet/CFleetLink.h"
#include "fleet/CFleetView.h"
#include "fleet/rollout_rules.h"

#include <cstdint>
#include <string>
#include <string_view>

// What all commands of a rollout read. Besides, the view must hold the texts of holdTexts().
std::vector<std::string> rolloutTopics(const SAgentConfig& config, const std::string& group);
void holdTexts(CFleetView& view, const SAgentConfig& config, const std::string& group);

// Another rollout that lives and has an appliance in common, in words; empty: there is none.
std::string overlapOf(const SRollout& rollout, const CFleetView& view);

// Of those who drive, as others are told: user, host, and a number drawn by chance.
std::string driverName();

// The rollout stands at the broker: the driver writes it whenever something changes, and every few seconds to
// show that he is there. He gives up at once where somebody else has written it. A step reaches its
// appliances by their own topics. At the end the list goes to the group's topic, and then the own topics are
// cleared: in this order nobody falls back to an older list. Each part may be done twice, so whoever drives
// on begins with the step that is under way, and so does the driver himself after a loss of the connection.
//
// Used by one thread.
class CRolloutDriver {
public:
    enum class EEnd { ended, interrupted, taken, denied };

    // The view must be whole.
    CRolloutDriver(CFleetLink& link, const CFleetView& view, const std::string& fleet, SRollout rollout,
                   std::string list, bool isQuiet);

    // Writes the rollout, and looks whether somebody else did so at the same moment. What is in the way;
    // empty: nothing.
    [[nodiscard]] std::string claim();
    EEnd drive();
    const SRollout& rollout() const { return m_oRollout; }

private:
    bool isOurs();
    void save();
    void beat();
    void beginStep();
    void publishStep();
    [[nodiscard]] bool bringGroup();
    [[nodiscard]] bool clearOwn();
    bool isReplaceable(const std::string& digest) const;
    bool act(const SJudgement& judgement);
    [[nodiscard]] bool end(ERolloutState state, const std::string& reason);
    EEnd leave();
    void report(const SRolloutCounts& counts, bool isForced);
    void tell(const std::string& text) const;

    CFleetLink& m_oLink;
    const CFleetView& m_oView;
    std::string m_sFleet;
    SRollout m_oRollout;
    std::string m_sList;
    bool m_bQuiet;
    int64_t m_tBad = 0; // since when it should stop; 0: it should not
    SRolloutCounts m_oTold;
    int64_t m_tTold = 0;
};

#endif
