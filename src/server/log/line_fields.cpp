#include "server/log/line_fields.h"

#include <algorithm>
#include <iterator>

namespace {

// What the conversions of a text are, in their order: n a component's name, c code, d data, r a component's
// own words, - none of these. Those at the end may be left out. The delivery's lines are not among them: it
// tells their fields itself.
struct SRoles {
    uint32_t m_nEvent;
    std::string_view m_sBegin; // of the text; empty: all texts of the event that no row before has
    std::string_view m_sRoles;
};

constexpr SRoles aRoles[] = {
    {31015, "", "n"},       {31020, "", "-n"},          {31023, "", "-n"},
    {31025, "", "-n"},      {31030, "", "-r"},          {31031, "", "-n"},
    {31032, "", "cd"},      {31033, "", "-r"},          {31034, "", "-n"},
    {31107, "", "-n-cd"}, // brackets around the name
    {31108, "Null", "cdn"}, {31108, "already", "-cdn"}, {31108, "audit", "cd"},
    {31112, "", "-n-cd"},   {31113, "", "cd"},          {31115, "", "cd"},
    {31116, "", "c"},       {31117, "removed", "cn"},   {31117, "", "cdn"},
    {31119, "", "cd"},      {31131, "", "c"},           {31134, "", "cn"},
    {31139, "", "cn"},      {31140, "", "cn"},          {31175, "feature %u", "cdn"},
    {31177, "", "cd"},
};

std::string_view rolesOf(uint32_t event, std::string_view format) {
    const auto* found = std::find_if(std::begin(aRoles), std::end(aRoles), [&](const SRoles& roles) {
        return roles.m_nEvent == event && format.starts_with(roles.m_sBegin);
    });
    return found == std::end(aRoles) ? std::string_view() : found->m_sRoles;
}

} // namespace

// A reason is a string of a given length, a name a whole one. The texts of the table have nothing else but
// numbers of int's size, up to the last that counts.
SLineFields fieldsOf(uint32_t event, std::string_view format, va_list arguments) {
    SLineFields fields;
    for (const char role : rolesOf(event, format)) {
        const size_t at = format.find('%');
        if (at == format.npos) {
            break;
        }
        format.remove_prefix(at + 1);
        const bool isCounted = format.starts_with(".*s");
        const int length = isCounted ? va_arg(arguments, int) : 0;
        if (!isCounted && !format.starts_with('s')) {
            const uint32_t number = va_arg(arguments, uint32_t);
            if (role == 'c') {
                fields.m_oCode = number;
            } else if (role == 'd') {
                fields.m_oData = number;
            }
            continue;
        }
        const char* text = va_arg(arguments, const char*);
        if (role == 'n') {
            fields.m_sComponent = text;
        } else if (role == 'r') {
            fields.m_sReason = {text, static_cast<size_t>(length)};
        }
    }
    return fields;
}
