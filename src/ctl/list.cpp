// qelctl list
#include "ctl/CFeatureNames.h"
#include "ctl/COamQuery.h"
#include "ctl/commands.h"
#include "ctl/terminal.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <map>
#include <nlohmann/json.hpp>

namespace {

struct SStatus {
    const char* m_szWord;
    EColour m_eColour;
};

// In the order of their numbers on the wire. Yellow: under way; green: settled; red: being withdrawn.
constexpr std::array<SStatus, 5> aStatuses = {{
    {"newadd", EColour::yellow},
    {"modify", EColour::yellow},
    {"active", EColour::green},
    {"deleted", EColour::red},
    {"existing", EColour::none},
}};

// A daemon newer than this program may know more of them.
SStatus statusOf(const SActiveFeature& feature) {
    return feature.m_nStatus < aStatuses.size() ? aStatuses[feature.m_nStatus]
                                                : SStatus{"unknown", EColour::red};
}

// Two walks: the widest number decides how wide its column is. The word is padded before it is coloured,
// because the colour's escape sequence would count as characters.
void printTable(const std::vector<SActiveFeature>& features, const CFeatureNames& names) {
    size_t codeWidth = 4;
    size_t dataWidth = 4;
    for (const auto& feature : features) {
        codeWidth = std::max(codeWidth, fmt::formatted_size("{}", feature.m_nCode));
        dataWidth = std::max(dataWidth, fmt::formatted_size("{}", feature.m_nData));
    }
    fmt::print("{:>{}}  {:>{}}  {:<8}  {}\n", "CODE", codeWidth, "DATA", dataWidth, "STATUS", "NAME");
    for (const auto& feature : features) {
        SStatus status = statusOf(feature);
        std::string name = printable(names.find(feature.m_nCode));
        std::string word = paint(fmt::format("{:<8}", status.m_szWord), status.m_eColour, stdout);
        fmt::print("{:>{}}  {:>{}}  {}  {}\n", feature.m_nCode, codeWidth, feature.m_nData, dataWidth, word,
                   name.empty() ? "-" : name);
    }
}

void printJson(const std::vector<SActiveFeature>& features, const CFeatureNames& names) {
    // Ordered: keys come out as they are written here, and not by the alphabet.
    auto list = nlohmann::ordered_json::array();
    for (const auto& feature : features) {
        list.push_back({{"code", feature.m_nCode},
                        {"data", feature.m_nData},
                        {"status", statusOf(feature).m_szWord},
                        {"name", names.find(feature.m_nCode)}});
    }
    nlohmann::ordered_json document = {{"count", features.size()}, {"features", std::move(list)}};
    // JSON is UTF-8 (RFC 8259), a description file may be anything. What is not UTF-8 is replaced,
    // not thrown.
    auto onBadText = nlohmann::ordered_json::error_handler_t::replace;
    fmt::print("{}\n", document.dump(2, ' ', false, onBadText));
}

// "3 features: 2 active, 1 deleted", on stderr, so that a pipe gets the table alone.
void printSummary(const std::vector<SActiveFeature>& features) {
    std::map<std::string, size_t> counts;
    for (const auto& feature : features) {
        ++counts[statusOf(feature).m_szWord];
    }
    std::string text = counted(features.size(), "feature");
    const char* separator = ": ";
    for (const auto& [word, count] : counts) {
        text += fmt::format("{}{} {}", separator, count, word);
        separator = ", ";
    }
    fmt::print(stderr, "{}\n", text);
}

} // namespace

int runList(const SListOptions& options) {
    setProcessName("");
    COamQuery query;
    switch (query.ask(std::chrono::milliseconds(static_cast<int64_t>(options.m_nTimeout * 1000)))) {
    case COamQuery::EOutcome::answered:
        break;
    case COamQuery::EOutcome::noEndpoint:
        complain("no endpoint on the message framework");
        return exitFailed;
    case COamQuery::EOutcome::noDaemon:
        complain("the daemon is not running");
        return exitNoDaemon;
    case COamQuery::EOutcome::noAnswer:
        complain(fmt::format("the daemon did not answer within {:g} seconds", options.m_nTimeout));
        return exitNoDaemon;
    case COamQuery::EOutcome::badAnswer:
        complain("the daemon's answer is damaged");
        return exitFailed;
    }
    CFeatureNames names = CFeatureNames::load();
    options.m_bJson ? printJson(query.features(), names) : printTable(query.features(), names);
    // A full disk or a closed pipe shows only here. A script must not take half a list for the whole.
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        complain("the list could not be written to standard output");
        return exitFailed;
    }
    // JSON has the count in itself.
    if (!options.m_bJson) {
        printSummary(query.features());
    }
    return exitOk;
}
