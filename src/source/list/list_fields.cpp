#include "source/list/list_fields.h"

#include <algorithm>
#include <span>
#include <type_traits>

namespace {

const SListField* find(std::span<const SListField> fields, std::string_view key) {
    const auto found =
        std::ranges::find_if(fields, [key](const SListField& field) { return field.m_sKey == key; });
    return found == fields.end() ? nullptr : &*found;
}

} // namespace

const SListField* findFeatureField(std::string_view key) {
    return find(aFeatureFields, key);
}

const SListField* findHeadField(std::string_view key) {
    return find(aHeadFields, key);
}

bool isSameFeature(const SFeatureRecord& one, const SFeatureRecord& other) {
    const auto isSame = [&](auto member) {
        if constexpr (std::is_invocable_v<decltype(member), const SFeatureRecord&>) {
            return one.*member == other.*member;
        }
        return true;
    };
    return std::all_of(std::begin(aFeatureFields), std::end(aFeatureFields), [&](const SListField& field) {
        return field.m_eUse == EListUse::note || std::visit(isSame, field.m_oMember);
    });
}
