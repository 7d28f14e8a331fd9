// An operator's connection with the fleet's broker.
#ifndef QEL_FLEET_CFLEETLINK_H
#define QEL_FLEET_CFLEETLINK_H

#include "agent/CBroker.h"
#include "fleet/CFleetView.h"

#include <chrono>
#include <functional>
#include <string>
#include <vector>

// SIGINT and SIGTERM are noted from now on. May be called more than once.
void catchSignals();
bool isSignalled();

// Fills a view with what the topics have. The broker does not say when that was all: a view counts once
// nothing has come for a second. After a loss it connects again, and the view begins anew.
//
// Used by one thread.
class CFleetLink : private CBrokerUser {
public:
    using CTime = std::chrono::steady_clock::time_point;

    // The topics may have '+' in them. The objects must outlive this one.
    CFleetLink(const SAgentConfig& config, CFleetView& view, std::vector<std::string> topics);

    // Connects, and waits until the view is whole. What went wrong; empty: nothing.
    [[nodiscard]] std::string open(std::chrono::milliseconds patience);
    // The same until something has come, for at most so long.
    void turn(std::chrono::milliseconds wait);
    // Handles what comes, for so long.
    void rest(std::chrono::milliseconds length);
    bool isWhole() const;
    // Not empty: the broker has denied something, and why.
    const std::string& denied() const { return m_sDenied; }

    // Writes a topic; empty: clears it. False: there is no connection, or it went before the broker had all.
    [[nodiscard]] bool put(const std::string& topic, std::string_view text);
    [[nodiscard]] bool flush();

    // Called with each topic that has come.
    std::function<void(const std::string&)> m_fnSeen;

private:
    std::string will() override { return ""; }
    void onConnected() override;
    void onSubscribed() override;
    void onMessage(const std::string& topic, std::string_view text) override;
    void onLost(const std::string& why) override;
    void onDenied(const std::string& why) override { m_sDenied = why; }

    [[nodiscard]] bool drain(size_t left);

    CFleetView& m_oView;
    std::vector<std::string> m_vTopics;
    CBroker m_oBroker;
    std::string m_sLost;
    std::string m_sDenied;
    bool m_bOpen = false;
    bool m_bSubscribed = false;
    bool m_bTold = false; // that there is no connection
    CTime m_tLast{};
};

#endif
