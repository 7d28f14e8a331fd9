#include "source/list/feature_list.h"

#include "base/SFeature.h"
#include "messaging/wire/wire.h"
#include "source/list/list_blocks.h"
#include "source/list/list_fields.h"
#include "source/list/list_text.h"
#include "source/list/toml_parser.h"
#include "source/list/whole_file.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <span>
#include <type_traits>
#include <unordered_map>

namespace {

std::string outOfRange(const SListField& field) {
    return fmt::format("'{}' must be from {} to {}", field.m_sKey, field.m_nLeast, field.m_nMost);
}

// Null: the key is of no number.
const SListField* findNumber(std::string_view key) {
    const SListField* field = findHeadField(key) != nullptr ? findHeadField(key) : findFeatureField(key);
    return field != nullptr && field->isNumber() ? field : nullptr;
}

// ": did you mean 'data'?" of the keys of the fields, and those given.
std::string suggestKey(std::string_view key, std::span<const SListField> fields,
                       std::vector<std::string_view> keys = {}) {
    for (const SListField& field : fields) {
        keys.push_back(field.m_sKey);
    }
    return suggestion(key, keys);
}

std::string_view nthLine(std::string_view text, uint32_t number) {
    for (; number > 1; --number) {
        text.remove_prefix(std::min(text.find('\n'), text.size() - 1) + 1);
    }
    return text.substr(0, text.find('\n'));
}

// The key of a line "key = value".
std::string_view keyOf(std::string_view line) {
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    return line.substr(0, line.find_first_of(" \t="));
}

// For the parser, a number beyond 64 bits is a syntax error. For the operator it is out of range, like any
// other that is too large.
bool isHugeNumber(std::string_view complaint) {
    constexpr std::string_view aParts[] = {"not representable in 64 bits", "exceeds length limit",
                                           "numeric value too long"};
    return std::any_of(std::begin(aParts), std::end(aParts),
                       [complaint](std::string_view part) { return complaint.find(part) != part.npos; });
}

// The parser says "Error while parsing PLACE: WHAT". What it calls the end of the file is that of a block.
std::string syntaxText(std::string_view complaint, bool isAtLineEnd) {
    constexpr size_t nMaxWhat = 160;
    constexpr std::string_view lead = "Error while parsing ";
    complaint.remove_prefix(complaint.starts_with(lead) ? lead.size() : 0);
    const size_t colon = std::min(complaint.find(": "), complaint.size());
    const std::string_view place = complaint.substr(0, colon);
    std::string_view what = complaint.substr(std::min(colon + 2, complaint.size()));
    if (what == "encountered end-of-file") {
        what = "ends too early";
    } else if (isAtLineEnd && what.find("control characters") != what.npos) {
        what = "not closed in its line";
    }
    return fmt::format("not TOML: {} ({})", shown(what, nMaxWhat), place);
}

// Checks one text and collects what is good and what is wrong.
class CFeatureListCheck {
public:
    SFeatureList run(std::string_view text) {
        CListBlocks blocks(text);
        while (const std::optional<SListBlock> block = blocks.next()) {
            m_nBlockLine = block->m_nLine;
            checkBlock(*block);
        }
        checkCount();
        return std::move(m_oList);
    }

    SFeatureList runHead(std::string_view text) {
        const std::optional<SListBlock> block = CListBlocks(text).next();
        if (block && !block->m_bFeature) {
            checkBlock(*block);
        }
        return std::move(m_oList);
    }

private:
    void error(uint32_t line, std::string text) { m_oList.add({line, std::move(text)}); }

    uint32_t lineOf(uint32_t lineOfBlock) const { return m_nBlockLine + lineOfBlock - 1; }
    uint32_t lineOf(const toml::node& value) const { return lineOf(value.source().begin.line); }

    void checkBlock(const SListBlock& block) {
        if (block.m_nTooDeepLine != 0) {
            error(block.m_nTooDeepLine, "nested too deep");
        } else if (block.m_bTooLong) {
            error(block.m_nLine, fmt::format("more than {} characters up to the next [[feature]] line: is a "
                                             "string left open?",
                                             nMaxBlockLength));
        } else if (parse(block.m_sText)) {
            return;
        }
        m_nFeatures += block.m_bFeature ? 1 : 0;
    }

    // Without its last blank lines, so that what was left open shows where the block ends,
    // not where the next begins.
    bool parse(std::string_view text) {
        text = text.substr(0, text.find_last_not_of(" \t\r\n") + 1);
        const toml::parse_result result = toml::parse(text);
        if (result) {
            checkRoot(result.table());
            return true;
        }
        reportSyntax(text, result.error());
        return false;
    }

    void reportSyntax(std::string_view text, const toml::parse_error& fault) {
        const auto lines = static_cast<uint32_t>(1 + std::count(text.begin(), text.end(), '\n'));
        const auto [line, column] = fault.source().begin;
        const uint32_t number = std::min(line, lines);
        const std::string_view wrong = nthLine(text, number);
        const SListField* field = findNumber(keyOf(wrong));
        if (field != nullptr && isHugeNumber(fault.description())) {
            error(lineOf(number), outOfRange(*field));
        } else {
            error(lineOf(number), syntaxText(fault.description(), column > wrong.size()));
        }
    }

    void checkRoot(const toml::table& root) {
        for (const auto& [key, value] : root) {
            if (key == oCountField.m_sKey) {
                m_nCountLine = lineOf(value);
                uint64_t count = 0;
                if (take(value, oCountField, count)) {
                    m_oCount = count;
                }
            } else if (const SListField* field = findHeadField(key)) {
                takeInto(value, *field, m_oList.m_oHead);
            } else if (key == sFeatureKey) {
                checkFeatures(value);
            } else {
                error(lineOf(value), fmt::format("unknown key '{}'{}", shown(key),
                                                 suggestKey(key, aHeadFields, {sFeatureKey})));
            }
        }
    }

    void checkFeatures(const toml::node& features) {
        const toml::array* array = features.as_array();
        if (array == nullptr) {
            error(lineOf(features), "a feature is written as a [[feature]] table, in two brackets each");
            return;
        }
        for (const toml::node& feature : *array) {
            ++m_nFeatures;
            if (const toml::table* table = feature.as_table()) {
                checkFeature(*table);
            } else {
                error(lineOf(feature), fmt::format("a feature must be a table, not {}", typeOf(feature)));
            }
        }
    }

    void checkFeature(const toml::table& feature) {
        SFeatureRecord record;
        record.m_nLine = lineOf(feature);
        for (const auto& [key, value] : feature) {
            if (findFeatureField(key) == nullptr) {
                error(lineOf(value), unknownFeatureKey(key));
            }
        }
        bool hasPair = true;
        for (const SListField& field : aFeatureFields) {
            const bool isGood = takeField(feature, field, record);
            hasPair = hasPair && (isGood || field.m_eUse != EListUse::pair);
        }
        if (hasPair) {
            checkPair(record);
        }
        if (m_oList.isGood()) {
            m_oList.m_vFeatures.push_back(std::move(record));
        }
    }

    static std::string unknownFeatureKey(std::string_view key) {
        const std::string place = findHeadField(key) != nullptr ? ": it belongs above the first [[feature]]"
                                                                : suggestKey(key, aFeatureFields);
        return fmt::format("unknown key '{}' in a feature{}", shown(key), place);
    }

    // False: the value is wrong, or missing where it must be there.
    bool takeField(const toml::table& feature, const SListField& field, SFeatureRecord& record) {
        const toml::node* value = feature.get(field.m_sKey);
        if (value == nullptr) {
            if (field.m_bRequired) {
                error(record.m_nLine, fmt::format("'{}' is missing", field.m_sKey));
            }
            return !field.m_bRequired;
        }
        return takeInto(*value, field, record);
    }

    template <typename T>
    bool takeInto(const toml::node& value, const SListField& field, T& record) {
        const auto takeMember = [&](auto member) {
            if constexpr (std::is_invocable_v<decltype(member), T&>) {
                return take(value, field, record.*member);
            }
            return false;
        };
        return std::visit(takeMember, field.m_oMember);
    }

    bool refuse(const toml::node& value, const SListField& field, std::string_view type) {
        error(lineOf(value), fmt::format("'{}' must be {}, not {}", field.m_sKey, type, typeOf(value)));
        return false;
    }

    bool take(const toml::node& value, const SListField& field, uint64_t& number) {
        const toml::value<int64_t>* integer = value.as_integer();
        if (integer == nullptr) {
            return refuse(value, field, "an integer");
        }
        const auto taken = static_cast<uint64_t>(integer->get()); // a negative one is beyond any limit
        if (taken < field.m_nLeast || taken > field.m_nMost) {
            error(lineOf(value), outOfRange(field));
            return false;
        }
        number = taken;
        return true;
    }

    bool take(const toml::node& value, const SListField& field, uint32_t& number) {
        uint64_t taken = 0;
        if (!take(value, field, taken)) {
            return false;
        }
        number = static_cast<uint32_t>(taken); // nMaxListNumber at most
        return true;
    }

    // A moment, without doubt about its zone.
    bool take(const toml::node& value, const SListField& field, std::string& moment) {
        const toml::value<toml::date_time>* time = value.as_date_time();
        if (time == nullptr || time->get().offset != toml::time_offset{}) {
            return refuse(value, field, "a date and time in UTC, such as 2024-03-14T13:04:05Z");
        }
        const toml::date& day = time->get().date;
        const toml::time& hour = time->get().time;
        moment = fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", day.year, day.month, day.day, hour.hour,
                             hour.minute, hour.second);
        return true;
    }

    bool take(const toml::node& value, const SListField& field, bool& flag) {
        const toml::value<bool>* boolean = value.as_boolean();
        if (boolean == nullptr) {
            return refuse(value, field, "true or false");
        }
        flag = boolean->get();
        return true;
    }

    bool take(const toml::node& value, const SListField& field, std::vector<std::string>& names) {
        const toml::array* array = value.as_array();
        if (array == nullptr) {
            return refuse(value, field, "an array of strings");
        }
        if (array->size() > nMaxComponents) {
            error(lineOf(value), fmt::format("'{}' has more than {} names", field.m_sKey, nMaxComponents));
            return false;
        }
        const bool isScope = &names == &m_oList.m_oHead.m_vScope;
        if (isScope && array->empty()) {
            error(lineOf(value), "'scope' is empty: the list would be for nobody");
        }
        names.reserve(array->size());
        for (const toml::node& name : *array) {
            isScope ? takeScope(name, names) : takeComponent(name, names);
        }
        return true;
    }

    void takeScope(const toml::node& value, std::vector<std::string>& names) {
        const toml::value<std::string>* text = value.as_string();
        if (text == nullptr || !isApplianceName(text->get())) {
            error(lineOf(value),
                  fmt::format(
                      "'{}' in the scope is no name of an appliance or a group: 1 to {} letters, digits, "
                      "'.', '_' or '-'",
                      text != nullptr ? shown(text->get()) : typeOf(value), nMaxApplianceName));
        } else if (std::find(names.begin(), names.end(), text->get()) != names.end()) {
            error(lineOf(value), fmt::format("'{}' is named twice in the scope", text->get()));
        } else {
            names.push_back(text->get());
        }
    }

    void takeComponent(const toml::node& value, std::vector<std::string>& names) {
        const toml::value<std::string>* text = value.as_string();
        if (text == nullptr) {
            error(lineOf(value), fmt::format("a component name must be a string, not {}", typeOf(value)));
            return;
        }
        const std::string& name = text->get();
        if (name.empty()) {
            error(lineOf(value), "a component name is empty");
        } else if (name.size() > nMaxNameLength) {
            error(lineOf(value),
                  fmt::format("component name '{}' is longer than {} characters: no component can "
                              "announce itself by it",
                              shown(name), nMaxNameLength));
        } else if (std::any_of(name.begin(), name.end(), isControl)) {
            error(lineOf(value), fmt::format("component name '{}' has a control character", shown(name)));
        } else if (std::find(names.begin(), names.end(), name) != names.end()) {
            error(lineOf(value), fmt::format("component '{}' is named twice", name));
        } else {
            names.push_back(name);
        }
    }

    void checkPair(const SFeatureRecord& record) {
        if (record.m_nCode == 0 && record.m_nData == 0) {
            error(record.m_nLine,
                  "code 0 with data 0 is no feature: it ends the list that a component fetches");
            return;
        }
        const auto [first, isNew] =
            m_oPairs.try_emplace(SFeature{record.m_nCode, record.m_nData}, record.m_nLine);
        if (!isNew) {
            error(record.m_nLine, fmt::format("code {} with data {} stands twice: first in line {}",
                                              record.m_nCode, record.m_nData, first->second));
        }
    }

    // An empty file is most likely one that an editor is about to fill; taking it for
    // a list would withdraw everything.
    void checkCount() {
        if (m_oCount && *m_oCount != m_nFeatures) {
            error(m_nCountLine,
                  fmt::format("'count' is {}, but the file has {} features", *m_oCount, m_nFeatures));
        } else if (m_nFeatures == 0 && m_nCountLine == 0 && m_oList.isGood()) {
            error(0, "holds no feature; a list that withdraws all of them says so: count = 0");
        }
    }

    SFeatureList m_oList;
    uint32_t m_nBlockLine = 1; // of the block being checked
    uint32_t m_nFeatures = 0;  // tables seen, bad ones included
    std::optional<uint64_t> m_oCount;
    uint32_t m_nCountLine = 0;                       // 0: no count given
    std::unordered_map<SFeature, uint32_t> m_oPairs; // line of each pair's first appearance
};

} // namespace

void SFeatureList::add(SListError error) {
    ++m_nErrors;
    const auto place =
        std::upper_bound(m_vErrors.begin(), m_vErrors.end(), error.m_nLine,
                         [](uint32_t line, const SListError& other) { return line < other.m_nLine; });
    m_vErrors.insert(place, std::move(error));
    if (m_vErrors.size() > nMaxListErrors) {
        m_vErrors.pop_back();
    }
}

SFeatureList readFeatureList(const std::string& path, std::string* text) {
    SWholeFile file = readWholeFile(path, nMaxListFileSize);
    SFeatureList list;
    if (file.m_sError.empty()) {
        list = parseFeatureList(file.m_sText);
    } else {
        list.add({0, file.m_sError});
        list.m_bPassing = file.m_bPassing;
    }
    if (text != nullptr) {
        *text = std::move(file.m_sText);
    }
    return list;
}

namespace {

// The bytes are checked first: the parser shall see nothing but text.
SFeatureList check(std::string_view text, SFeatureList (CFeatureListCheck::*run)(std::string_view)) {
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    text.remove_prefix(text.starts_with(byteOrderMark) ? byteOrderMark.size() : 0);
    const std::optional<SBadByte> bad = findBadByte(text);
    if (!bad) {
        CFeatureListCheck checker;
        return (checker.*run)(text);
    }
    SFeatureList list;
    list.add({bad->m_nLine, fmt::format("column {}: byte 0x{:02X} is not {}: save the file as UTF-8",
                                        bad->m_nColumn, bad->m_nByte, bad->m_nByte == 0 ? "text" : "UTF-8")});
    return list;
}

} // namespace

SFeatureList parseFeatureList(std::string_view text) {
    return check(text, &CFeatureListCheck::run);
}

SFeatureList parseListHead(std::string_view text) {
    return check(text, &CFeatureListCheck::runHead);
}

bool isApplianceName(std::string_view name) {
    constexpr char letters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
    return !name.empty() && name.size() <= nMaxApplianceName &&
           name.find_first_not_of(letters) == name.npos && name.find_first_of("._-") != 0;
}

std::string printListError(const std::string& path, const SListError& error) {
    const std::string place = error.m_nLine != 0 ? fmt::format("{}:{}", path, error.m_nLine) : path;
    return fmt::format("{}: {}", place, error.m_sText);
}
