// The identity of a feature.
#ifndef QEL_BASE_SFEATURE_H
#define QEL_BASE_SFEATURE_H

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>

// A pair of code and data names one feature in force. The code alone does not: it may be in force with several
// data values at a time.
struct SFeature {
    uint32_t m_nCode = 0;
    uint32_t m_nData = 0;

    auto operator<=>(const SFeature&) const = default;
};

template <>
struct std::hash<SFeature> {
    size_t operator()(const SFeature& feature) const noexcept {
        constexpr size_t nSpread = 0x9E3779B1; // codes that follow each other fall far apart
        return feature.m_nCode * nSpread + feature.m_nData;
    }
};

#endif
