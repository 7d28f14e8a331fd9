// Which of the lists that the broker keeps is this appliance's.
#ifndef QEL_AGENT_CDESIREDLIST_H
#define QEL_AGENT_CDESIREDLIST_H

#include "agent/agent_config.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The appliance takes the list of its own topic, or else that of the first of its groups that has one. The broker sends
// what it keeps in an order of its own, and does not say when that was all: so a choice counts once nothing has come for
// a second after everything was subscribed to.
//
// Only the text of the best is held, for a list may have 32 MiB. When that list is taken away, the next one is not at
// hand: wanted() names its topic, to be subscribed to anew.
//
// Used by one thread. Throws std::bad_alloc.
class CDesiredList {
public:
    using CTime = std::chrono::steady_clock::time_point;
    static constexpr std::chrono::seconds tQuiet{1};

    explicit CDesiredList(const SAgentConfig& config);

    // In the order of their rank.
    const std::vector<std::string>& topics() const { return m_vTopics; }

    // A new connection: nothing is known until the broker has told it again.
    void forget();
    void subscribed(CTime now);
    // An empty text takes the topic's list away. False: the topic is none of ours.
    bool take(const std::string& topic, std::string_view text, CTime now);

    // The text of the list to be in force, once the choice is made; each choice is told once.
    std::optional<std::string_view> choose(CTime now);
    // The choice shall be told once more.
    void again() { m_bTold = false; }
    // Of the choice; empty: there is no list for this appliance.
    std::string topic() const;
    // A topic that has the best list, whose text is not at hand. Told once, until something else happens to it.
    std::optional<std::string> wanted();

private:
    std::vector<std::string> m_vTopics;
    std::vector<bool> m_vPresent; // for each topic, whether it has a list
    size_t m_nWanted = 0;         // that wanted() told last; the number of topics: none
    size_t m_nHeld = 0;           // whose text is held; the number of topics: none
    std::string m_sText;
    bool m_bSubscribed = false;
    bool m_bTold = false;
    CTime m_tLast{};

    size_t best() const;
};

#endif
