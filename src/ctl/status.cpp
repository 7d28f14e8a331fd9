// qelctl status
#include "ctl/CDaemonView.h"
#include "ctl/CTable.h"
#include "ctl/brief.h"
#include "ctl/commands.h"
#include "ctl/json.h"
#include "ctl/list_state.h"
#include "ctl/pairs.h"
#include "ctl/terminal.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>

namespace {

using EAlign = CTable::EAlign;

// What needs attention most comes first.
int rankOf(const SPair& pair) {
    const auto word = pair.word();
    if (!word) {
        return 5;
    }
    switch (*word) {
    case EDeliveryWord::failed:
        return 0;
    case EDeliveryWord::overdue:
        return 1;
    case EDeliveryWord::sent:
        return 2;
    case EDeliveryWord::queued:
        return 3;
    case EDeliveryWord::delivered:
        break;
    }
    return 4;
}
constexpr int nFirstSettledRank = 4;

// A feature's line of the matrix. The pairs lie one after the other.
struct SRow {
    const SFeatureView* m_pFeature;
    std::vector<const SPair*> m_vPairs;
    int m_nRank = nFirstSettledRank;
};

class CStatusReport {
public:
    CStatusReport(const SStatusOptions& options, const CDaemonView& view)
        : m_oOptions(options), m_oView(view), m_nNow(view.m_oSummary.m_tNow) {}

    void printMatrix() const;
    void printBrief(const SPairCounts& counts) const;
    void printFeatures(const SSelection& selection) const;
    void printComponent(const std::string& name) const;
    void printDaemon(const std::vector<SCounterView>& counters) const;
    void printAsJson(const SSelection& selection, const std::optional<SListView>& list,
                     const std::vector<SCounterView>& counters) const;

private:
    std::vector<SRow> rows() const;
    std::string cell(const SRow& row, const SComponentView& component, EColour& colour) const;
    CTable matrix(const std::vector<SRow>& rows) const;
    CTable lines(const std::vector<SRow>& rows) const;
    std::string summary(const SPairCounts& counts) const;

    const SStatusOptions& m_oOptions;
    const CDaemonView& m_oView;
    uint32_t m_nNow;
};

std::vector<SRow> CStatusReport::rows() const {
    std::vector<SRow> rows;
    std::map<const SFeatureView*, size_t> places;
    for (const SFeatureView& feature : m_oView.m_vFeatures) {
        places[&feature] = rows.size();
        rows.push_back({&feature, {}});
    }
    for (const SPair& pair : m_oView.m_vPairs) {
        SRow& row = rows[places[pair.m_pFeature]];
        row.m_vPairs.push_back(&pair);
        row.m_nRank = std::min(row.m_nRank, rankOf(pair));
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const SRow& a, const SRow& b) { return a.m_nRank < b.m_nRank; });
    // Stable, so that features of one rank stay in the list's order.
    if (!m_oOptions.m_bAll) {
        std::erase_if(rows, [](const SRow& row) { return row.m_nRank >= nFirstSettledRank; });
    }
    return rows;
}

std::string CStatusReport::cell(const SRow& row, const SComponentView& component, EColour& colour) const {
    const auto found = std::find_if(row.m_vPairs.begin(), row.m_vPairs.end(),
                                    [&](const SPair* pair) { return pair->m_pComponent == &component; });
    colour = found == row.m_vPairs.end() ? EColour::dim : colourOf(**found);
    return found == row.m_vPairs.end() ? "." : describePair(**found, m_nNow);
}

std::vector<CTable::SColumn> featureColumns() {
    return {{"CODE", EAlign::right}, {"DATA", EAlign::right}, {"NAME", EAlign::left, true}};
}

std::vector<CTable::SCell> featureCells(const SFeatureView& feature) {
    const std::string name = printable(feature.name());
    return {
        {std::to_string(feature.m_nCode)}, {std::to_string(feature.m_nData)}, {name.empty() ? "-" : name}};
}

CTable CStatusReport::matrix(const std::vector<SRow>& rows) const {
    auto columns = featureColumns();
    for (const SComponentView& component : m_oView.m_vComponents) {
        columns.push_back({printable(fieldText(component.m_szName))});
    }
    CTable table(std::move(columns));
    for (const SRow& row : rows) {
        auto cells = featureCells(*row.m_pFeature);
        for (const SComponentView& component : m_oView.m_vComponents) {
            EColour colour;
            std::string text = cell(row, component, colour);
            cells.push_back({std::move(text), colour});
        }
        table.add(std::move(cells));
    }
    return table;
}

// A line for each pair, where the matrix is too wide.
CTable CStatusReport::lines(const std::vector<SRow>& rows) const {
    auto columns = featureColumns();
    columns.push_back({"COMPONENT"});
    columns.push_back({"STATE"});
    CTable table(std::move(columns));
    for (const SRow& row : rows) {
        for (const SPair* pair : row.m_vPairs) {
            if (m_oOptions.m_bAll || rankOf(*pair) < nFirstSettledRank) {
                auto cells = featureCells(*row.m_pFeature);
                cells.push_back({printable(fieldText(pair->m_pComponent->m_szName))});
                cells.push_back({describePair(*pair, m_nNow), colourOf(*pair)});
                table.add(std::move(cells));
            }
        }
    }
    return table;
}

std::string CStatusReport::summary(const SPairCounts& counts) const {
    std::string text = counts.text();
    for (const SComponentView& component : m_oView.m_vComponents) {
        text += component.m_tDead == 0 ? ""
                                       : fmt::format("; {} is {}", title(component), life(component, m_nNow));
    }
    return text;
}

void CStatusReport::printMatrix() const {
    const std::vector<SRow> shown = rows();
    const size_t width = lineWidth(stdout);
    if (!shown.empty()) {
        const CTable wide = matrix(shown);
        (wide.fits(width) ? wide : lines(shown)).print(stdout, width);
    }
    fmt::print("{}\n", summary(countPairs(m_oView.m_vPairs)));
}

// The pairs are those that have failed.
void CStatusReport::printBrief(const SPairCounts& counts) const {
    const std::vector<SRow> shown = rows();
    if (!shown.empty()) {
        lines(shown).print(stdout, lineWidth(stdout));
    }
    fmt::print("what is under way is too much for a line each; --all shows it\n{}\n", summary(counts));
}

// Of each feature, who is to have it and how far that is.
void CStatusReport::printFeatures(const SSelection& selection) const {
    for (const SFeatureView& feature : m_oView.m_vFeatures) {
        if (!selection.wants(feature)) {
            continue;
        }
        fmt::print("{}: {}{}{}\n", title(feature), featureWord(feature.m_nStatus),
                   feature.m_nNewData == 0 ? ""
                                           : fmt::format(", data becomes {}", uint32_t{feature.m_nNewData}),
                   feature.m_nSourced == 0 ? "" : ", sourced");
        CTable table({{"COMPONENT"}, {"STATE"}, {"SINCE"}, {"PROCESS", EAlign::left, true}});
        for (const SPair& pair : m_oView.m_vPairs) {
            if (pair.m_pFeature == &feature) {
                const uint32_t since = pair.m_pDelivery ? uint32_t{pair.m_pDelivery->m_tSince} : 0;
                table.add({{printable(fieldText(pair.m_pComponent->m_szName))},
                           {describePair(pair, m_nNow), colourOf(pair)},
                           {since == 0 ? "-" : moment(since, m_nNow)},
                           {life(*pair.m_pComponent, m_nNow)}});
            }
        }
        for (const std::string_view name : feature.concerned()) {
            if (m_oView.component(name) == nullptr) {
                table.add({{printable(name)}, {"-", EColour::dim}, {"-"}, {"not announced"}});
            }
        }
        table.print(stdout, lineWidth(stdout));
    }
}

// A component that has never replied has neither a status nor a text. A text is kept until another comes, so it
// may be older than the status.
std::string lastFailure(const SComponentView& component) {
    return component.m_nReply == 0 && component.m_sText.empty()
               ? ""
               : fmt::format(", last reply failed ({}) \"{}\"", uint32_t{component.m_nReply},
                             printable(component.m_sText));
}

void CStatusReport::printComponent(const std::string& name) const {
    const SComponentView* component = m_oView.component(name);
    if (component == nullptr) {
        fmt::print("{}: not announced\n", printable(name));
        return;
    }
    const uint32_t reply = component->m_nReply;
    fmt::print("{}: {}, last heard {}{}\n", title(*component), life(*component, m_nNow),
               component->m_tHeard == 0 ? "never" : moment(component->m_tHeard, m_nNow),
               reply == nReplyOk ? ", last reply ok" : lastFailure(*component));
    SStatusOptions all = m_oOptions;
    all.m_bAll = true;
    auto columns = featureColumns();
    columns.push_back({"STATE"});
    CTable table(std::move(columns));
    for (const SRow& row : CStatusReport(all, m_oView).rows()) {
        for (const SPair* pair : row.m_vPairs) {
            auto cells = featureCells(*row.m_pFeature);
            cells.push_back({describePair(*pair, m_nNow), colourOf(*pair)});
            table.add(std::move(cells));
        }
    }
    if (!table.isEmpty()) {
        table.print(stdout, lineWidth(stdout));
    }
    fmt::print("{}\n", countPairs(m_oView.m_vPairs).text());
}

void CStatusReport::printDaemon(const std::vector<SCounterView>& counters) const {
    const SSummaryView& summary = m_oView.m_oSummary;
    fmt::print(
        "qelserver {} (pid {}), started {} ago; latest turn {} us, busiest {} us; next audit in {} s\n",
        printable(summary.m_sText), uint32_t{summary.m_nProcessId}, age(summary.m_tStarted, m_nNow),
        uint32_t{summary.m_nLatestTurn}, uint32_t{summary.m_nBusiestTurn},
        (summary.m_nNextPass + 999) / 1000);
    for (const SCounterView& counter : counters) {
        if (const uint64_t value = number(counter.m_aValue)) {
            fmt::print("  {:>10}  {}\n", value, printable(counter.m_sText));
        }
    }
}

void CStatusReport::printAsJson(const SSelection& selection, const std::optional<SListView>& list,
                                const std::vector<SCounterView>& counters) const {
    CJson document = jsonDocument("status");
    document["daemon"] = toJson(m_oView.m_oSummary);
    document["list"] = list ? toJson(*list) : CJson();
    document["counts"] = toJson(countPairs(m_oView.m_vPairs));
    CJson features = CJson::array();
    for (const SFeatureView& feature : m_oView.m_vFeatures) {
        if (selection.wants(feature) &&
            (selection.m_sComponent.empty() || feature.concerns(selection.m_sComponent))) {
            features.push_back(toJson(feature));
        }
    }
    CJson components = CJson::array();
    for (const SComponentView& component : m_oView.m_vComponents) {
        if (selection.wantsComponent(fieldText(component.m_szName))) {
            components.push_back(toJson(component));
        }
    }
    CJson deliveries = CJson::array();
    for (const SPair& pair : m_oView.m_vPairs) {
        deliveries.push_back(toJson(pair));
    }
    CJson values = CJson::object();
    for (const SCounterView& counter : counters) {
        values[counter.m_sText] = number(counter.m_aValue);
    }
    document["features"] = std::move(features);
    document["components"] = std::move(components);
    document["deliveries"] = std::move(deliveries);
    document["counters"] = std::move(values);
    printJson(document);
}

void print(const SStatusOptions& options, const CDaemonView& view, const std::optional<SListView>& list,
           const SSelection& selection, const std::vector<SCounterView>& counters) {
    const CStatusReport report(options, view);
    if (options.m_bAll && !options.m_bJson) {
        report.printDaemon(counters); // first, so that the last line is always that of the deliveries
    }
    if (options.m_bJson) {
        report.printAsJson(selection, list, counters);
    } else if (!selection.m_sFeature.empty()) {
        report.printFeatures(selection);
    } else if (!selection.m_sComponent.empty()) {
        report.printComponent(selection.m_sComponent);
    } else {
        if (list) {
            list->print(view.m_oSummary.m_tNow);
        }
        report.printMatrix();
    }
}

// Of what is being done about a large table.
int reportBrief(const SStatusOptions& options, CStatusQuery& query, const CDaemonView& view,
                const SPairCounts& counts) {
    std::optional<SListView> list;
    if (const EAsked asked = readListState(query, list); asked != EAsked::answered) {
        return reportAsked(asked);
    }
    if (!options.m_bQuiet) {
        if (list) {
            list->print(view.m_oSummary.m_tNow);
        }
        CStatusReport(options, view).printBrief(counts);
    }
    return flushOutput() ? worse(counts.exitStatus(), list ? list->exitStatus() : exitOk) : exitFailed;
}

} // namespace

int runStatus(const SStatusOptions& options) {
    setProcessName("");
    CStatusQuery query(answerTime(options));
    CDaemonView view;
    SSelection selection;
    // First what is cheap: of a large table much of which is under way, all pairs would be many pages.
    const bool isWhole = options.m_bAll || (options.m_bJson && !options.m_bQuiet);
    if (options.m_sArgument.empty() && !isWhole) {
        std::optional<SPairCounts> counts;
        if (const EAsked asked = readBrief(query, view, counts); asked != EAsked::answered) {
            return reportAsked(asked);
        }
        if (counts) {
            return reportBrief(options, query, view, *counts);
        }
    }
    if (const EAsked asked = view.read(query); asked != EAsked::answered) {
        return reportAsked(asked);
    }
    if (!options.m_sArgument.empty() && !selectOrComplain(view, options.m_sArgument, selection)) {
        return exitFailed;
    }
    std::vector<SCounterView> counters;
    std::optional<SListView> list;
    EAsked asked =
        view.readPairs(query, selection, isWhole ? CDaemonView::EExtent::all : CDaemonView::EExtent::open);
    if (asked == EAsked::answered && (selection.isAll() || options.m_bJson)) {
        asked = readListState(query, list);
    }
    if (asked == EAsked::answered && isWhole) {
        asked = query.askAll(makeQuestion(sqCounters), counters);
    }
    if (asked != EAsked::answered) {
        return reportAsked(asked);
    }
    if (!options.m_bQuiet) {
        print(options, view, list, selection, counters);
    }
    // Of one feature or component, its deliveries alone are asked for.
    const bool isListMeant = selection.isAll() && list;
    const EExitStatus ofPairs = countPairs(view.m_vPairs).exitStatus();
    return flushOutput() ? worse(ofPairs, isListMeant ? list->exitStatus() : exitOk) : exitFailed;
}
