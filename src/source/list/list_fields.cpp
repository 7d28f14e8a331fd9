#include "source/list/list_fields.h"

#include <algorithm>

const SListField* findFeatureField(std::string_view key) {
    const auto* found = std::find_if(std::begin(aFeatureFields), std::end(aFeatureFields),
                                     [key](const SListField& field) { return field.m_sKey == key; });
    return found == std::end(aFeatureFields) ? nullptr : found;
}

bool isSameFeature(const SFeatureRecord& one, const SFeatureRecord& other) {
    const auto isSame = [&](auto member) {
        if constexpr (std::is_member_pointer_v<decltype(member)>) {
            return one.*member == other.*member;
        }
        return true;
    };
    return std::all_of(std::begin(aFeatureFields), std::end(aFeatureFields), [&](const SListField& field) {
        return field.m_eUse == EListUse::note || std::visit(isSame, field.m_oMember);
    });
}
