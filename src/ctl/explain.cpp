// qelctl explain
#include "ctl/commands.h"
#include "ctl/events.h"
#include "ctl/json.h"
#include "ctl/terminal.h"

#include <charconv>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace {

EColour colourOf(std::string_view severity) {
    return severity == "error" ? EColour::red : severity == "warning" ? EColour::yellow : EColour::none;
}

void print(const SEventMatch& match) {
    const SEventText& event = *match.m_pEvent;
    fmt::print("{} {}: {}\n", event.m_nNumber, paint(event.m_sSeverity, colourOf(event.m_sSeverity), stdout),
               event.m_sText);
    if (!match.m_vValues.empty()) {
        fmt::print("  Values:  {}\n", printable(fmt::format("{}", fmt::join(match.m_vValues, ", "))));
    }
    fmt::print("  Means:   {}\n  To do:   {}\n", event.m_sMeaning,
               event.m_sAction.empty() ? "nothing" : event.m_sAction);
}

CJson toJson(const std::vector<SEventMatch>& matches) {
    CJson events = CJson::array();
    for (const auto& [event, values] : matches) {
        events.push_back({{"number", event->m_nNumber},
                          {"severity", event->m_sSeverity},
                          {"part", event->m_sPart},
                          {"text", event->m_sText},
                          {"values", values},
                          {"meaning", event->m_sMeaning},
                          {"action", event->m_sAction.empty() ? CJson() : CJson(event->m_sAction)}});
    }
    return events;
}

void complainNothing(const std::string& what, const std::vector<SEventMatch>& near) {
    std::string text = what;
    for (const SEventMatch& match : near) {
        text += fmt::format("{} {} '{}'", &match == &near.front() ? "; did you mean" : " or",
                            match.m_pEvent->m_nNumber, match.m_pEvent->m_sText);
    }
    complain(text + (near.empty() ? "" : "?"));
}

} // namespace

int runExplain(const SExplainOptions& options) {
    const std::string line = fmt::format("{}", fmt::join(options.m_vWords, " "));
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
    const bool isNumber = error == std::errc() && end == line.data() + line.size();
    const std::vector<SEventMatch> found = isNumber ? findEvents(number) : findEvents(line);
    std::vector<SEventMatch> near;
    if (found.empty()) {
        near = isNumber ? findNearEvents(number) : findNearEvents(line);
        complainNothing(isNumber ? "there is no event " + line
                                 : fmt::format("the log has no line '{}'", printable(line)),
                        near);
    }
    if (options.m_bJson) {
        CJson document = jsonDocument("explain");
        document["events"] = toJson(found);
        document["near"] = toJson(near);
        printJson(document);
    } else if (!options.m_bQuiet) {
        for (const SEventMatch& match : found) {
            print(match);
        }
    }
    return flushOutput() && !found.empty() ? exitOk : exitFailed;
}
