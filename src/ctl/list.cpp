// qelctl list
#include "ctl/CDaemonView.h"
#include "ctl/CFeatureNames.h"
#include "ctl/COamQuery.h"
#include "ctl/CTable.h"
#include "ctl/commands.h"
#include "ctl/json.h"
#include "ctl/list_errors.h"
#include "ctl/list_state.h"
#include "ctl/terminal.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <map>
#include <optional>

namespace {

// By the status. Yellow: under way; green: settled; red: being withdrawn.
constexpr std::array<EColour, nFeatureStatuses> aColours = {EColour::yellow, EColour::yellow, EColour::green,
                                                            EColour::red, EColour::none};

// A daemon newer than this program may know more of them.
EColour colourOf(uint32_t status) {
    return status < aColours.size() ? aColours[status] : EColour::red;
}

void printTable(const std::vector<SActiveFeature>& features, const CFeatureNames& names) {
    CTable table({{"CODE", CTable::EAlign::right},
                  {"DATA", CTable::EAlign::right},
                  {"STATUS  "}, // as wide as its longest word, whatever words there are
                  {"NAME"}});
    for (const auto& feature : features) {
        const std::string name = printable(names.find(feature.m_nCode));
        table.add({{std::to_string(feature.m_nCode)},
                   {std::to_string(feature.m_nData)},
                   {std::string(featureWord(feature.m_nStatus)), colourOf(feature.m_nStatus)},
                   {name.empty() ? "-" : name}});
    }
    table.print(stdout, lineWidth(stdout));
}

void printAsJson(const std::vector<SActiveFeature>& features, const CFeatureNames& names,
                 std::optional<size_t> sourced) {
    CJson list = CJson::array();
    for (const auto& feature : features) {
        list.push_back({{"code", feature.m_nCode},
                        {"data", feature.m_nData},
                        {"status", featureWord(feature.m_nStatus)},
                        {"name", names.find(feature.m_nCode)}});
    }
    CJson document = jsonDocument("list");
    document["count"] = features.size();
    document["sourced"] = sourced ? CJson(*sourced) : CJson();
    document["features"] = std::move(list);
    printJson(document);
}

// "3 features: 2 active, 1 deleted; 6 sourced features are not shown", on stderr, so that a
// pipe gets the table alone.
void printSummary(const std::vector<SActiveFeature>& features, std::optional<size_t> sourced) {
    std::map<std::string_view, size_t> counts;
    for (const auto& feature : features) {
        ++counts[featureWord(feature.m_nStatus)];
    }
    std::string text = counted(features.size(), "feature");
    const char* separator = ": ";
    for (const auto& [word, count] : counts) {
        text += fmt::format("{}{} {}", separator, count, word);
        separator = ", ";
    }
    if (sourced.value_or(0) != 0) {
        text += fmt::format("; {} {} not shown", counted(*sourced, "sourced feature"),
                            *sourced == 1 ? "is" : "are");
    }
    fmt::print(stderr, "{}\n", text);
}

// The list for OAM leaves them out. Nothing, where the daemon is too old to tell.
std::optional<size_t> countSourced(CStatusQuery& query) {
    std::vector<TStatus<CStatusFeature>> features;
    if (query.askAll(makeQuestion(sqFeatures), features) != EAsked::answered) {
        return std::nullopt;
    }
    return std::count_if(features.begin(), features.end(), [](const auto& feature) {
        return feature.m_nSourced != 0 && feature.m_nLeaving == 0;
    });
}

EAsked ask(const SListOptions& options, std::vector<SActiveFeature>& features) {
    COamQuery query;
    const auto outcome = query.ask(answerTime(options));
    features = query.features();
    switch (outcome) {
    case COamQuery::EOutcome::answered:
        return EAsked::answered;
    case COamQuery::EOutcome::noEndpoint:
        return EAsked::noEndpoint;
    case COamQuery::EOutcome::noDaemon:
        return EAsked::noDaemon;
    case COamQuery::EOutcome::noAnswer:
        return EAsked::noAnswer;
    case COamQuery::EOutcome::badAnswer:
        break;
    }
    return EAsked::damaged;
}

} // namespace

int runList(const SListOptions& options) {
    setProcessName("");
    std::vector<SActiveFeature> features;
    const EAsked asked = ask(options, features);
    if (asked == EAsked::noAnswer) {
        complain(fmt::format("the daemon did not answer within {:g} seconds", options.m_nTimeout));
        return exitNoDaemon;
    }
    if (asked != EAsked::answered) {
        return reportAsked(asked);
    }
    CStatusQuery query(std::chrono::seconds(1));
    std::optional<SListView> list;
    const EAsked looked = readListState(query, list);
    if (list && list->m_nInForce == 0) {
        complain("the daemon has no list");
        printErrors(list->path(), list->errors(), list->m_nErrors);
        return exitNoDaemon;
    }
    if (options.m_bQuiet) {
        return exitOk;
    }
    const std::optional<size_t> sourced = looked == EAsked::answered ? countSourced(query) : std::nullopt;
    CFeatureNames names = CFeatureNames::load();
    options.m_bJson ? printAsJson(features, names, sourced) : printTable(features, names);
    // A full disk or a closed pipe shows only here. A script must not take half a list for the whole.
    if (!flushOutput()) {
        return exitFailed;
    }
    // JSON has the count in itself.
    if (!options.m_bJson) {
        printSummary(features, sourced);
        if (list && list->isRefused()) {
            complain(
                fmt::format("{} was refused and is not in force; qelctl status tells why", list->path()));
        }
    }
    return exitOk;
}
