// Where in the broker's tree of topics everything is. All messages in it are retained.
//
//     qel/1/FLEET/desired/appliance/NAME   the list for one appliance, as its bytes
//     qel/1/FLEET/desired/group/NAME       the list for whoever is in the group
//     qel/1/FLEET/state/NAME               what the appliance tells, JSON (docs/fleet.md)
//     qel/1/FLEET/rollout/GROUP            the latest rollout to the group, JSON
//     qel/1/FLEET/rollout/GROUP/list       the list that it brings, while it may go on
//     qel/1/FLEET/previous/GROUP           the list that the group had before
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

inline std::string rolloutTopic(std::string_view fleet, std::string_view group) {
    return fmt::format("qel/1/{}/rollout/{}", fleet, group);
}

inline std::string rolloutListTopic(std::string_view fleet, std::string_view group) {
    return rolloutTopic(fleet, group) + "/list";
}

inline std::string previousTopic(std::string_view fleet, std::string_view group) {
    return fmt::format("qel/1/{}/previous/{}", fleet, group);
}

#endif
