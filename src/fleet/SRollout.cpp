#include "fleet/SRollout.h"

#include "agent/agent_config.h"
#include "ctl/json.h"

#include <algorithm>
#include <limits>

namespace {

constexpr int nRolloutSchema = 1;

CJson leftAloneToJson(const std::vector<SLeftAlone>& all) {
    CJson array = CJson::array();
    for (const SLeftAlone& one : all) {
        array.push_back({{"appliance", one.m_sAppliance}, {"why", one.m_sWhy}});
    }
    return array;
}

bool isRising(const std::vector<double>& steps) {
    return !steps.empty() && steps.front() > 0 && steps.back() == 100 &&
           std::adjacent_find(steps.begin(), steps.end(), std::greater_equal<>()) == steps.end();
}

// Above what a time may be, it is the longest that there is: no difference of two overflows. Throws where it is no
// whole number, or a negative one.
int64_t secondsAt(const CJson& json, const char* key) {
    constexpr uint64_t nLongest = std::numeric_limits<int64_t>::max();
    return static_cast<int64_t>(
        std::min<uint64_t>(json.at(key).get_ref<const CJson::number_unsigned_t&>(), nLongest));
}

SRollout parse(const CJson& json) {
    SRollout rollout;
    json.at("id").get_to(rollout.m_sId);
    json.at("group").get_to(rollout.m_sGroup);
    rollout.m_nSerial = json.at("serial").get_ref<const CJson::number_unsigned_t&>();
    json.at("digest").get_to(rollout.m_sDigest);
    json.at("replaces").get_to(rollout.m_sReplaces);
    json.at("appliances").get_to(rollout.m_vAppliances);
    for (const CJson& one : json.at("left_alone")) {
        rollout.m_vLeftAlone.push_back({one.at("appliance"), one.at("why")});
    }
    json.at("steps").get_to(rollout.m_vSteps);
    json.at("success").get_to(rollout.m_nSuccess);
    json.at("stop_at").get_to(rollout.m_nStopAt);
    rollout.m_nAtLeast = json.at("at_least").get_ref<const CJson::number_unsigned_t&>();
    rollout.m_nPatience = secondsAt(json, "patience");
    json.at("by_group").get_to(rollout.m_bByGroup);
    rollout.m_nStep = static_cast<size_t>(json.at("step").get_ref<const CJson::number_unsigned_t&>());
    rollout.m_tBegun = secondsAt(json, "begun");
    rollout.m_tStep = secondsAt(json, "step_since");
    json.at("away").get_to(rollout.m_vAway);
    json.at("driver").get_to(rollout.m_sDriver);
    rollout.m_tBeat = secondsAt(json, "heartbeat");
    json.at("reason").get_to(rollout.m_sReason);
    const auto* state =
        std::find(std::begin(aRolloutStates), std::end(aRolloutStates), json.at("state").get<std::string>());
    rollout.m_eState = static_cast<ERolloutState>(state - std::begin(aRolloutStates));
    return rollout;
}

// Names become parts of topics.
bool hasGoodNames(const SRollout& rollout) {
    return isApplianceName(rollout.m_sGroup) &&
           std::all_of(rollout.m_vAppliances.begin(), rollout.m_vAppliances.end(), isApplianceName);
}

} // namespace

std::string_view wordOf(ERolloutState state) {
    return aRolloutStates[static_cast<size_t>(state)];
}

std::string printRollout(const SRollout& rollout) {
    const CJson json = {
        {"schema", nRolloutSchema},          {"id", rollout.m_sId},
        {"group", rollout.m_sGroup},         {"serial", rollout.m_nSerial},
        {"digest", rollout.m_sDigest},       {"replaces", rollout.m_sReplaces},
        {"state", wordOf(rollout.m_eState)}, {"reason", rollout.m_sReason},
        {"driver", rollout.m_sDriver},       {"heartbeat", rollout.m_tBeat},
        {"begun", rollout.m_tBegun},         {"steps", rollout.m_vSteps},
        {"step", rollout.m_nStep},           {"step_since", rollout.m_tStep},
        {"success", rollout.m_nSuccess},     {"stop_at", rollout.m_nStopAt},
        {"at_least", rollout.m_nAtLeast},    {"patience", rollout.m_nPatience},
        {"by_group", rollout.m_bByGroup},    {"appliances", rollout.m_vAppliances},
        {"away", rollout.m_vAway},           {"left_alone", leftAloneToJson(rollout.m_vLeftAlone)}};
    return json.dump(-1, ' ', false, CJson::error_handler_t::replace);
}

std::optional<SRollout> readRollout(std::string_view text) {
    const CJson json = CJson::parse(text, nullptr, false);
    try {
        if (!json.is_object() || json.at("schema") != nRolloutSchema) {
            return std::nullopt;
        }
        SRollout rollout = parse(json);
        const bool isGood = static_cast<size_t>(rollout.m_eState) < std::size(aRolloutStates) &&
                            isRising(rollout.m_vSteps) && hasGoodNames(rollout) &&
                            rollout.m_nStep < rollout.m_vSteps.size();
        return isGood ? std::optional(std::move(rollout)) : std::nullopt;
    } catch (const CJson::exception&) { // a key is missing, or of another type
        return std::nullopt;
    }
}
