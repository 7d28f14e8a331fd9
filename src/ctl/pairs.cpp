#include "ctl/pairs.h"

#include <algorithm>
#include <fmt/chrono.h>
#include <fmt/format.h>

namespace {

constexpr uint32_t nModifyFailed = 11; // CCompStatus::ECStatus

constexpr size_t nLongestReason = 40; // columns of a cell

std::string inCapitals(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
    return text;
}

std::string failureText(const SPair& pair, uint32_t now) {
    const SDeliveryView& delivery = *pair.m_pDelivery;
    std::string text = inCapitals(pair.state());
    switch (uint32_t{delivery.m_nWhy}) {
    case swRefused:
        return fmt::format("{} \"{}\"", text, cut(printable(delivery.m_sText), nLongestReason));
    case swNoAnswer:
        text += sendsOf(delivery) == 0 ? "" : fmt::format(" {},", counted(sendsOf(delivery), "send"));
        return fmt::format("{} {}", text, age(delivery.m_tSince, now));
    default:
        return text;
    }
}

} // namespace

void SPairCounts::add(const SPair& pair) {
    const auto word = pair.word();
    ++(!word                               ? m_nIdle
       : *word == EDeliveryWord::delivered ? m_nDelivered
       : *word == EDeliveryWord::failed    ? m_nFailed
                                           : m_nUnderWay);
}

std::string SPairCounts::text() const {
    std::string text = m_nFailed == 0 ? "no problems" : counted(m_nFailed, "problem");
    text += m_nUnderWay == 0 ? "" : fmt::format(", {} under way", m_nUnderWay);
    return text + fmt::format(", {} delivered", m_nDelivered);
}

EExitStatus SPairCounts::exitStatus() const {
    return m_nFailed != 0 ? exitRefused : m_nUnderWay != 0 ? exitNotYet : exitOk;
}

EExitStatus worse(EExitStatus one, EExitStatus other) {
    return one == exitRefused || other == exitOk ? one : other;
}

SPairCounts countPairs(const std::vector<SPair>& pairs) {
    SPairCounts counts;
    for (const SPair& pair : pairs) {
        counts.add(pair);
    }
    return counts;
}

uint32_t sendsOf(const SDeliveryView& delivery) {
    const bool isGivenUp = delivery.m_nWhy == swNoAnswer && delivery.m_nState < aDeliveryStates.size() &&
                           delivery.m_nState != nModifyFailed;
    return isGivenUp ? nMaxSends : uint32_t{delivery.m_nSends};
}

std::string describePair(const SPair& pair, uint32_t now) {
    if (!pair.word() || pair.m_pDelivery == nullptr) {
        return pair.state();
    }
    const SDeliveryView& delivery = *pair.m_pDelivery;
    switch (*pair.word()) {
    case EDeliveryWord::failed:
        return failureText(pair, now);
    case EDeliveryWord::sent:
        return fmt::format("{} {}", pair.state(), age(delivery.m_tSince, now));
    case EDeliveryWord::overdue:
        return pair.state() + (delivery.m_nSends == 0 ? "" : ", " + counted(delivery.m_nSends, "send"));
    case EDeliveryWord::queued:
    case EDeliveryWord::delivered:
        break;
    }
    return pair.state();
}

EColour colourOf(const SPair& pair) {
    const auto word = pair.word();
    return !word                               ? EColour::dim
           : *word == EDeliveryWord::delivered ? EColour::green
           : *word == EDeliveryWord::failed    ? EColour::red
                                               : EColour::yellow;
}

// A clock that was set back makes times to come.
std::string age(uint32_t since, uint32_t now) {
    const uint32_t seconds = now > since ? now - since : 0;
    return seconds < 120      ? fmt::format("{} s", seconds)
           : seconds < 7200   ? fmt::format("{} min", seconds / 60)
           : seconds < 172800 ? fmt::format("{} h", seconds / 3600)
                              : fmt::format("{} d", seconds / 86400);
}

std::string moment(uint32_t seconds, uint32_t now) {
    const auto dateOf = [](uint32_t time) {
        return fmt::format("{:%Y-%m-%d} ", fmt::localtime(static_cast<time_t>(time)));
    };
    const std::string date = dateOf(seconds);
    return (date == dateOf(now) ? "" : date) + timeOfDay(seconds);
}

std::string title(const SFeatureView& feature) {
    const std::string name = printable(feature.name());
    return name.empty() ? feature.id() : feature.id() + " " + name;
}

std::string title(const SComponentView& component) {
    const std::string name = printable(fieldText(component.m_szName));
    return component.m_nProcessId == 0 ? name
                                       : fmt::format("{} (pid {})", name, uint32_t{component.m_nProcessId});
}

std::string life(const SComponentView& component, uint32_t now) {
    if (component.m_tDead != 0) {
        return "dead since " + moment(component.m_tDead, now);
    }
    return component.m_nMonitors != 0 ? "alive, monitoring" : "alive, not monitoring";
}

bool selectOrComplain(const CDaemonView& view, const std::string& argument, SSelection& selection) {
    std::string nearest;
    if (view.select(argument, selection, nearest)) {
        return true;
    }
    complain(fmt::format("no feature and no component is called '{}'{}", printable(argument),
                         nearest.empty() ? "" : fmt::format("; did you mean '{}'?", printable(nearest))));
    return false;
}
