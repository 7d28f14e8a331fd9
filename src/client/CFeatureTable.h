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

// A feature is its pair of code and data. Usually a code is in force with one data value only, but a list may
// hold it with several. So when a page brings a code that is held with other data, the pair is set aside
// until the whole list is known. Only then is it clear whether the pair held is gone and the new one is its
// successor, or whether both are in force.
//
// Knows nothing of messages or callbacks: the client decides what to offer and enters what was accepted. Used
// by one thread at a time.
class CFeatureTable {
public:
    bool holds(const SFeature& feature) const { return m_oHeld.count(feature) != 0; }
    // The very pair if it is held, else the lowest pair held with this code, if there is one.
    std::optional<SFeature> findHeld(const SFeature& feature) const;
    size_t size() const { return m_oHeld.size(); }
    // At most `limit` features, by code, then data.
    std::vector<SFeature> list(size_t limit) const;

    // The lowest pair held with this code that `inForce` lacks, but for one that is kept instead of what is
    // in force and refused.
    std::optional<SFeature> findOutdated(uint32_t code, const std::set<SFeature>& inForce) const;
    // As the daemon computes it (messaging/wire/holdings.h), over what is held and refused.
    uint64_t digest() const;

    // A feature that is added while a fetch is under way counts as seen in it.
    void add(const SFeature& feature) {
        m_oHeld[feature] = true;
        m_oRefused.erase(feature);
    }
    void remove(const SFeature& feature) { m_oHeld.erase(feature); }

    // A fetch is beginFetch(), then see() for each pair, then gone() or takeChanges() and gone(). It may
    // begin again at any time. `anew` is false for the second pass of one fetch: pairs refused in the first
    // are not offered again.
    void beginFetch(bool anew);
    // True for a pair that is to be offered to the component now: neither held, nor set aside, nor refused.
    [[nodiscard]] bool see(const SFeature& feature);
    // What the component does not want to have, and what it keeps instead, if anything.
    void refuse(const SFeature& feature, const std::optional<SFeature>& kept) { m_oRefused[feature] = kept; }
    // It is offered again, or not in force any more.
    void forgetRefusal(const SFeature& feature) { m_oRefused.erase(feature); }
    // Of all that is refused, only what is in force still is.
    void forgetRefusals(const std::set<SFeature>& inForce);
    // A notification about this code is newer than what the fetch set aside, so that is dropped.
    void forgetSetAside(uint32_t code);

    struct SChange {
        std::optional<SFeature> m_oOld; // none: no pair is left that the new one could replace
        SFeature m_oNew;
    };
    // Takes what was set aside, each pair with the one that it replaces, if there is one.
    std::vector<SChange> takeChanges();
    // Features held that this fetch has not shown, except as many of a code as it has pairs set aside.
    std::vector<SFeature> gone() const;

private:
    std::optional<SFeature> findUnseen(uint32_t code) const;

    std::map<SFeature, bool> m_oHeld; // true: seen in the latest fetch, or added since it began
    std::set<SFeature> m_oSetAside;
    std::map<SFeature, std::optional<SFeature>> m_oRefused; // each with what is kept instead
};

#endif
