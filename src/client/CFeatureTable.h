// The features that a component holds, and the comparison with a list that is being fetched.
#ifndef QEL_CLIENT_CFEATURETABLE_H
#define QEL_CLIENT_CFEATURETABLE_H

#include "base/SFeature.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <vector>

// A feature is its (code, data) pair. A code is usually in force with one data only, but a list may hold it
// twice; so a fetched pair whose code is held with other data is set aside until the whole list is known.
// Only then is it clear whether the pair held is gone, and the fetched one its successor, or whether both are
// in force.
class CFeatureTable {
public:
    bool holds(const SFeature& feature) const { return m_oHeld.count(feature) != 0; }
    // A feature held under this code, that very pair first; none if the code is not held.
    std::optional<SFeature> findHeld(const SFeature& feature) const;
    size_t size() const { return m_oHeld.size(); }
    // At most `limit` features, in order of code.
    std::vector<SFeature> list(size_t limit) const;

    // What is entered during a fetch counts as seen in it.
    void add(const SFeature& feature) { m_oHeld[feature] = true; }
    void remove(const SFeature& feature) { m_oHeld.erase(feature); }

    // A fetch is beginFetch(), see() for each pair, then changes() and gone(). It may begin again at any
    // time; `anew`: what an earlier pass has offered and was refused is offered again.
    void beginFetch(bool anew);
    // True for a pair to offer to the component now: not held, not set aside, not refused before.
    [[nodiscard]] bool see(const SFeature& feature);
    void refuse(const SFeature& feature) { m_oRefused.insert(feature); }
    // A notification about this code has overtaken what the fetch set aside.
    void forgetSetAside(uint32_t code);

    struct SChange {
        std::optional<SFeature> m_oOld; // none: nothing is held that it could replace
        SFeature m_oNew;
    };
    // What was set aside, each with the pair that it replaces. Empties it.
    std::vector<SChange> takeChanges();
    // Held, but neither seen in this fetch nor under a code that was set aside.
    std::vector<SFeature> gone() const;

private:
    std::optional<SFeature> findUnseen(uint32_t code) const;

    std::map<SFeature, bool> m_oHeld; // true: seen in the latest fetch, or entered since
    std::set<SFeature> m_oSetAside;
    std::set<SFeature> m_oRefused;
};

#endif
