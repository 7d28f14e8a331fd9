// qelctl why
#include "ctl/CDaemonView.h"
#include "ctl/commands.h"
#include "ctl/history.h"
#include "ctl/json.h"
#include "ctl/pairs.h"
#include "ctl/terminal.h"

#include <algorithm>
#include <fmt/format.h>

namespace {

constexpr uint32_t nReplyTimeout = 10; // seconds that the daemon awaits an answer

// A list resets a feature for all that have it; that step names no component.
bool isOf(const STransitionView& transition, const SPair& pair) {
    const std::string_view name = fieldText(transition.m_szComponent);
    return transition.m_nCode == pair.m_pFeature->m_nCode && transition.m_nData == pair.m_pFeature->m_nData &&
           (name.empty() || name == fieldText(pair.m_pComponent->m_szName));
}

// One delivery in sentences.
class CExplanation {
public:
    CExplanation(const SPair& pair, const CDaemonView& view) : m_oPair(pair), m_oSummary(view.m_oSummary) {}

    std::string now() const;
    std::string next() const;

private:
    std::string name() const { return printable(fieldText(m_oPair.m_pComponent->m_szName)); }
    std::string nextAudit() const {
        return fmt::format("the next audit is in about {} s", (m_oSummary.m_nNextPass + 999) / 1000);
    }
    std::string failure() const;
    // Is not told before it asks.
    bool isIdle() const { return m_oPair.m_pDelivery && m_oPair.m_pDelivery->m_nMonitors == 0; }
    std::string sends() const {
        const uint32_t sends = m_oPair.m_pDelivery->m_nSends;
        return sends == 0 ? ""
                          : fmt::format(" It was sent {} of {} times without an answer.", sends, nMaxSends);
    }
    std::string told() const { return moment(lastTold(), m_oSummary.m_tNow); }
    std::string reached() const { return moment(m_oPair.m_pDelivery->m_tSince, m_oSummary.m_tNow); }
    // An older daemon does not tell the two apart.
    uint32_t lastTold() const {
        const SDeliveryView& delivery = *m_oPair.m_pDelivery;
        return delivery.m_tLast != 0 ? delivery.m_tLast : delivery.m_tSince;
    }
    std::string_view ruleOf() const {
        const uint32_t state = m_oPair.m_pDelivery ? uint32_t{m_oPair.m_pDelivery->m_nState} : 0;
        return state < aDeliveryStates.size() ? aDeliveryStates[state].m_sNext : "";
    }

    const SPair& m_oPair;
    const SSummaryView& m_oSummary;
};

std::string CExplanation::failure() const {
    const SDeliveryView& delivery = *m_oPair.m_pDelivery;
    switch (uint32_t{delivery.m_nWhy}) {
    case swRefused:
        return fmt::format("{} refused at {}: \"{}\".", name(), reached(), printable(delivery.m_sText));
    case swNoAnswer:
        return fmt::format("{} did not answer; it was given up at {}{}.", name(), reached(),
                           sendsOf(delivery) == 0 ? "" : " after " + counted(sendsOf(delivery), "send"));
    default:
        return fmt::format("It failed at {}; the reason is not kept any more.", reached());
    }
}

std::string CExplanation::now() const {
    const auto word = m_oPair.word();
    if (!word) {
        return fmt::format("{} is {}.", title(*m_oPair.m_pComponent),
                           life(*m_oPair.m_pComponent, m_oSummary.m_tNow));
    }
    switch (*word) {
    case EDeliveryWord::queued:
        return isIdle() ? "It does not monitor, and has not fetched the feature."
                        : "It has not been told yet.";
    case EDeliveryWord::sent:
        return fmt::format("It was told at {}.{}", told(), sends());
    case EDeliveryWord::delivered:
        return fmt::format("Since {}: {}.", reached(), ruleOf());
    case EDeliveryWord::failed:
        return failure();
    case EDeliveryWord::overdue:
        return fmt::format("It was told at {} and has not answered within {} s.{}", told(), nReplyTimeout,
                           sends());
    }
    return {};
}

std::string CExplanation::next() const {
    const auto word = m_oPair.word();
    if (!word) {
        return "it is told when it announces itself again";
    }
    std::string rule(ruleOf());
    switch (*word) {
    case EDeliveryWord::sent: {
        const uint32_t until = lastTold() + nReplyTimeout;
        const uint32_t now = m_oSummary.m_tNow;
        return fmt::format("{}, until {}{}", rule, timeOfDay(until),
                           until > now ? fmt::format(" (in {} s)", until - now) : "");
    }
    case EDeliveryWord::queued:
        if (isIdle()) {
            return "it has the feature when it fetches its list, or is told when it begins to monitor";
        }
        [[fallthrough]];
    case EDeliveryWord::overdue:
        return fmt::format("{}; {}", rule, nextAudit());
    case EDeliveryWord::delivered:
        return "nothing";
    case EDeliveryWord::failed:
        break;
    }
    return rule;
}

void printPair(const SPair& pair, const CDaemonView& view, const SHistory& history) {
    const CExplanation explanation(pair, view);
    const std::string state = paint(pair.word() ? pair.state() : "not told", colourOf(pair), stdout);
    fmt::print("{} at {}: {}\n", title(*pair.m_pFeature), title(*pair.m_pComponent), state);
    fmt::print("  Now:   {}\n  Next:  {}.\n", explanation.now(), explanation.next());
    fmt::print("  Steps: {}\n", history.m_bWhole ? "all since the daemon's start"
                                                 : "the latest; the daemon no longer keeps what was before");
    const auto& all = history.m_vAll;
    if (std::none_of(all.begin(), all.end(), [&](const auto& step) { return isOf(step, pair); })) {
        fmt::print("    none\n");
    }
    for (const STransitionView& step : all) {
        if (isOf(step, pair)) {
            fmt::print("    {}  {} {}\n", timeOfDay(step.m_tSeconds, step.m_nMicroseconds), stepText(step),
                       causeText(step));
        }
    }
}

void printAsJson(const CDaemonView& view, const SHistory& history) {
    CJson document = jsonDocument("why");
    CJson deliveries = CJson::array();
    for (const SPair& pair : view.m_vPairs) {
        CJson delivery = toJson(pair);
        delivery["next"] = CExplanation(pair, view).next();
        CJson steps = CJson::array();
        for (const STransitionView& step : history.m_vAll) {
            if (isOf(step, pair)) {
                steps.push_back(toJson(step));
            }
        }
        delivery["transitions"] = std::move(steps);
        deliveries.push_back(std::move(delivery));
    }
    document["now"] = uint32_t{view.m_oSummary.m_tNow};
    document["next_audit_ms"] = uint32_t{view.m_oSummary.m_nNextPass};
    document["transitions_whole"] = history.m_bWhole;
    document["deliveries"] = std::move(deliveries);
    printJson(document);
}

// The feature is there and the component is not among its pairs: it is not concerned, or not there.
int explainAbsence(const CDaemonView& view, const SSelection& selection) {
    for (const SFeatureView& feature : view.m_vFeatures) {
        if (selection.wants(feature) && feature.concerns(selection.m_sComponent)) {
            complain(fmt::format("{} has not announced itself; it is told of {} when it does",
                                 printable(selection.m_sComponent), title(feature)));
            return exitNotYet;
        }
    }
    complain(fmt::format("feature {} does not concern {}", printable(selection.m_sFeature),
                         printable(selection.m_sComponent)));
    return exitFailed;
}

bool isKnown(const CDaemonView& view, const SSelection& selection) {
    SSelection found;
    if (!view.hasFeature(selection) && selectOrComplain(view, selection.m_sFeature, found)) {
        complain(
            fmt::format("'{}' is a component; the feature comes first", printable(selection.m_sFeature)));
    }
    if (!view.hasFeature(selection)) {
        return false;
    }
    return view.hasComponent(selection.m_sComponent) || selectOrComplain(view, selection.m_sComponent, found);
}

} // namespace

int runWhy(const SWhyOptions& options) {
    setProcessName("");
    CStatusQuery query(answerTime(options));
    CDaemonView view;
    const SSelection selection{options.m_sFeature, options.m_sComponent};
    if (const EAsked asked = view.read(query); asked != EAsked::answered) {
        return reportAsked(asked);
    }
    if (!isKnown(view, selection)) {
        return exitFailed;
    }
    SHistory history;
    EAsked asked = view.readPairs(query, selection);
    if (asked == EAsked::answered) {
        asked = readHistory(query, history);
    }
    if (asked != EAsked::answered) {
        return reportAsked(asked);
    }
    if (view.m_vPairs.empty()) {
        return explainAbsence(view, selection);
    }
    if (!options.m_bQuiet && options.m_bJson) {
        printAsJson(view, history);
    } else if (!options.m_bQuiet) {
        for (const SPair& pair : view.m_vPairs) {
            printPair(pair, view, history);
        }
    }
    // One that is dead has not got it.
    const SPairCounts counts = countPairs(view.m_vPairs);
    const int status = counts.m_nIdle != 0 && counts.m_nFailed == 0 ? exitNotYet : counts.exitStatus();
    return flushOutput() ? status : exitFailed;
}
