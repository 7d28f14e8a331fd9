// qelctl schema
#include "ctl/commands.h"
#include "ctl/json.h"
#include "ctl/terminal.h"
#include "source/list/list_fields.h"

#include <algorithm>

namespace {

// The limits of a value, by the type of the member that it goes to.
struct SLimits {
    const SListField& m_oField;

    CJson operator()(std::monostate) const { return number(); }
    CJson operator()(uint32_t SFeatureRecord::*) const { return number(); }
    CJson operator()(uint64_t SListHead::*) const { return number(); }
    CJson operator()(std::string SListHead::*) const {
        return {{"type", "string"}, {"format", "date-time"}, {"pattern", "Z$"}};
    }
    CJson operator()(bool SFeatureRecord::*) const { return {{"type", "boolean"}}; }
    // A schema counts characters where the list counts bytes.
    CJson operator()(std::vector<std::string> SFeatureRecord::*) const { return names(); }
    CJson operator()(std::vector<std::string> SListHead::*) const { return names(); }

private:
    CJson number() const {
        return {{"type", "integer"}, {"minimum", m_oField.m_nLeast}, {"maximum", m_oField.m_nMost}};
    }
    CJson names() const {
        return {{"type", "array"},
                {"maxItems", nMaxComponents},
                {"uniqueItems", true},
                {"items", {{"type", "string"}, {"minLength", 1}, {"maxLength", m_oField.m_nMost}}}};
    }
};

CJson describeField(const SListField& field) {
    CJson schema = std::visit(SLimits{field}, field.m_oMember);
    schema["description"] = field.m_sMeaning;
    return schema;
}

CJson describeFeature() {
    CJson properties = CJson::object();
    CJson required = CJson::array();
    for (const SListField& field : aFeatureFields) {
        properties[field.m_sKey] = describeField(field);
        if (field.m_bRequired) {
            required.push_back(field.m_sKey);
        }
    }
    return {{"type", "object"},
            {"additionalProperties", false},
            {"required", std::move(required)},
            {"properties", std::move(properties)}};
}

} // namespace

// Draft 7 is what editors know.
int runSchema() {
    CJson properties = {{sFeatureKey, {{"type", "array"}, {"items", describeFeature()}}}};
    for (const SListField& field : aHeadFields) {
        properties[field.m_sKey] = describeField(field);
    }
    const CJson either = {{{"required", {oCountField.m_sKey}}}, {{"required", {sFeatureKey}}}};
    printJson({{"$schema", "http://json-schema.org/draft-07/schema#"},
               {"title", "The feature list of qelserver"},
               {"type", "object"},
               {"additionalProperties", false},
               {"anyOf", either},
               {"properties", std::move(properties)}});
    return flushOutput() ? exitOk : exitFailed;
}
