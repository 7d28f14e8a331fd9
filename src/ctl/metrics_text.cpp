#include "ctl/metrics.h"

#include "ctl/json.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <iterator>
#include <map>
#include <set>

namespace {

// Both formats are UTF-8. Bytes that are not are replaced as in JSON.
std::string labelValue(std::string_view text) {
    static constexpr auto eReplace = CJson::error_handler_t::replace;
    const auto clean = CJson::parse(CJson(text).dump(-1, ' ', false, eReplace)).get<std::string>();
    std::string value;
    for (const char c : clean) {
        value += c == '\\' ? "\\\\" : c == '"' ? "\\\"" : c == '\n' ? "\\n" : std::string(1, c);
    }
    return value;
}

std::string label(std::string_view name, std::string_view value) {
    return fmt::format("{}=\"{}\"", name, labelValue(value));
}

constexpr double nMicro = 1e-6;
constexpr double nMilli = 1e-3;

// The samples of a family stand together, behind what is said about it.
class CMetricsText {
public:
    explicit CMetricsText(EMetricsFormat format) : m_bOpen(format == EMetricsFormat::openMetrics) {}

    // `unit` is what the name ends with, if that is one.
    void gauge(std::string_view name, std::string_view help, std::string_view unit = "") {
        begin(name, name, "gauge", help, unit);
    }
    // A counter's samples are NAME_total. What is said about it names it without that in OpenMetrics, and
    // with it in the format before.
    void counter(std::string_view name, std::string_view help) {
        const std::string total = fmt::format("{}_total", name);
        begin(total, m_bOpen ? name : total, "counter", help, "");
    }
    // Names of others can become equal once they are UTF-8. A reader would refuse the whole text for a series
    // that stands in it twice, so the first stands for both.
    template <typename T>
    void sample(const T& value, const std::string& labels = "") {
        const std::string series = labels.empty() ? m_sSample : fmt::format("{}{{{}}}", m_sSample, labels);
        if (m_oSeries.insert(series).second) {
            fmt::format_to(std::back_inserter(m_sText), "{} {}\n", series, value);
        }
    }
    std::string end() { return m_bOpen ? m_sText + "# EOF\n" : m_sText; }

private:
    void begin(std::string_view sample, std::string_view name, std::string_view type, std::string_view help,
               std::string_view unit) {
        m_sSample = sample;
        auto out = std::back_inserter(m_sText);
        fmt::format_to(out, "# HELP {} {}\n# TYPE {} {}\n", name, help, name, type);
        if (m_bOpen && !unit.empty()) {
            fmt::format_to(out, "# UNIT {} {}\n", name, unit);
        }
    }

    bool m_bOpen;
    std::string m_sSample;
    std::string m_sText;
    std::set<std::string> m_oSeries;
};

// --- Deliveries ---

// What `state` can be. All are told of each component, also those in which nothing is: a series that goes
// when it becomes 0 is hard to watch.
constexpr std::array<std::string_view, 8> aStates = {"delivered", "queued",  "sent",   "overdue",
                                                     "refused",   "gave_up", "failed", "idle"};

std::string_view stateOf(const SPair& pair) {
    const auto word = pair.word();
    if (!word) {
        return "idle";
    }
    switch (*word) {
    case EDeliveryWord::queued:
        return "queued";
    case EDeliveryWord::sent:
        return "sent";
    case EDeliveryWord::delivered:
        return "delivered";
    case EDeliveryWord::overdue:
        return "overdue";
    case EDeliveryWord::failed:
        break;
    }
    const uint32_t why = pair.m_pDelivery == nullptr ? swNone : uint32_t{pair.m_pDelivery->m_nWhy};
    return why == swRefused ? "refused" : why == swNoAnswer ? "gave_up" : "failed";
}

void addDeliveries(CMetricsText& text, const CDaemonView& view) {
    std::map<const SComponentView*, std::map<std::string_view, size_t>> counts;
    for (const SPair& pair : view.m_vPairs) {
        ++counts[pair.m_pComponent][stateOf(pair)];
    }
    text.gauge("qel_deliveries", "Features at components that they concern, by how far they are.");
    for (const SComponentView& component : view.m_vComponents) {
        auto& ofComponent = counts[&component];
        for (const std::string_view state : aStates) {
            text.sample(ofComponent[state],
                        label("component", fieldText(component.m_szName)) + "," + label("state", state));
        }
    }
}

// --- Daemon, components, list ---

void addDaemon(CMetricsText& text, const SSummaryView& summary) {
    text.gauge("qel_build_info", "Always 1; the label is the daemon's version.");
    text.sample(1, label("version", summary.m_sText));
    text.gauge("qel_start_timestamp_seconds", "When the daemon started, since the epoch.", "seconds");
    text.sample(uint32_t{summary.m_tStarted});
    text.gauge("qel_clock_timestamp_seconds", "What the daemon's clock showed, since the epoch.", "seconds");
    text.sample(uint32_t{summary.m_tNow});
    text.gauge("qel_turn_latest_seconds", "Work of the main loop's latest turn, without its waits.",
               "seconds");
    text.sample(summary.m_nLatestTurn * nMicro);
    text.gauge("qel_turn_busiest_seconds", "Work of its busiest turn since the start.", "seconds");
    text.sample(summary.m_nBusiestTurn * nMicro);
    text.gauge("qel_next_audit_seconds", "Time until the next audit, about.", "seconds");
    text.sample(summary.m_nNextPass * nMilli);
    text.counter("qel_transitions", "Steps of deliveries from one state to another.");
    text.sample(number(summary.m_aLastTransition));
    text.gauge("qel_features", "Features by their own status.");
    for (size_t i = 0; i < nFeatureStatuses; ++i) {
        text.sample(uint32_t{summary.m_aFeatures[i]}, label("status", aFeatureWords[i]));
    }
}

void addComponents(CMetricsText& text, const std::vector<SComponentView>& components) {
    const auto each = [&](auto value) {
        for (const SComponentView& component : components) {
            text.sample(value(component), label("component", fieldText(component.m_szName)));
        }
    };
    text.gauge("qel_component_alive", "1 unless the component's process was found to be gone.");
    each([](const SComponentView& component) { return component.m_tDead == 0 ? 1 : 0; });
    text.gauge("qel_component_monitors", "1 if the component is told of changes.");
    each([](const SComponentView& component) { return component.m_nMonitors != 0 ? 1 : 0; });
    text.gauge("qel_component_heard_timestamp_seconds",
               "When the component's last message came, since the epoch; 0 for never.", "seconds");
    each([](const SComponentView& component) { return uint32_t{component.m_tHeard}; });
}

void addList(CMetricsText& text, const SListView& list) {
    text.gauge("qel_list_in_force", "1 if a list is in force.");
    text.sample(list.m_nInForce != 0 ? 1 : 0);
    text.gauge("qel_list_kept", "1 if it is the one kept from an earlier run, for the file had none.");
    text.sample(list.m_nKept != 0 ? 1 : 0);
    text.gauge("qel_list_features", "Features in the list in force.");
    text.sample(uint32_t{list.m_nFeatures});
    text.gauge("qel_list_withdrawn_features", "Features that the list before it had, and it has not.");
    text.sample(uint32_t{list.m_nWithdrawn});
    text.gauge("qel_list_size_bytes", "Size of its text.", "bytes");
    text.sample(uint32_t{list.m_nSize});
    text.gauge("qel_list_loaded_timestamp_seconds", "When it came into force, since the epoch.", "seconds");
    text.sample(uint32_t{list.m_tLoaded});
    text.gauge("qel_list_read_timestamp_seconds", "When the file was read last, since the epoch.", "seconds");
    text.sample(uint32_t{list.m_tRead});
    text.gauge("qel_list_read_errors", "Errors that this reading found.");
    text.sample(uint32_t{list.m_nErrors});
    text.gauge("qel_list_read_result", "1 for what this reading came to, 0 for all else.");
    for (size_t i = 0; i < aListResultWords.size(); ++i) {
        text.sample(list.m_nResult == i ? 1 : 0, label("result", aListResultWords[i]));
    }
}

// --- Counters ---

struct SCounterFamily {
    std::string_view m_sName;
    std::string_view m_sLabel; // empty: it is a single counter
    std::string_view m_sHelp;
    // The daemon's names of its counters, with blanks between; what ends with a dot is the beginning of
    // several. Empty: all.
    std::string_view m_sMembers;
};

// A counter belongs to the first that has it. The last takes what a newer daemon counts besides.
constexpr SCounterFamily aFamilies[] = {
    {"qel_send_errors", "", "Messages that could not be sent.", "sent.failed"},
    {"qel_messages_received", "kind", "Messages received, by kind.", "received."},
    {"qel_messages_sent", "kind", "Messages sent, by kind.", "sent."},
    {"qel_notifications_withheld", "", "Notifications of what the component holds already.", "withheld"},
    {"qel_delivery_outcomes", "outcome", "What became of deliveries, step by step.",
     "accepted refused overdue given-up"},
    {"qel_list_hand_overs", "", "Lists that came into force.", "lists.handed-over"},
    {"qel_list_readings", "result", "Readings of the list's file.", "lists.taken lists.refused"},
    {"qel_other_events", "event", "What this version has no metric of its own for.", ""},
};

// What a counter's name is within the family; nothing if it does not belong to it.
std::optional<std::string_view> placeIn(const SCounterFamily& family, std::string_view name) {
    if (family.m_sMembers.empty()) {
        return name;
    }
    std::string_view rest = family.m_sMembers;
    while (!rest.empty()) {
        const std::string_view member = rest.substr(0, rest.find(' '));
        rest.remove_prefix(std::min(rest.size(), member.size() + 1));
        if (member.back() == '.' && name.starts_with(member)) {
            return name.substr(member.size());
        }
        if (member == name) {
            return name.substr(name.find('.') + 1);
        }
    }
    return std::nullopt;
}

std::string counterLabel(const SCounterFamily& family, std::string_view place) {
    std::string value(place);
    std::replace(value.begin(), value.end(), '-', '_');
    return family.m_sLabel.empty() ? "" : label(family.m_sLabel, value);
}

void addCounters(CMetricsText& text, std::vector<SCounterView> counters) {
    for (const SCounterFamily& family : aFamilies) {
        bool isBegun = false;
        std::erase_if(counters, [&](const SCounterView& counter) {
            const auto place = placeIn(family, counter.m_sText);
            if (place && !std::exchange(isBegun, true)) {
                text.counter(family.m_sName, family.m_sHelp);
            }
            if (place) {
                text.sample(number(counter.m_aValue), counterLabel(family, *place));
            }
            return place.has_value();
        });
    }
}

} // namespace

std::string metricsText(const SSnapshot* snapshot, EMetricsFormat format) {
    CMetricsText text(format);
    text.gauge("qel_up", "1 if the daemon answers; 0 stands alone.");
    text.sample(snapshot != nullptr ? 1 : 0);
    if (snapshot != nullptr) {
        addDaemon(text, snapshot->m_oView.m_oSummary);
        addComponents(text, snapshot->m_oView.m_vComponents);
        addDeliveries(text, snapshot->m_oView);
        if (snapshot->m_oList) {
            addList(text, *snapshot->m_oList);
        }
        addCounters(text, snapshot->m_vCounters);
    }
    return text.end();
}
