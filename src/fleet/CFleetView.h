// What the broker keeps of a fleet.
#ifndef QEL_FLEET_CFLEETVIEW_H
#define QEL_FLEET_CFLEETVIEW_H

#include "fleet/SRollout.h"
#include "fleet/rollout_rules.h"

#include <map>
#include <set>
#include <string>
#include <string_view>

// A list on one of the topics; of most nothing is kept but this.
struct SKeptTopic {
    std::string m_sDigest;
    uint64_t m_nSerial = 0; // 0: it has none, or is no list
};

// Built from the broker's messages, in any order. Of lists the texts are held only where that was asked for.
// Used by one thread. Throws std::bad_alloc.
class CFleetView {
public:
    explicit CFleetView(std::string_view fleet);

    // The text on this topic shall be held.
    void hold(const std::string& topic) { m_oHeld.try_emplace(topic); }
    // An empty text takes away what was on the topic.
    void take(const std::string& topic, std::string_view text);
    // Nothing is known, until the broker has told it anew.
    void forget();

    const CReports& reports() const { return m_oReports; }
    const std::map<std::string, SRollout, std::less<>>& rollouts() const { return m_oRollouts; } // by group
    // A rollout stands there that cannot be read; by group.
    const std::set<std::string, std::less<>>& unreadable() const { return m_oUnreadable; }
    const std::map<std::string, SKeptTopic, std::less<>>& ownLists() const { return m_oOwn; } // by appliance
    const std::map<std::string, SKeptTopic, std::less<>>& groupLists() const { return m_oGroups; }
    // Empty: nothing is there.
    const std::string& held(const std::string& topic) const;
    uint64_t highestSerial() const;

private:
    void takeRollout(const std::string& group, std::string_view text);

    std::string m_sPrefix;
    CReports m_oReports;
    std::map<std::string, SRollout, std::less<>> m_oRollouts;
    std::set<std::string, std::less<>> m_oUnreadable;
    std::map<std::string, SKeptTopic, std::less<>> m_oOwn;
    std::map<std::string, SKeptTopic, std::less<>> m_oGroups;
    std::map<std::string, std::string> m_oHeld; // by topic
};

#endif
