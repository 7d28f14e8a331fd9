// What the daemon of this appliance says, for the fleet.
#ifndef QEL_AGENT_CAPPLIANCESTATE_H
#define QEL_AGENT_CAPPLIANCESTATE_H

#include "ctl/CSnapshot.h"
#include "ctl/json.h"

#include <chrono>
#include <memory>

// A look costs the daemon two small questions, and a reading of what is not delivered where something has happened. All
// deliveries are never read.
class CApplianceState {
public:
    static constexpr size_t nMaxProblems = 100; // that are told one by one

    // Asks the daemon; waits seconds for it at most.
    void look();
    // Adds what the latest look saw. The same as long as nothing happens: no age, no time of the day.
    void put(CJson& state) const;

private:
    EAsked ask();

    std::unique_ptr<CStatusQuery> m_pQuery;
    SSnapshot m_oSnapshot;
    bool m_bRead = false; // m_oSnapshot is the daemon's
};

#endif
