#include "ctl/json.h"

#include "source/list/list_digest.h"

#include <array>
#include <fmt/format.h>

namespace {

// By EDeliveryWord.
constexpr std::array<const char*, 5> aProgress = {"queued", "sent", "delivered", "failed", "overdue"};
// By EStatusWhy.
constexpr std::array<const char*, 4> aWhys = {"", "refused", "no answer", "not kept"};

CJson textOrNull(std::string_view text) {
    return text.empty() ? CJson() : CJson(text);
}

} // namespace

CJson jsonDocument(std::string_view command) {
    return {{"schema", nJsonSchema}, {"command", command}};
}

CJson jsonTime(uint32_t seconds) {
    return seconds == 0 ? CJson() : CJson(seconds);
}

CJson jsonProgress(const SPair& pair) {
    const auto word = pair.word();
    return word ? CJson(aProgress[static_cast<size_t>(*word)]) : CJson();
}

CJson toJson(const SSummaryView& summary) {
    CJson features = CJson::object();
    for (size_t i = 0; i < nFeatureStatuses; ++i) {
        features[std::string(aFeatureWords[i])] = uint32_t{summary.m_aFeatures[i]};
    }
    return {{"version", summary.m_sText},
            {"pid", uint32_t{summary.m_nProcessId}},
            {"started", jsonTime(summary.m_tStarted)},
            {"now", jsonTime(summary.m_tNow)},
            {"features", std::move(features)},
            {"last_transition", number(summary.m_aLastTransition)},
            {"latest_turn_us", uint32_t{summary.m_nLatestTurn}},
            {"busiest_turn_us", uint32_t{summary.m_nBusiestTurn}},
            {"next_audit_ms", uint32_t{summary.m_nNextPass}}};
}

CJson toJson(const SFeatureView& feature) {
    CJson concerned = CJson::array();
    for (const std::string_view name : feature.concerned()) {
        concerned.push_back(name);
    }
    return {{"code", uint32_t{feature.m_nCode}},
            {"data", uint32_t{feature.m_nData}},
            {"status", featureWord(feature.m_nStatus)},
            {"name", feature.name()},
            {"new_data", feature.m_nNewData == 0 ? CJson() : CJson(uint32_t{feature.m_nNewData})},
            {"sourced", feature.m_nSourced != 0},
            {"leaving", feature.m_nLeaving != 0},
            {"components", std::move(concerned)}};
}

CJson toJson(const SComponentView& component) {
    return {{"name", fieldText(component.m_szName)},
            {"pid", component.m_nProcessId == 0 ? CJson() : CJson(uint32_t{component.m_nProcessId})},
            {"handle", uint32_t{component.m_nHandle}},
            {"monitors", component.m_nMonitors != 0},
            {"heard", jsonTime(component.m_tHeard)},
            {"dead_since", jsonTime(component.m_tDead)},
            {"last_reply", uint32_t{component.m_nReply}},
            {"last_reply_text", textOrNull(component.m_sText)}};
}

CJson toJson(const SPair& pair) {
    const SDeliveryView none;
    const SDeliveryView& delivery = pair.m_pDelivery ? *pair.m_pDelivery : none;
    const uint32_t why = delivery.m_nWhy;
    return {{"code", uint32_t{pair.m_pFeature->m_nCode}},
            {"data", uint32_t{pair.m_pFeature->m_nData}},
            {"component", fieldText(pair.m_pComponent->m_szName)},
            {"state", pair.state()},
            {"progress", jsonProgress(pair)},
            {"since", jsonTime(delivery.m_tSince)},
            {"sends", sendsOf(delivery)},
            {"why", why == 0 || why >= aWhys.size() ? CJson() : CJson(aWhys[why])},
            {"reason", textOrNull(delivery.m_sText)}};
}

CJson toJson(const STransitionView& transition) {
    const bool isOfAll = fieldText(transition.m_szComponent).empty();
    return {{"number", number(transition.m_aNumber)},
            {"time", uint32_t{transition.m_tSeconds}},
            {"microseconds", uint32_t{transition.m_nMicroseconds}},
            {"code", uint32_t{transition.m_nCode}},
            {"data", uint32_t{transition.m_nData}},
            {"component", textOrNull(fieldText(transition.m_szComponent))},
            {"from", isOfAll ? CJson() : CJson(stateBefore(transition))},
            {"to", stateAfter(transition)},
            {"cause", causeWord(transition.m_nCause)},
            {"reason", textOrNull(transition.m_sText)}};
}

CJson toJson(const SPairCounts& counts) {
    return {{"delivered", counts.m_nDelivered},
            {"failed", counts.m_nFailed},
            {"under_way", counts.m_nUnderWay},
            {"idle", counts.m_nIdle}};
}

CJson toJson(const std::vector<SListError>& errors) {
    CJson array = CJson::array();
    for (const SListError& error : errors) {
        array.push_back(
            {{"line", error.m_nLine == 0 ? CJson() : CJson(error.m_nLine)}, {"text", error.m_sText}});
    }
    return array;
}

CJson toJson(const SListView& list) {
    const uint32_t result = list.m_nResult;
    return {{"path", list.path()},
            {"in_force", list.m_nInForce != 0},
            {"since", jsonTime(list.m_tLoaded)},
            {"kept", list.m_nKept != 0},
            {"digest", printListDigest(number(list.m_aDigest))},
            {"size", uint32_t{list.m_nSize}},
            {"count", uint32_t{list.m_nFeatures}},
            {"before", uint32_t{list.m_nBefore}},
            {"withdrawn", uint32_t{list.m_nWithdrawn}},
            {"much", list.m_nMuch != 0},
            {"read", jsonTime(list.m_tRead)},
            {"result", result < aListResultWords.size() ? aListResultWords[result] : "unknown"},
            {"read_digest", printListDigest(number(list.m_aReadDigest))},
            {"read_size", uint32_t{list.m_nReadSize}},
            {"error_count", uint32_t{list.m_nErrors}},
            {"errors", toJson(list.errors())},
            {"verified", list.m_nVerified != 0},
            {"serial", number(list.m_aSerial) != 0 ? CJson(number(list.m_aSerial)) : CJson()},
            {"key_id", textOrNull(fieldText(list.m_szKeyId))},
            {"signer", textOrNull(fieldText(list.m_szSigner))}};
}

// JSON is UTF-8 (RFC 8259), names and texts may be anything. What is not UTF-8 is replaced, not thrown.
void printJson(const CJson& document) {
    fmt::print("{}\n", document.dump(2, ' ', false, CJson::error_handler_t::replace));
}

void printJsonLine(const CJson& document) {
    fmt::print("{}\n", document.dump(-1, ' ', false, CJson::error_handler_t::replace));
}
