// The keys of the list file, one row each. The reader with its complaints, the comparison of lists and the
// schema for editors go by this table, and docs/feature-list.md is tested against it.
#ifndef QEL_SOURCE_LIST_FIELDS_H
#define QEL_SOURCE_LIST_FIELDS_H

#include "source/list/feature_list.h"

#include <limits>
#include <string_view>
#include <variant>

// Where a feature's value goes; its type says what the value may be. monostate: a number that is checked and
// not kept.
using CListMember = std::variant<std::monostate, uint32_t SFeatureRecord::*,
                                 std::vector<std::string> SFeatureRecord::*, bool SFeatureRecord::*>;

enum class EListUse {
    check,   // of the file itself
    pair,    // names the feature
    content, // a list in which it differs is another list
    note     // makes no difference to the daemon: a change of it alone is no change
};

struct SListField {
    std::string_view m_sKey;
    CListMember m_oMember;
    EListUse m_eUse;
    bool m_bRequired;
    uint32_t m_nMost; // of a number
    std::string_view m_sMeaning;

    bool isNumber() const { return m_oMember.index() <= 1; }
};

inline constexpr uint32_t nMaxListNumber = std::numeric_limits<uint32_t>::max();

// Above the first feature, and with how its table's line begins, all that may stand there.
inline constexpr SListField oCountField = {
    "count",         std::monostate(),
    EListUse::check, false,
    nMaxListNumber,  "above the first feature: how many follow; guards against a file that was cut off"};
inline constexpr std::string_view sFeatureKey = "feature";

// The text of a missing or wrong key comes in this order.
inline constexpr SListField aFeatureFields[] = {
    {"code", &SFeatureRecord::m_nCode, EListUse::pair, true, nMaxListNumber,
     "names the feature, together with `data`"},
    {"data", &SFeatureRecord::m_nData, EListUse::pair, true, nMaxListNumber,
     "its data; a pair stands once, and 0, 0 not at all"},
    {"components", &SFeatureRecord::m_vComponents, EListUse::content, true, 0,
     "whom the feature concerns, as the components announce themselves"},
    {"sourced", &SFeatureRecord::m_bSourced, EListUse::content, false, 0,
     "kept from list to list; false where it is missing"},
};

// Null: there is no such key in a feature.
const SListField* findFeatureField(std::string_view key);

// Whether the daemon makes no difference between the two. Their lines do not count: a comment or a blank line
// more makes no other feature.
bool isSameFeature(const SFeatureRecord& one, const SFeatureRecord& other);

#endif
