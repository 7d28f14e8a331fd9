#include "CRecord.h"

#include <algorithm>
#include <set>

namespace {

template <typename T>
bool agrees(const std::optional<T>& wanted, const T& value) {
    return !wanted || *wanted == value;
}

bool agrees(const SQuery& query, const SEvent& event) {
    return query.m_eKind == event.m_eKind && (query.m_sWho.empty() || query.m_sWho == event.m_sWho) &&
           agrees(query.m_nCode, event.m_nCode) && agrees(query.m_nData, event.m_nData) &&
           agrees(query.m_nNewData, event.m_nNewData) && agrees(query.m_eAsked, event.m_eAsked);
}

} // namespace

size_t CRecord::count(const SQuery& query, size_t since) const {
    return static_cast<size_t>(std::count_if(m_vEvents.begin() + static_cast<ptrdiff_t>(since),
                                             m_vEvents.end(),
                                             [&](const SEvent& event) { return agrees(query, event); }));
}

size_t CRecord::deliveries() const {
    return count({evFetched, ""}) + count({evNotified, ""}) + count({evModified, ""}) +
           count({evDisabled, ""}) - count({evHeld, ""}) - notifiedAgain();
}

// What a component holds already counts as answered to the daemon, but nobody said anything.
size_t CRecord::answers() const {
    return count({evReplyOk, ""}) + count({evReplyFailed, ""}) - count({evHeld, ""});
}

size_t CRecord::resends() const {
    return notifiedAgain() + count({evOverdue, ""});
}

size_t CRecord::notifiedAgain() const {
    std::set<std::pair<std::string, uint32_t>> waiting;
    size_t again = 0;
    for (const SEvent& event : m_vEvents) {
        const std::pair<std::string, uint32_t> key(event.m_sWho, event.m_nCode);
        if (event.m_eKind == evNotified) {
            again += waiting.insert(key).second ? 0 : 1;
        } else if (event.m_eKind == evReplyOk || event.m_eKind == evReplyFailed) {
            waiting.erase(key);
        }
    }
    return again;
}

size_t CRecord::failures() const {
    return count({evReplyFailed, ""}) + count({evGivenUp, ""});
}
