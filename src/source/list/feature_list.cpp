#include "source/list/feature_list.h"

#include "base/SFeature.h"
#include "messaging/wire/wire.h"
#include "source/list/list_blocks.h"
#include "source/list/whole_file.h"

#include <fmt/format.h>
#include <toml.hpp>

#include <algorithm>
#include <array>
#include <limits>
#include <numeric>
#include <optional>
#include <sstream>
#include <unordered_map>

namespace {

constexpr std::string_view aTopKeys[] = {"count", "feature"};
constexpr std::string_view aFeatureKeys[] = {"code", "data", "components", "sourced"};
constexpr size_t nSuggestionDistance = 2; // edits; a key that is further off is no typing mistake

// The Levenshtein distance: insertions, deletions and replacements of single characters. One row of the table
// is enough, since each cell needs only its left, upper and upper left neighbours.
size_t editDistance(std::string_view from, std::string_view to) {
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < from.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i + 1;
        for (size_t j = 0; j < to.size(); ++j) {
            const size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
        }
    }
    return row.back();
}

// ": did you mean 'KEY'?", or nothing if no known key is near.
template <size_t N>
std::string suggestion(std::string_view key, const std::string_view (&known)[N]) {
    const auto* nearest = std::min_element(std::begin(known), std::end(known), [key](auto one, auto other) {
        return editDistance(key, one) < editDistance(key, other);
    });
    return editDistance(key, *nearest) <= nSuggestionDistance ? fmt::format(": did you mean '{}'?", *nearest)
                                                              : "";
}

bool isControl(char c) {
    return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
}

// Errors quote what the operator wrote, on one line and of bearable length. The text goes to the log and to a
// terminal, so control characters must not get there.
std::string shown(std::string_view text) {
    constexpr size_t nMaxShown = 40;
    std::string result(text.substr(0, nMaxShown));
    std::replace_if(result.begin(), result.end(), isControl, '?');
    return text.size() > nMaxShown ? result + "..." : result;
}

// toml11's message is a drawing of several lines: a title "[error] function: what", the place, and an arrow
// with a hint. Taken from it are the "what" and the last hint; of a message of another form, the first line.
std::string syntaxText(std::string_view message) {
    std::string_view title = message.substr(0, message.find('\n'));
    for (std::string_view lead : {"[error] ", "toml::"}) {
        if (title.starts_with(lead)) {
            title.remove_prefix(lead.size());
        }
    }
    if (const size_t colon = title.find(": "); colon != title.npos) {
        title.remove_prefix(colon + 2);
    }
    std::string text = fmt::format("not TOML: {}", title);
    constexpr std::string_view arrow = "^--- ";
    if (const size_t at = message.rfind(arrow); at != message.npos) {
        const std::string_view hint = message.substr(at + arrow.size());
        text += fmt::format(" ({})", hint.substr(0, hint.find('\n')));
    }
    std::replace_if(text.begin(), text.end(), isControl, '?');
    return text;
}

// Checks one text, and collects what is good and what is wrong. Used once.
class CFeatureListCheck {
public:
    // Sorted, since the parser's tables come in no order and the count is checked last. Stable, so that the
    // errors of one line stay in the order in which they were found.
    SFeatureList run(std::string_view text) {
        for (const SListBlock& block : cutFeatureList(text)) {
            m_nBlockLine = block.m_nLine;
            checkBlock(block);
        }
        checkCount();
        std::stable_sort(
            m_oList.m_vErrors.begin(), m_oList.m_vErrors.end(),
            [](const SListError& one, const SListError& other) { return one.m_nLine < other.m_nLine; });
        return std::move(m_oList);
    }

private:
    void error(uint32_t line, std::string text) { m_oList.m_vErrors.push_back({line, std::move(text)}); }

    // The parser counts lines from the start of its block.
    uint32_t lineOf(uint32_t lineOfBlock) const { return m_nBlockLine + lineOfBlock - 1; }
    uint32_t lineOf(const toml::value& value) const { return lineOf(value.location().line()); }

    // A feature that cannot be parsed still counts, so that one syntax error does not bring a complaint about
    // `count` too.
    void checkBlock(const SListBlock& block) {
        if (block.m_nTooDeepLine != 0) {
            error(block.m_nTooDeepLine, "nested too deep");
        } else if (const std::optional<toml::value> root = parse(block.m_sText)) {
            checkRoot(*root);
            return;
        }
        m_nFeatures += block.m_bFeature ? 1 : 0;
    }

    // Trailing blank lines are cut off, so that something left open is reported where its block ends, not
    // where the next one begins. Not all of the parser's exceptions have a place; without one, the block's
    // first line is named.
    std::optional<toml::value> parse(std::string_view text) {
        text = text.substr(0, text.find_last_not_of(" \t\r\n") + 1);
        try {
            std::istringstream stream{std::string(text)};
            return toml::parse(stream, "feature list");
        } catch (const toml::syntax_error& fault) {
            const auto lines = static_cast<uint32_t>(1 + std::count(text.begin(), text.end(), '\n'));
            error(lineOf(std::min(fault.location().line(), lines)), syntaxText(fault.what()));
        } catch (const std::exception& fault) {
            error(m_nBlockLine, syntaxText(fault.what()));
        }
        return std::nullopt;
    }

    // Of a feature's block too, whose root has the one key "feature".
    void checkRoot(const toml::value& root) {
        for (const auto& [key, value] : root.as_table()) {
            if (key == "count") {
                m_oCount = number(value, "count");
                m_nCountLine = lineOf(value);
            } else if (key == "feature") {
                checkFeatures(value);
            } else {
                error(lineOf(value),
                      fmt::format("unknown key '{}'{}", shown(key), suggestion(key, aTopKeys)));
            }
        }
    }

    void checkFeatures(const toml::value& features) {
        // "[feature]" makes a table of it, and "feature = 1" a number.
        if (!features.is_array()) {
            error(lineOf(features), "a feature is written as a [[feature]] table, in two brackets each");
            return;
        }
        for (const toml::value& feature : features.as_array()) {
            ++m_nFeatures;
            if (feature.is_table()) {
                checkFeature(feature);
            } else {
                error(lineOf(feature), fmt::format("a feature must be a table, not {}", typeOf(feature)));
            }
        }
    }

    // Unknown keys are errors: a mistyped `sourced` would otherwise change the feature's meaning without a
    // word. A feature with errors still joins the list, which nobody uses then.
    void checkFeature(const toml::value& feature) {
        SFeatureRecord record;
        record.m_nLine = lineOf(feature);
        for (const auto& [key, value] : feature.as_table()) {
            if (std::find(std::begin(aFeatureKeys), std::end(aFeatureKeys), key) == std::end(aFeatureKeys)) {
                error(lineOf(value), unknownFeatureKey(key));
            }
        }
        const auto code = requiredNumber(feature, "code", record.m_nLine);
        const auto data = requiredNumber(feature, "data", record.m_nLine);
        takeComponents(feature, record);
        takeSourced(feature, record);
        if (code && data) {
            record.m_nCode = *code;
            record.m_nData = *data;
            checkPair(record);
        }
        m_oList.m_vFeatures.push_back(std::move(record));
    }

    // For TOML every key below a header belongs to that table, so a `count` in the wrong place ends up in
    // a feature.
    static std::string unknownFeatureKey(const std::string& key) {
        const std::string place =
            key == "count" ? ": it belongs above the first [[feature]]" : suggestion(key, aFeatureKeys);
        return fmt::format("unknown key '{}' in a feature{}", shown(key), place);
    }

    const toml::value* required(const toml::value& feature, const char* key, uint32_t line) {
        if (feature.contains(key)) {
            return &feature.at(key);
        }
        error(line, fmt::format("'{}' is missing", key));
        return nullptr;
    }

    std::optional<uint32_t> requiredNumber(const toml::value& feature, const char* key, uint32_t line) {
        const toml::value* value = required(feature, key, line);
        return value != nullptr ? number(*value, key) : std::nullopt;
    }

    // TOML's integers have 64 bits and a sign, so the range is checked here. A float is not taken, even a
    // whole one.
    std::optional<uint32_t> number(const toml::value& value, const char* key) {
        constexpr uint32_t nMax = std::numeric_limits<uint32_t>::max();
        if (!value.is_integer()) {
            error(lineOf(value), fmt::format("'{}' must be an integer, not {}", key, typeOf(value)));
            return std::nullopt;
        }
        if (value.as_integer() < 0 || value.as_integer() > nMax) {
            error(lineOf(value), fmt::format("'{}' must be from 0 to {}", key, nMax));
            return std::nullopt;
        }
        return static_cast<uint32_t>(value.as_integer());
    }

    // The number of names is checked first: the look for duplicates takes time quadratic in it.
    void takeComponents(const toml::value& feature, SFeatureRecord& record) {
        const toml::value* value = required(feature, "components", record.m_nLine);
        if (value == nullptr) {
            return;
        }
        if (!value->is_array()) {
            error(lineOf(*value),
                  fmt::format("'components' must be an array of strings, not {}", typeOf(*value)));
            return;
        }
        if (value->as_array().size() > nMaxComponents) {
            error(lineOf(*value), fmt::format("'components' has more than {} names", nMaxComponents));
            return;
        }
        for (const toml::value& name : value->as_array()) {
            takeComponent(name, record.m_vComponents);
        }
    }

    // Only sensible names pass, so that a typing mistake shows here, and not as a feature that
    // reaches nobody.
    void takeComponent(const toml::value& value, std::vector<std::string>& names) {
        if (!value.is_string()) {
            error(lineOf(value), fmt::format("a component name must be a string, not {}", typeOf(value)));
            return;
        }
        const std::string& name = value.as_string().str;
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

    void takeSourced(const toml::value& feature, SFeatureRecord& record) {
        if (!feature.contains("sourced")) {
            return;
        }
        const toml::value& value = feature.at("sourced");
        if (value.is_boolean()) {
            record.m_bSourced = value.as_boolean();
        } else {
            error(lineOf(value), fmt::format("'sourced' must be true or false, not {}", typeOf(value)));
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

    // A file without features is most likely one that an editor is about to fill. To take it for a list
    // would withdraw everything, so withdrawing everything has to be said. After other errors this one would
    // only confuse.
    void checkCount() {
        if (m_oCount && *m_oCount != m_nFeatures) {
            error(m_nCountLine,
                  fmt::format("'count' is {}, but the file has {} features", *m_oCount, m_nFeatures));
        } else if (m_nFeatures == 0 && m_nCountLine == 0 && m_oList.isGood()) {
            error(0, "holds no feature; a list that withdraws all of them says so: count = 0");
        }
    }

    static std::string typeOf(const toml::value& value) { return toml::stringize(value.type()); }

    SFeatureList m_oList;
    uint32_t m_nBlockLine = 1; // of the block being checked
    uint32_t m_nFeatures = 0;  // tables seen, faulty ones included
    std::optional<uint32_t> m_oCount;
    uint32_t m_nCountLine = 0;                       // 0: no count given
    std::unordered_map<SFeature, uint32_t> m_oPairs; // line of each pair's first appearance
};

} // namespace

SFeatureList readFeatureList(const std::string& path) {
    const SWholeFile file = readWholeFile(path, nMaxListFileSize);
    if (!file.m_sError.empty()) {
        return {{}, {{0, file.m_sError}}};
    }
    return parseFeatureList(file.m_sText);
}

SFeatureList parseFeatureList(std::string_view text) {
    return CFeatureListCheck().run(text);
}

// FILE:LINE: text is how compilers report, so editors can follow it.
std::string printListError(const std::string& path, const SListError& error) {
    const std::string place = error.m_nLine != 0 ? fmt::format("{}:{}", path, error.m_nLine) : path;
    return fmt::format("{}: {}", place, error.m_sText);
}
