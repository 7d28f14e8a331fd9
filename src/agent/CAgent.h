// The appliance's link to its fleet.
#ifndef QEL_AGENT_CAGENT_H
#define QEL_AGENT_CAGENT_H

#include "agent/CApplianceState.h"
#include "agent/CBroker.h"
#include "agent/CDesiredList.h"
#include "agent/CListPlacer.h"
#include "agent/CSecondLook.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

// Takes the list that the fleet wants here, puts it in place, and tells what became of it. Without a broker nothing
// happens: the list in place stays, and the daemon works on.
//
// Used by one thread.
class CAgent : private CBrokerUser {
public:
    using CTime = std::chrono::steady_clock::time_point;
    static constexpr std::chrono::seconds tBetweenStates{2};

    // `list`: the path of the appliance's feature list.
    CAgent(const SAgentConfig& config, std::string list);

    // What is wrong with the files that the configuration names; empty: nothing.
    [[nodiscard]] std::string prepare();
    // Handles what comes, for half a second.
    void turn();
    // Tells the fleet that the agent ends.
    void leave();

private:
    std::string will() override;
    void onConnected() override;
    void onSubscribed() override;
    void onMessage(const std::string& topic, std::string_view text) override;
    void onLost(const std::string& why) override;
    void onDenied(const std::string& why) override;

    void place(CTime now);
    void tellPlacing() const;
    void tellState(CTime now);
    CJson head(bool isOnline) const;
    std::string state() const;

    const SAgentConfig& m_oConfig;
    std::string m_sList;
    CBroker m_oBroker;
    CDesiredList m_oDesired;
    std::string m_sTopic; // of the list that was placed last
    std::optional<SPlacing> m_oPlacing;
    CSecondLook m_oSecondLook;
    std::vector<std::string> m_vDenied; // by the broker, since the connection was made
    CApplianceState m_oState;
    std::string m_sTold; // the state that the broker has
    CTime m_tTold{};
};

#endif
