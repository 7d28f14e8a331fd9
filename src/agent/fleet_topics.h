// Where in the broker's tree of topics everything is. All messages in it are retained.
//
//     qel/1/FLEET/desired/appliance/NAME   the list for one appliance, as its bytes
//     qel/1/FLEET/desired/group/NAME       the list for whoever is in the group
//     qel/1/FLEET/state/NAME               what the appliance tells, JSON (docs/fleet.md)
#ifndef QEL_AGENT_FLEET_TOPICS_H
#define QEL_AGENT_FLEET_TOPICS_H

#include <fmt/format.h>
#include <string>
#include <string_view>

inline std::string applianceTopic(std::string_view fleet, std::string_view appliance) {
    return fmt::format("qel/1/{}/desired/appliance/{}", fleet, appliance);
}

inline std::string groupTopic(std::string_view fleet, std::string_view group) {
    return fmt::format("qel/1/{}/desired/group/{}", fleet, group);
}

inline std::string stateTopic(std::string_view fleet, std::string_view appliance) {
    return fmt::format("qel/1/{}/state/{}", fleet, appliance);
}

#endif
