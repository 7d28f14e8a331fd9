#include "agent/CDesiredList.h"

#include "agent/fleet_topics.h"

#include <algorithm>

CDesiredList::CDesiredList(const SAgentConfig& config) {
    m_vTopics.push_back(applianceTopic(config.m_sFleet, config.m_sAppliance));
    for (const std::string& group : config.m_vGroups) {
        m_vTopics.push_back(groupTopic(config.m_sFleet, group));
    }
    forget();
}

void CDesiredList::forget() {
    m_vPresent.assign(m_vTopics.size(), false);
    m_nHeld = m_vTopics.size();
    m_nWanted = m_vTopics.size();
    m_sText.clear();
    m_bSubscribed = false;
    m_bTold = false;
}

void CDesiredList::subscribed(CTime now) {
    m_bSubscribed = true;
    m_tLast = now;
}

bool CDesiredList::take(const std::string& topic, std::string_view text, CTime now) {
    const auto found = std::find(m_vTopics.begin(), m_vTopics.end(), topic);
    if (found == m_vTopics.end()) {
        return false;
    }
    const auto rank = static_cast<size_t>(found - m_vTopics.begin());
    m_tLast = now;
    m_vPresent[rank] = !text.empty();
    m_nWanted = rank == m_nWanted ? m_vTopics.size() : m_nWanted;
    if (rank > m_nHeld) {
        return true;
    }
    if (rank == best()) {
        m_nHeld = rank;
        m_sText = text;
        m_bTold = false;
    } else if (rank == m_nHeld) {
        m_nHeld = m_vTopics.size();
        m_sText.clear();
        m_bTold = false;
    }
    return true;
}

std::optional<std::string_view> CDesiredList::choose(CTime now) {
    if (m_bTold || !m_bSubscribed || m_nHeld == m_vTopics.size() || now - m_tLast < tQuiet) {
        return std::nullopt;
    }
    m_bTold = true;
    return m_sText;
}

std::string CDesiredList::topic() const {
    return m_nHeld == m_vTopics.size() ? "" : m_vTopics[m_nHeld];
}

std::optional<std::string> CDesiredList::wanted() {
    const size_t rank = best();
    if (rank == m_nHeld || rank == m_nWanted) {
        return std::nullopt;
    }
    m_nWanted = rank;
    return m_vTopics[rank];
}

size_t CDesiredList::best() const {
    return static_cast<size_t>(std::find(m_vPresent.begin(), m_vPresent.end(), true) - m_vPresent.begin());
}
