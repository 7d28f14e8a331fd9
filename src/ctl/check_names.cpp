#include "ctl/check_names.h"

#include "base/CDescriptions.h"
#include "source/list/list_text.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <unordered_map>

namespace {

// For people, unlike for the daemon, "\r\n" ends one line and not two.
std::string_view cutLine(std::string_view& text) {
    const std::string_view line = text.substr(0, text.find_first_of("\r\n"));
    text.remove_prefix(line.size());
    text.remove_prefix(text.starts_with("\r\n") ? 2 : std::min<size_t>(1, text.size()));
    return line;
}

// Stricter than the daemon, which reads the number at the begin of anything, and 0 where there is none.
bool isCode(std::string_view field) {
    field.remove_prefix(std::min(field.find_first_not_of(' '), field.size()));
    uint32_t code = 0;
    const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), code);
    return error == std::errc() && end == field.data() + field.size();
}

std::string_view firstField(std::string_view line) {
    line.remove_prefix(std::min(line.find_first_not_of(','), line.size()));
    return line.substr(0, line.find(','));
}

} // namespace

std::vector<SListError> checkDescriptions(std::string_view text) {
    std::vector<SListError> errors;
    std::unordered_map<uint32_t, uint32_t> known; // line of each code's first appearance
    const size_t end = std::min(text.find('\0'), text.size());
    std::string_view rest = text.substr(0, end);
    uint32_t number = 1;
    for (; !rest.empty(); ++number) {
        const std::string_view line = cutLine(rest);
        const std::string_view code = firstField(line);
        CDescriptions description(line);
        if (code.empty()) {
            continue;
        }
        if (!description.next()) {
            errors.push_back(
                {number, fmt::format("'{}' gives no feature a name: write CODE,NAME", shown(line))});
        } else if (!isCode(code)) {
            errors.push_back({number, fmt::format("'{}' is no code from 0 to 4294967295: the daemon takes it "
                                                  "for {}",
                                                  shown(code), description.code())});
        } else if (const auto [first, isNew] = known.try_emplace(description.code(), number); !isNew) {
            errors.push_back(
                {number, fmt::format("code {} stands twice: first in line {}; the last one counts",
                                     description.code(), first->second)});
        }
    }
    if (end != text.size()) {
        errors.push_back({0, fmt::format("byte {} is 0: for the daemon the file ends there", end + 1)});
    } else if (known.empty() && errors.empty()) {
        errors.push_back({0, "holds no name: write a line CODE,NAME for each feature"});
    }
    return errors;
}
