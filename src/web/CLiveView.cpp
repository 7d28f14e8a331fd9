#include "web/CLiveView.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

// The places of what is met here in aCauseWords.
enum ECause : uint32_t { caTakenIn = 0, caTold = 1, caNewList = 10, caLeft = 11, caRemoved = 12 };
static_assert(aCauseWords[caTakenIn] == "taken in" && aCauseWords[caTold] == "told" &&
              aCauseWords[caNewList] == "new list" && aCauseWords[caLeft] == "left" &&
              aCauseWords[caRemoved] == "removed");

constexpr size_t nMaxOwed = 4; // components, from where on a reading of all is cheaper

uint64_t placeOf(uint32_t code, uint32_t data) {
    return uint64_t{code} << 32 | data;
}

template <typename T>
bool isSame(const TStatus<T>& one, const TStatus<T>& other) {
    return std::memcmp(static_cast<const T*>(&one), static_cast<const T*>(&other), sizeof(T)) == 0 &&
           one.m_sText == other.m_sText;
}

// What is shown of it.
bool isSame(const SPair& one, const SPair& other) {
    const SDeliveryView* a = one.m_pDelivery;
    const SDeliveryView* b = other.m_pDelivery;
    if (a == nullptr || b == nullptr || one.word() != other.word()) {
        return a == b && one.word() == other.word();
    }
    return a->m_nState == b->m_nState && a->m_nWhy == b->m_nWhy && a->m_tSince == b->m_tSince &&
           a->m_tLast == b->m_tLast && a->m_nSends == b->m_nSends && a->m_sText == b->m_sText;
}

template <typename T, typename Same>
bool areSame(const std::vector<T>& one, const std::vector<T>& other, Same same) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end(), same);
}

bool isSameName(const SComponentView& one, const SComponentView& other) {
    return fieldText(one.m_szName) == fieldText(other.m_szName);
}

// Whom the feature concerns stands in its text.
bool isSamePlace(const TStatus<CStatusFeature>& one, const TStatus<CStatusFeature>& other) {
    return one.m_nCode == other.m_nCode && one.m_nData == other.m_nData && one.m_sText == other.m_sText;
}

bool hasName(const std::vector<SComponentView>& components, std::string_view name) {
    return std::any_of(components.begin(), components.end(),
                       [name](const SComponentView& each) { return fieldText(each.m_szName) == name; });
}

} // namespace

// --- What came from the daemon ---

void CLiveView::takeSummary(SSummaryView summary) {
    const CStatusSummary& before = view().m_oSummary;
    if (std::memcmp(before.m_aFeatures, summary.m_aFeatures, sizeof before.m_aFeatures) != 0) {
        m_oDebts.m_bFeatures = true;
    }
    view().m_oSummary = std::move(summary);
    mark(paSummary);
}

void CLiveView::takeComponents(std::vector<SComponentView> components) {
    std::vector<SComponentView>& held = view().m_vComponents;
    // Places stay, whatever order the daemon's table has now.
    const auto place = [&](const SComponentView& each) {
        return std::find_if(held.begin(), held.end(), [&](const auto& one) { return isSameName(one, each); });
    };
    std::sort(components.begin(), components.end(),
              [&](const auto& one, const auto& other) { return place(one) < place(other); });
    if (!areSame(held, components, isSameName)) {
        for (const auto& [all, others] : {std::pair(&held, &components), std::pair(&components, &held)}) {
            for (const SComponentView& each : *all) {
                if (!hasName(*others, fieldText(each.m_szName))) {
                    owe(std::string(fieldText(each.m_szName)));
                }
            }
        }
        return;
    }
    // Whether a component lives decides what is shown of what it was not told.
    std::set<const SComponentView*> turned;
    for (size_t i = 0; i < held.size(); ++i) {
        if ((held[i].m_tDead == 0) != (components[i].m_tDead == 0)) {
            turned.insert(&held[i]);
        }
        held[i] = std::move(components[i]);
    }
    for (size_t i = 0; i < m_vChanged.size() && !turned.empty(); ++i) {
        if (turned.contains(view().m_vPairs[i].m_pComponent)) {
            m_vChanged[i] = m_nVersion;
        }
    }
    mark(paComponents);
}

void CLiveView::takeFeatures(std::vector<TStatus<CStatusFeature>> features) {
    std::vector<SFeatureView>& held = view().m_vFeatures;
    if (!std::equal(held.begin(), held.end(), features.begin(), features.end(), isSamePlace)) {
        oweAll();
        return;
    }
    for (size_t i = 0; i < held.size(); ++i) {
        static_cast<TStatus<CStatusFeature>&>(held[i]) = std::move(features[i]);
    }
    mark(paFeatures);
}

// Another list in force may concern others, which no step tells.
void CLiveView::takeList(std::optional<SListView> list) {
    std::optional<SListView>& held = m_oSnapshot.m_oList;
    if (held && list &&
        (held->m_tLoaded != list->m_tLoaded || number(held->m_aDigest) != number(list->m_aDigest))) {
        oweAll();
    }
    held = std::move(list);
    mark(paList);
}

void CLiveView::takeCounters(std::vector<SCounterView> counters) {
    m_oSnapshot.m_vCounters = std::move(counters);
    mark(paCounters);
}

void CLiveView::takeSteps(std::vector<STransitionView> steps, uint64_t lost) {
    if (lost != 0) {
        m_oHistory = {{}, false};
        m_vArrived.clear();
        m_nBase = m_nVersion;
        oweAll();
    }
    for (const STransitionView& step : steps) {
        m_nLastStep = number(step.m_aNumber);
        if (m_bWhole) {
            apply(step);
        }
    }
    keep(std::move(steps));
}

void CLiveView::takeAll(SReading reading) {
    replace(std::move(reading.m_vComponents), std::move(reading.m_vFeatures),
            std::move(reading.m_vDeliveries));
    m_bWhole = true;
    const std::vector<STransitionView>& steps = m_oHistory.m_vAll;
    const auto later = std::find_if(steps.begin(), steps.end(), [&](const STransitionView& step) {
        return number(step.m_aNumber) > reading.m_nAfter;
    });
    std::for_each(later, steps.end(), [this](const STransitionView& step) { apply(step); });
    if (later == steps.begin() && later != steps.end() && number(later->m_aNumber) > reading.m_nAfter + 1) {
        oweAll(); // more steps came meanwhile than are kept
    }
}

void CLiveView::takeComponent(const std::string& name, std::vector<SComponentView> components,
                              std::vector<SDeliveryView> deliveries) {
    const std::vector<SFeatureView>& held = view().m_vFeatures;
    std::vector<TStatus<CStatusFeature>> features(held.begin(), held.end());
    for (const SComponentView& each : components) {
        const std::string other(fieldText(each.m_szName));
        if (other != name && view().component(other) == nullptr) {
            owe(other);
        }
    }
    for (SDeliveryView& delivery : view().m_vDeliveries) {
        const std::string_view of = fieldText(delivery.m_szComponent);
        if (of != name && hasName(components, of)) {
            deliveries.push_back(delivery);
        }
    }
    replace(std::move(components), std::move(features), std::move(deliveries));
}

void CLiveView::forget() {
    m_oSnapshot = {};
    m_oHistory = {};
    m_vArrived.clear();
    m_vChanged.clear();
    m_oPairs.clear();
    m_nLastStep = 0;
    m_bWhole = false;
    m_oDebts = {true, false, {}};
    m_nBase = m_nVersion;
}

void CLiveView::owe(const std::string& component) {
    m_oDebts.m_oComponents.insert(component);
    if (m_oDebts.m_oComponents.size() > nMaxOwed) {
        m_oDebts = {true, false, {}};
    }
}

// --- Steps ---

// Trimmed now and then only, since that moves all.
void CLiveView::keep(std::vector<STransitionView> steps) {
    std::vector<STransitionView>& all = m_oHistory.m_vAll;
    m_vArrived.insert(m_vArrived.end(), steps.size(), m_nVersion);
    all.insert(all.end(), std::make_move_iterator(steps.begin()), std::make_move_iterator(steps.end()));
    if (all.size() > nKeptTransitions + nKeptTransitions / 4) {
        const auto excess = static_cast<std::ptrdiff_t>(all.size() - nKeptTransitions);
        all.erase(all.begin(), all.begin() + excess);
        m_vArrived.erase(m_vArrived.begin(), m_vArrived.begin() + excess);
        m_oHistory.m_bWhole = false;
    }
}

std::span<const STransitionView> CLiveView::stepsAfter(uint64_t version) const {
    const auto first = std::upper_bound(m_vArrived.begin(), m_vArrived.end(), version);
    return std::span(m_oHistory.m_vAll).subspan(static_cast<size_t>(first - m_vArrived.begin()));
}

// A delivery that is at nobody whom the feature concerns is not shown either.
void CLiveView::apply(const STransitionView& step) {
    const std::string_view component = fieldText(step.m_szComponent);
    const auto found = m_oPairs.find(placeOf(step.m_nCode, step.m_nData));
    if (step.m_nCause == caRemoved ||
        (found == m_oPairs.end() && view().feature(step.m_nCode, step.m_nData) == nullptr)) {
        oweAll();
        return;
    }
    if (step.m_nCause == caLeft || (!component.empty() && view().component(component) == nullptr)) {
        owe(std::string(component));
        return;
    }
    if (found == m_oPairs.end()) {
        return;
    }
    for (const size_t i : found->second) {
        SPair& pair = view().m_vPairs[i];
        if (component.empty() || fieldText(pair.m_pComponent->m_szName) == component) {
            applyTo(pair, step);
            m_vChanged[i] = m_nVersion;
        }
    }
}

// As delivery.cpp has it: what is told is counted, whatever is not overdue and no new list stamps the record.
void CLiveView::applyTo(SPair& pair, const STransitionView& step) {
    std::vector<SDeliveryView>& all = view().m_vDeliveries;
    if (pair.m_pDelivery == nullptr) {
        SDeliveryView record;
        record.m_nCode = step.m_nCode;
        record.m_nData = step.m_nData;
        std::memcpy(record.m_szComponent, pair.m_pComponent->m_szName, sizeof record.m_szComponent);
        all.push_back(std::move(record)); // has its room: makePairs()
        pair.m_pDelivery = &all.back();
    }
    SDeliveryView& record = all[static_cast<size_t>(pair.m_pDelivery - all.data())];
    const EDeliveryWord before = pair.word().value_or(EDeliveryWord::queued);
    if (record.m_nState != step.m_nTo || record.m_tSince == 0) {
        record.m_tSince = step.m_tSeconds;
    }
    record.m_nState = step.m_nTo;
    record.m_nWhy = step.m_nWhy;
    record.m_sText = step.m_sText;
    const EDeliveryWord after = pair.word().value_or(EDeliveryWord::queued);
    if (after != EDeliveryWord::overdue && step.m_nCause != caNewList) {
        record.m_tLast = step.m_tSeconds;
    }
    if (step.m_nCause == caTold && after == EDeliveryWord::sent) {
        record.m_nSends = record.m_nSends + 1;
    } else if (after == EDeliveryWord::delivered || (after == EDeliveryWord::failed && before != after)) {
        record.m_nSends = 0;
    }
}

// --- Places ---

void CLiveView::replace(std::vector<SComponentView> components, std::vector<TStatus<CStatusFeature>> features,
                        std::vector<SDeliveryView> deliveries) {
    const CDaemonView before =
        std::move(view()); // what its pairs point to moves along, and stays where it is
    view() = {};
    view().m_oSummary = before.m_oSummary;
    view().m_vComponents = std::move(components);
    view().setFeatures(std::move(features));
    view().m_vDeliveries = std::move(deliveries);
    makePairs();
    markChanges(before);
}

// Each pair that has no record may get one without any moving.
void CLiveView::makePairs() {
    view().makePairs({});
    const std::vector<SPair>& pairs = view().m_vPairs;
    const auto without = std::count_if(pairs.begin(), pairs.end(),
                                       [](const SPair& pair) { return pair.m_pDelivery == nullptr; });
    view().m_vDeliveries.reserve(view().m_vDeliveries.size() + static_cast<size_t>(without));
    view().makePairs({});
    m_oPairs.clear();
    for (size_t i = 0; i < pairs.size(); ++i) {
        m_oPairs[placeOf(pairs[i].m_pFeature->m_nCode, pairs[i].m_pFeature->m_nData)].push_back(i);
    }
}

void CLiveView::markChanges(const CDaemonView& before) {
    const std::vector<SPair>& pairs = view().m_vPairs;
    mark(paComponents);
    if (!areSame(before.m_vFeatures, view().m_vFeatures, isSamePlace) ||
        !areSame(before.m_vComponents, view().m_vComponents, isSameName) ||
        before.m_vPairs.size() != pairs.size()) {
        m_nBase = m_nVersion;
        mark(paFeatures);
        m_vChanged.assign(pairs.size(), m_nVersion);
        return;
    }
    if (!areSame(before.m_vFeatures, view().m_vFeatures,
                 [](const SFeatureView& one, const SFeatureView& other) { return isSame(one, other); })) {
        mark(paFeatures);
    }
    for (size_t i = 0; i < pairs.size(); ++i) {
        if (!isSame(before.m_vPairs[i], pairs[i])) {
            m_vChanged[i] = m_nVersion;
        }
    }
}
