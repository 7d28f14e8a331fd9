#include "ctl/brief.h"

#include <numeric>

namespace {

constexpr size_t nSmall = 16384;    // pairs whose deliveries are soon read
constexpr size_t nMostLines = 1000; // of deliveries under way

using CTally = std::vector<TStatus<CStatusTally>>;

EAsked askTally(CStatusQuery& query, CTally& pages, std::string_view component = {}) {
    CStatusQuestion question = makeQuestion(sqTally);
    if (!component.empty()) {
        question.m_nFilter = sfComponent;
        component.copy(question.m_szComponent, nNameFieldSize);
    }
    return query.askAll(question, pages);
}

size_t count(const CTally& pages, EDeliveryWord word) {
    size_t sum = 0;
    for (const auto& page : pages) {
        for (size_t state = 0; state < nDeliveryStates; ++state) {
            sum += aDeliveryStates[state].m_eWord == word ? uint32_t{page.m_aDeliveries[state]} : 0;
        }
    }
    return sum;
}

SPairCounts countAll(const CTally& pages) {
    SPairCounts counts;
    counts.m_nDelivered = count(pages, EDeliveryWord::delivered);
    counts.m_nFailed = count(pages, EDeliveryWord::failed);
    counts.m_nUnderWay = count(pages, EDeliveryWord::queued) + count(pages, EDeliveryWord::sent) +
                         count(pages, EDeliveryWord::overdue);
    return counts;
}

bool isSmall(const SSummaryView& summary) {
    const size_t features =
        std::accumulate(std::begin(summary.m_aFeatures), std::end(summary.m_aFeatures), size_t{0});
    return features * summary.m_nComponents <= nSmall;
}

// What is queued for a component that is dead is not under way.
EAsked setAsideIdle(CStatusQuery& query, const CDaemonView& view, SPairCounts& counts) {
    for (const SComponentView& component : view.m_vComponents) {
        CTally pages;
        if (component.m_tDead == 0) {
            continue;
        }
        if (const EAsked asked = askTally(query, pages, fieldText(component.m_szName));
            asked != EAsked::answered) {
            return asked;
        }
        const size_t idle = std::min(count(pages, EDeliveryWord::queued), counts.m_nUnderWay);
        counts.m_nUnderWay -= idle;
        counts.m_nIdle += idle;
    }
    return EAsked::answered;
}

} // namespace

EAsked readBrief(CStatusQuery& query, CDaemonView& view, std::optional<SPairCounts>& counts) {
    counts.reset();
    EAsked asked = readSummary(query, view.m_oSummary);
    if (asked != EAsked::answered || isSmall(view.m_oSummary)) {
        return asked;
    }
    CTally pages;
    asked = askTally(query, pages);
    if (asked == EAsked::unknown) { // by an older daemon
        return EAsked::answered;
    }
    SPairCounts all = countAll(pages);
    if (asked != EAsked::answered || all.m_nUnderWay <= nMostLines) {
        return asked;
    }
    asked =
        all.m_nFailed == 0 ? query.askAll(makeQuestion(sqComponents), view.m_vComponents) : view.read(query);
    if (asked == EAsked::answered) {
        asked = setAsideIdle(query, view, all);
    }
    if (asked == EAsked::answered && all.m_nUnderWay > nMostLines) {
        counts = all;
        asked = all.m_nFailed == 0 ? asked : view.readFailed(query);
    }
    return asked;
}
