#include "ctl/page.h"

#include "ctl/pairs.h"
#include "web/page_bytes.h"

#include <utility>

namespace {

CJson deliveryRow(const SPair& pair, size_t feature, size_t component, size_t state) {
    CJson row = {feature, component, state};
    if (const SDeliveryView* delivery = pair.m_pDelivery; delivery != nullptr) {
        row.push_back(uint32_t{delivery->m_tSince});
        if (!pair.is(EDeliveryWord::delivered)) {
            row.push_back(uint32_t{delivery->m_tLast});
            row.push_back(sendsOf(*delivery));
            row.push_back(delivery->m_sText);
        }
    }
    return row;
}

// Of a transition, as far as the page needs it for a colour.
CJson progressAfter(const STransitionView& transition) {
    static constexpr const char* aProgress[] = {"queued", "sent", "delivered", "failed", "overdue"};
    const uint32_t state = transition.m_nTo;
    return state < aDeliveryStates.size()
               ? CJson(aProgress[static_cast<size_t>(aDeliveryStates[state].m_eWord)])
               : CJson();
}

// Whom the list names is in the deliveries, where it has announced itself.
CJson featureRecord(const SFeatureView& feature, const CDaemonView& view) {
    CJson record = toJson(feature);
    record.erase("components");
    CJson absent = CJson::array();
    for (const std::string_view name : feature.concerned()) {
        if (view.component(name) == nullptr) {
            absent.push_back(name);
        }
    }
    record["absent"] = std::move(absent);
    return record;
}

} // namespace

// --- The parts ---

size_t CPageStates::place(const SPair& pair) {
    const uint32_t state = pair.m_pDelivery == nullptr ? 0 : uint32_t{pair.m_pDelivery->m_nState};
    const std::pair key(pair.state(), state);
    if (const auto found = m_oPlaces.find(key); found != m_oPlaces.end()) {
        return found->second;
    }
    m_oStates.push_back({{"word", pair.state()}, // before its place, which must not lead nowhere
                         {"progress", jsonProgress(pair)},
                         {"next", state < aDeliveryStates.size() ? aDeliveryStates[state].m_sNext : ""}});
    return m_oPlaces[key] = m_oStates.size() - 1;
}

CJson pageFeatures(const CDaemonView& view) {
    CJson features = CJson::array();
    for (const SFeatureView& feature : view.m_vFeatures) {
        features.push_back(featureRecord(feature, view));
    }
    return features;
}

CJson pageComponents(const CDaemonView& view) {
    CJson components = CJson::array();
    for (const SComponentView& component : view.m_vComponents) {
        components.push_back(toJson(component));
    }
    return components;
}

CJson pageCounters(const std::vector<SCounterView>& all) {
    CJson counters = CJson::object();
    for (const SCounterView& counter : all) {
        counters[counter.m_sText] = number(counter.m_aValue);
    }
    return counters;
}

CJson pageDeliveries(const CDaemonView& view, CPageStates& states,
                     const std::function<bool(size_t pair)>& wants) {
    CJson rows = CJson::array();
    for (size_t i = 0; i < view.m_vPairs.size(); ++i) {
        if (wants && !wants(i)) {
            continue;
        }
        const SPair& pair = view.m_vPairs[i];
        const auto feature = static_cast<size_t>(pair.m_pFeature - view.m_vFeatures.data());
        const auto component = static_cast<size_t>(pair.m_pComponent - view.m_vComponents.data());
        rows.push_back(deliveryRow(pair, feature, component, states.place(pair)));
    }
    return {{"columns", {"feature", "component", "state", "since", "asked", "sends", "reason"}},
            {"rows", std::move(rows)}};
}

CJson pageTransitions(std::span<const STransitionView> transitions) {
    CJson columns = CJson::array();
    CJson rows = CJson::array();
    for (const STransitionView& transition : transitions) {
        CJson whole = toJson(transition);
        whole["progress"] = progressAfter(transition);
        CJson row = CJson::array();
        const bool isFirst = columns.empty();
        for (auto& [key, value] : whole.items()) {
            if (isFirst) {
                columns.push_back(key);
            }
            row.push_back(std::move(value));
        }
        rows.push_back(std::move(row));
    }
    return {{"columns", std::move(columns)}, {"rows", std::move(rows)}};
}

// --- The whole ---

CJson pageData(const SSnapshot& snapshot, const SHistory& history, CPageStates& states) {
    const CDaemonView& view = snapshot.m_oView;
    CJson document = jsonDocument("page");
    document["daemon"] = toJson(view.m_oSummary);
    document["list"] = snapshot.m_oList ? toJson(*snapshot.m_oList) : CJson();
    document["features"] = pageFeatures(view);
    document["components"] = pageComponents(view);
    CJson deliveries = pageDeliveries(view, states);
    document["states"] = states.all();
    document["deliveries"] = std::move(deliveries);
    document["transitions"] = pageTransitions(history.m_vAll);
    document["transitions_whole"] = history.m_bWhole;
    document["counters"] = pageCounters(snapshot.m_vCounters);
    return document;
}

// In JSON these three stand within texts only, where their escapes mean the same: no end of the script
// element and no comment can come of a text.
std::string pageWith(const CJson& data) {
    std::string page(pageBytes());
    std::string text;
    for (const char c : data.dump(-1, ' ', false, CJson::error_handler_t::replace)) {
        text += c == '<' ? "\\u003c" : c == '>' ? "\\u003e" : c == '&' ? "\\u0026" : std::string(1, c);
    }
    return page.replace(page.find(sPagePlace), sPagePlace.size(), text);
}
