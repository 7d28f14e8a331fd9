#include "agent/CAgent.h"

#include "agent/fleet_topics.h"
#include "source/list/list_digest.h"
#include "source/list/list_paths.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <utility>

namespace {

using namespace std::chrono_literals;

constexpr int nStateSchema = 1;
constexpr size_t nMaxDenied = 100; // that are told

std::string timeNow() {
    return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::time(nullptr)));
}

// Bytes that are no UTF-8 are replaced: a component may call itself anything.
std::string print(const CJson& state) {
    return state.dump(-1, ' ', false, CJson::error_handler_t::replace);
}

// A line for the service manager's log.
void tell(const std::string& text) {
    std::fprintf(stderr, "qelagent: %s\n", text.c_str()); // where nobody can read it, the work goes on
}

} // namespace

CAgent::CAgent(const SAgentConfig& config, std::string list)
    : m_oConfig(config), m_sList(std::move(list)), m_oBroker(config, *this), m_oDesired(config),
      m_oSecondLook(trustPath().m_sDirectory, appliancePath()) {}

std::string CAgent::prepare() {
    return m_oBroker.prepare(stateTopic(m_oConfig.m_sFleet, m_oConfig.m_sAppliance));
}

void CAgent::turn() {
    m_oBroker.turn(500ms);
    const CTime now = std::chrono::steady_clock::now();
    if (const auto topic = m_oDesired.wanted()) {
        m_oBroker.subscribe({*topic});
    }
    place(now);
    tellState(now);
}

void CAgent::place(CTime now) {
    if (m_oSecondLook.isDue(now)) {
        m_oDesired.again();
    }
    const auto text = m_oDesired.choose(now);
    if (!text) {
        return;
    }
    m_oSecondLook.begin(now);
    SPlacing placing = placeList(m_sList, *text);
    m_oSecondLook.judged(placing.m_ePlaced, now);
    const bool isNews = !m_oPlacing || *m_oPlacing != placing || m_sTopic != m_oDesired.topic();
    m_sTopic = m_oDesired.topic();
    m_oPlacing = std::move(placing);
    if (isNews) {
        tellPlacing();
    }
}

void CAgent::tellPlacing() const {
    tell(fmt::format("list {} of {}: {}{}{}", printListDigest(m_oPlacing->m_nDigest), m_sTopic,
                     wordOf(m_oPlacing->m_ePlaced), m_oPlacing->m_sTrouble.empty() ? "" : ": ",
                     m_oPlacing->m_sTrouble));
    for (const SListError& error : m_oPlacing->m_vErrors) {
        tell("  " + printListError("list", error));
    }
}

void CAgent::tellState(CTime now) {
    if (!m_oBroker.isConnected() || now - m_tTold < tBetweenStates) {
        return;
    }
    m_tTold = now;
    m_oState.look();
    std::string text = state();
    if (text != m_sTold && m_oBroker.publish(stateTopic(m_oConfig.m_sFleet, m_oConfig.m_sAppliance), text)) {
        m_sTold = std::move(text);
    }
}

CJson CAgent::head(bool isOnline) const {
    return {{"schema", nStateSchema},
            {"appliance", m_oConfig.m_sAppliance},
            {"groups", m_oConfig.m_vGroups},
            {"online", isOnline}};
}

std::string CAgent::state() const {
    CJson state = head(true);
    if (m_oPlacing) {
        state["desired"] = {{"topic", m_sTopic},
                            {"digest", printListDigest(m_oPlacing->m_nDigest)},
                            {"result", wordOf(m_oPlacing->m_ePlaced)},
                            {"trouble", m_oPlacing->m_sTrouble},
                            {"errors", toJson(m_oPlacing->m_vErrors)}};
    }
    if (!m_vDenied.empty()) {
        state["denied"] = m_vDenied;
    }
    m_oState.put(state);
    return print(state);
}

// When it goes, nobody is there to tell the time: so the will says since when it had been there.
std::string CAgent::will() {
    CJson state = head(false);
    state["connected"] = timeNow();
    return print(state);
}

void CAgent::leave() {
    CJson state = head(false);
    state["left"] = timeNow();
    m_oBroker.leave(stateTopic(m_oConfig.m_sFleet, m_oConfig.m_sAppliance), print(state));
}

void CAgent::onConnected() {
    tell(fmt::format("connected with {} port {}", m_oConfig.m_sHost, m_oConfig.m_nPort));
    m_sTold.clear();
    m_vDenied.clear();
    m_oDesired.forget();
    m_oBroker.subscribe(m_oDesired.topics());
}

void CAgent::onSubscribed() {
    m_oDesired.subscribed(std::chrono::steady_clock::now());
}

void CAgent::onMessage(const std::string& topic, std::string_view text) {
    if (!m_oDesired.take(topic, text, std::chrono::steady_clock::now())) {
        tell("ignored a message of another topic");
    }
}

// Once in a connection: a state that may not be written is not tried any less often for that.
void CAgent::onDenied(const std::string& why) {
    if (m_vDenied.size() < nMaxDenied && std::ranges::find(m_vDenied, why) == m_vDenied.end()) {
        tell("the broker says that " + why);
        m_vDenied.push_back(why);
    }
}

void CAgent::onLost(const std::string& why) {
    tell(fmt::format("no connection with {} port {}: {}", m_oConfig.m_sHost, m_oConfig.m_nPort, why));
}
