// The keys of the list file, one row each. The reader with its complaints, the comparison of lists and the
// schema for editors go by this table, and docs/feature-list.md is tested against it.
#ifndef QEL_SOURCE_LIST_FIELDS_H
#define QEL_SOURCE_LIST_FIELDS_H

#include "messaging/wire/wire.h"
#include "source/list/feature_list.h"

#include <limits>
#include <string_view>
#include <variant>

// Where a value goes; its type says what the value may be. monostate: a number that is checked and not kept.
using CListMember = std::variant<std::monostate, uint32_t SFeatureRecord::*, uint64_t SListHead::*,
                                 std::vector<std::string> SFeatureRecord::*, bool SFeatureRecord::*,
                                 std::string SListHead::*, std::vector<std::string> SListHead::*>;

enum class EListUse {
    check,   // of the file itself, or for whom it is
    pair,    // names the feature
    content, // a list in which it differs is another list
    note     // makes no difference to the daemon: a change of it alone is no change
};

struct SListField {
    std::string_view m_sKey;
    CListMember m_oMember;
    EListUse m_eUse;
    bool m_bRequired;
    uint64_t m_nMost; // of a number; characters of a name
    std::string_view m_sMeaning;
    uint64_t m_nLeast = 0; // of a number

    bool isNumber() const { return m_oMember.index() <= 2; }
};

inline constexpr uint32_t nMaxListNumber = std::numeric_limits<uint32_t>::max();
inline constexpr uint64_t nMaxListSerial = std::numeric_limits<int64_t>::max(); // TOML has no larger number

// Above the first feature, and with how its table's line begins, all that may stand there.
inline constexpr SListField aHeadFields[] = {
    {"count", std::monostate(), EListUse::check, false, nMaxListNumber,
     "above the first feature: how many follow; guards against a file that was cut off"},
    {"serial", &SListHead::m_nSerial, EListUse::check, false, nMaxListSerial,
     "above the first feature: the list's number, which rises; where lists must be signed, a lower one is "
     "refused",
     1},
    {"issued", &SListHead::m_sIssued, EListUse::note, false, 0,
     "above the first feature: when the list was made, for people"},
    {"scope", &SListHead::m_vScope, EListUse::check, false, nMaxApplianceName,
     "above the first feature: appliances and groups that the list is for; all, where it is missing"},
};
inline constexpr const SListField& oCountField = aHeadFields[0];
inline constexpr std::string_view sFeatureKey = "feature";

// The text of a missing or wrong key comes in this order.
inline constexpr SListField aFeatureFields[] = {
    {"code", &SFeatureRecord::m_nCode, EListUse::pair, true, nMaxListNumber,
     "names the feature, together with `data`"},
    {"data", &SFeatureRecord::m_nData, EListUse::pair, true, nMaxListNumber,
     "its data; a pair stands once, and 0, 0 not at all"},
    {"components", &SFeatureRecord::m_vComponents, EListUse::content, true, nMaxNameLength,
     "whom the feature concerns, as the components announce themselves"},
    {"sourced", &SFeatureRecord::m_bSourced, EListUse::content, false, 0,
     "kept from list to list; false where it is missing"},
};

// Null: there is no such key in a feature, or above the first.
const SListField* findFeatureField(std::string_view key);
const SListField* findHeadField(std::string_view key);

// Whether the daemon makes no difference between the two. Their lines do not count: a comment or a blank line
// more makes no other feature.
bool isSameFeature(const SFeatureRecord& one, const SFeatureRecord& other);

#endif
