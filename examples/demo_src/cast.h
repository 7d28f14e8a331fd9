// Who plays, and the features that the story turns on.
#ifndef QEL_DEMO_CAST_H
#define QEL_DEMO_CAST_H

#include "source/list/feature_list.h"

#include <array>

inline constexpr char sSilent[] = "Doorphone";
inline constexpr char sGood[] = "Telephony";
inline constexpr char sRefusing[] = "Gateway";
inline constexpr char sExample[] = "Voice"; // the example component
inline constexpr char sHolding[] = "Tracing";
inline constexpr size_t nComponents = 5;

// Put into the copy of the example list. The one that concerns all who answer stands first: an audit pass
// pushes one feature, and each answer then brings on the next one, so that the changed list takes one pass.
inline const SFeatureRecord oCommonFeature{100, 49, {sGood, sRefusing, sExample, sHolding}, false, 0};
inline const SFeatureRecord oSilentFeature{161, 1, {sSilent}, false, 0};

inline constexpr uint32_t nRefusedCode = 202;                     // of the example list; concerns Gateway
inline constexpr std::array<uint32_t, 2> aHeldCodes = {401, 403}; // concern Tracing
inline constexpr uint32_t nModifiedCode = 102;                    // kept from list to list
inline constexpr uint32_t nModifiedBy = 32;
inline constexpr uint32_t nWithdrawnCode = 115;
inline const SFeatureRecord oAddedFeature{134, 1, {sGood, sExample}, false, 0};

#endif
