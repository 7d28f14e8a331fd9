#include "client/CFeatureTable.h"

#include "messaging/wire/holdings.h"

#include <algorithm>
#include <utility>

std::optional<SFeature> CFeatureTable::findHeld(const SFeature& feature) const {
    if (holds(feature)) {
        return feature;
    }
    // Pairs are ordered by code, then data: the first one from {code, 0} on has the code, if any has.
    auto it = m_oHeld.lower_bound({feature.m_nCode, 0});
    if (it == m_oHeld.end() || it->first.m_nCode != feature.m_nCode) {
        return std::nullopt;
    }
    return it->first;
}

std::optional<SFeature> CFeatureTable::findOutdated(uint32_t code, const std::set<SFeature>& inForce) const {
    const auto isKept = [&](const SFeature& feature) {
        return std::any_of(m_oRefused.begin(), m_oRefused.end(), [&](const auto& refused) {
            return refused.second == feature && inForce.count(refused.first);
        });
    };
    for (auto it = m_oHeld.lower_bound({code, 0}); it != m_oHeld.end() && it->first.m_nCode == code; ++it) {
        if (!inForce.count(it->first) && !isKept(it->first)) {
            return it->first;
        }
    }
    return std::nullopt;
}

// What is kept instead of something refused is a matter between the component and itself: in the daemon's
// eyes it has gone.
uint64_t CFeatureTable::digest() const {
    uint64_t sum = 0;
    std::set<SFeature> spared;
    for (const auto& [feature, old] : m_oRefused) {
        sum += digestOf(feature, heRefused);
        if (old) {
            spared.insert(*old);
        }
    }
    for (const auto& [feature, seen] : m_oHeld) {
        sum += spared.count(feature) ? 0 : digestOf(feature, heHeld);
    }
    return sum;
}

void CFeatureTable::forgetRefusals(const std::set<SFeature>& inForce) {
    std::erase_if(m_oRefused, [&](const auto& refused) { return !inForce.count(refused.first); });
}

std::vector<SFeature> CFeatureTable::list(size_t limit) const {
    std::vector<SFeature> features;
    for (auto it = m_oHeld.begin(); it != m_oHeld.end() && features.size() < limit; ++it) {
        features.push_back(it->first);
    }
    return features;
}

// The second pass of one fetch keeps the refusals: the component has been asked, and would refuse again.
void CFeatureTable::beginFetch(bool anew) {
    for (auto& [feature, seen] : m_oHeld) {
        seen = false;
    }
    m_oSetAside.clear();
    if (anew) {
        m_oRefused.clear();
    }
}

bool CFeatureTable::see(const SFeature& feature) {
    if (auto it = m_oHeld.find(feature); it != m_oHeld.end()) {
        it->second = true;
        return false;
    }
    if (auto it = m_oRefused.find(feature); it != m_oRefused.end()) {
        if (auto old = it->second ? m_oHeld.find(*it->second) : m_oHeld.end(); old != m_oHeld.end()) {
            old->second = true; // and so is what is kept instead
        }
        return false;
    }
    // The list has not shown the pair that is held under this code. Either it still comes, and both are in
    // force, or this one replaces it. Only the end of the list tells.
    if (findUnseen(feature.m_nCode)) {
        m_oSetAside.insert(feature);
        return false;
    }
    return true;
}

void CFeatureTable::forgetSetAside(uint32_t code) {
    m_oSetAside.erase(m_oSetAside.lower_bound({code, 0}), m_oSetAside.upper_bound({code, UINT32_MAX}));
}

// A pair that is replaced counts as seen from then on. So no second pair of its code replaces it as well, and
// gone() does not report it.
std::vector<CFeatureTable::SChange> CFeatureTable::takeChanges() {
    std::vector<SChange> changes;
    for (const SFeature& feature : std::exchange(m_oSetAside, {})) {
        auto old = findUnseen(feature.m_nCode);
        if (old) {
            m_oHeld[*old] = true;
        }
        changes.push_back({old, feature});
    }
    return changes;
}

// Each pair set aside replaces one pair held under its code, the lowest first, as takeChanges() reports.
// Those beyond are gone.
std::vector<SFeature> CFeatureTable::gone() const {
    std::vector<SFeature> features;
    std::multiset<uint32_t> replacing;
    for (const SFeature& feature : m_oSetAside) {
        replacing.insert(feature.m_nCode);
    }
    for (const auto& [feature, seen] : m_oHeld) {
        if (seen) {
            continue;
        }
        if (auto one = replacing.find(feature.m_nCode); one != replacing.end()) {
            replacing.erase(one);
        } else {
            features.push_back(feature);
        }
    }
    return features;
}

std::optional<SFeature> CFeatureTable::findUnseen(uint32_t code) const {
    for (auto it = m_oHeld.lower_bound({code, 0}); it != m_oHeld.end() && it->first.m_nCode == code; ++it) {
        if (!it->second) {
            return it->first;
        }
    }
    return std::nullopt;
}
