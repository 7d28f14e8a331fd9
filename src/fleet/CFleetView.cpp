#include "fleet/CFleetView.h"

#include "agent/agent_config.h"
#include "agent/fleet_topics.h"
#include "source/list/feature_list.h"
#include "source/list/list_digest.h"

#include <algorithm>

namespace {

SKeptTopic keptTopic(std::string_view text) {
    return {printListDigest(listDigest(text)), parseListHead(text).m_oHead.m_nSerial};
}

void setOrErase(std::map<std::string, SKeptTopic, std::less<>>& map, const std::string& name,
                std::string_view text) {
    if (text.empty()) {
        map.erase(name);
    } else {
        map[name] = keptTopic(text);
    }
}

} // namespace

CFleetView::CFleetView(std::string_view fleet) : m_sPrefix(fmt::format("qel/1/{}/", fleet)) {}

// A name that is none is somebody's play with the topics.
void CFleetView::take(const std::string& topic, std::string_view text) {
    if (const auto held = m_oHeld.find(topic); held != m_oHeld.end()) {
        held->second = text;
    }
    const size_t slash = topic.rfind('/');
    const std::string name = topic.substr(slash + 1);
    if (!topic.starts_with(m_sPrefix) || slash < m_sPrefix.size() || !isApplianceName(name)) {
        return;
    }
    const std::string kind = topic.substr(m_sPrefix.size(), slash - m_sPrefix.size());
    if (kind == "state") {
        m_oReports.erase(name);
        if (auto report = readReport(text)) {
            m_oReports.emplace(name, std::move(*report));
        }
    } else if (kind == "rollout") {
        takeRollout(name, text);
    } else if (kind == "desired/appliance") {
        setOrErase(m_oOwn, name, text);
    } else if (kind == "desired/group") {
        setOrErase(m_oGroups, name, text);
    }
}

void CFleetView::takeRollout(const std::string& group, std::string_view text) {
    m_oRollouts.erase(group);
    m_oUnreadable.erase(group);
    auto rollout = readRollout(text);
    if (rollout && rollout->m_sGroup == group) {
        m_oRollouts.emplace(group, std::move(*rollout));
    } else if (!text.empty()) {
        m_oUnreadable.insert(group);
    }
}

void CFleetView::forget() {
    m_oReports.clear();
    m_oRollouts.clear();
    m_oUnreadable.clear();
    m_oOwn.clear();
    m_oGroups.clear();
    for (auto& [topic, text] : m_oHeld) {
        text.clear();
    }
}

const std::string& CFleetView::held(const std::string& topic) const {
    static const std::string none;
    const auto found = m_oHeld.find(topic);
    return found == m_oHeld.end() ? none : found->second;
}

uint64_t CFleetView::highestSerial() const {
    uint64_t highest = 0;
    const auto see = [&](uint64_t serial) { highest = std::max(highest, serial); };
    for (const auto& [name, report] : m_oReports) {
        see(report.m_nSerial);
    }
    for (const auto& [group, rollout] : m_oRollouts) {
        see(rollout.m_nSerial);
    }
    for (const auto* lists : {&m_oOwn, &m_oGroups}) {
        for (const auto& [name, list] : *lists) {
            see(list.m_nSerial);
        }
    }
    for (const auto& [topic, text] : m_oHeld) {
        see(parseListHead(text).m_oHead.m_nSerial);
    }
    return highest;
}
