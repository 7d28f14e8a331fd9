#include "fleet/CFleetLink.h"

#include "ctl/terminal.h"

#include <csignal>
#include <fmt/format.h>

namespace {

using namespace std::chrono_literals;

constexpr auto tQuiet = 1s;
constexpr auto tTurn = 100ms;
constexpr auto tConfirm = 30s;    // how long the broker may take for what was written
constexpr size_t nMaxUnsent = 50; // messages: each is a whole list, held until the broker has it

volatile std::sig_atomic_t bSignalled = 0;

} // namespace

void catchSignals() {
    struct sigaction action {};
    action.sa_handler = [](int) { bSignalled = 1; };
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

bool isSignalled() {
    return bSignalled != 0;
}

CFleetLink::CFleetLink(const SAgentConfig& config, CFleetView& view, std::vector<std::string> topics)
    : m_oView(view), m_vTopics(std::move(topics)), m_oBroker(config, *this) {}

std::string CFleetLink::open(std::chrono::milliseconds patience) {
    catchSignals();
    if (std::string trouble = m_oBroker.prepare(""); !trouble.empty()) {
        return trouble;
    }
    const CTime end = std::chrono::steady_clock::now() + patience;
    while (!isWhole()) {
        if (!m_sLost.empty() || !m_sDenied.empty()) {
            return m_sLost.empty() ? m_sDenied : m_sLost;
        }
        if (isSignalled() || std::chrono::steady_clock::now() >= end) {
            return isSignalled() ? "interrupted" : "the broker does not answer in time";
        }
        turn(tTurn);
    }
    m_bOpen = true;
    return "";
}

void CFleetLink::turn(std::chrono::milliseconds wait) {
    m_oBroker.turn(wait);
}

void CFleetLink::rest(std::chrono::milliseconds length) {
    for (const CTime end = std::chrono::steady_clock::now() + length;
         std::chrono::steady_clock::now() < end;) {
        turn(tTurn);
    }
}

bool CFleetLink::isWhole() const {
    return m_bSubscribed && std::chrono::steady_clock::now() - m_tLast >= tQuiet;
}

bool CFleetLink::put(const std::string& topic, std::string_view text) {
    return m_oBroker.publish(topic, text) && drain(nMaxUnsent);
}

bool CFleetLink::flush() {
    return drain(0);
}

bool CFleetLink::drain(size_t left) {
    const CTime end = std::chrono::steady_clock::now() + tConfirm;
    while (m_oBroker.isConnected() && m_oBroker.unsent() > left && std::chrono::steady_clock::now() < end) {
        turn(tTurn);
    }
    return m_oBroker.isConnected() && m_oBroker.unsent() <= left;
}

void CFleetLink::onConnected() {
    if (m_bTold) {
        complain("the broker is there again");
        m_bTold = false;
    }
    m_oView.forget();
    m_bSubscribed = false;
    m_oBroker.subscribe(m_vTopics);
}

void CFleetLink::onSubscribed() {
    m_bSubscribed = true;
    m_tLast = std::chrono::steady_clock::now();
}

// Only until the view is whole: a big fleet is never quiet.
void CFleetLink::onMessage(const std::string& topic, std::string_view text) {
    if (!isWhole()) {
        m_tLast = std::chrono::steady_clock::now();
    }
    m_oView.take(topic, text);
    if (m_fnSeen) {
        m_fnSeen(topic);
    }
}

void CFleetLink::onLost(const std::string& why) {
    m_bSubscribed = false;
    m_sLost = why;
    if (m_bOpen && !m_bTold) {
        complain(fmt::format("the broker is gone: {}; trying again", why));
        m_bTold = true;
    }
}
