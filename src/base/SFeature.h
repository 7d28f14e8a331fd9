// The identity of a feature.
#ifndef QEL_BASE_SFEATURE_H
#define QEL_BASE_SFEATURE_H

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>

// A pair of code and data names one feature in force. The code alone does not, for it may be in force with
// several data values at a time. The pair 0, 0 is no feature: on the wire it ends a component's list. Ordered
// by code, then by data.
struct SFeature {
    uint32_t m_nCode = 0;
    uint32_t m_nData = 0;

    auto operator<=>(const SFeature&) const = default;
};

template <>
struct std::hash<SFeature> {
    size_t operator()(const SFeature& feature) const noexcept {
        // Multiplicative hashing by a prime near 2^32 / golden ratio (Knuth, volume 3, section 6.4): codes
        // that follow each other, as they do in most lists, fall far apart.
        constexpr size_t nSpread = 0x9E3779B1;
        return feature.m_nCode * nSpread + feature.m_nData;
    }
};

#endif
