// The connection to the broker: MQTT 5 by libmosquitto.
#ifndef QEL_AGENT_CBROKER_H
#define QEL_AGENT_CBROKER_H

#include "agent/agent_config.h"

#include <chrono>
#include <mosquitto.h>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Whom the broker's connection tells of what comes. Called from CBroker::turn() alone.
class CBrokerUser {
public:
    // What the broker shall tell when this process goes without a word; asked for before each connection.
    virtual std::string will() = 0;
    virtual void onConnected() = 0;
    virtual void onSubscribed() = 0; // everything that was asked for
    virtual void onMessage(const std::string& topic, std::string_view text) = 0;
    virtual void onLost(const std::string& why) = 0; // the connection, or an attempt to get one
    virtual void onDenied(const std::string& /*why*/) {
    } // a subscription or a message, by the broker; names its topic

protected:
    ~CBrokerUser() = default;
};

// Connects at once, and again after a loss: after a pause that doubles from one second to five minutes, and half of
// which is drawn by chance, so that a fleet does not come back in one moment. A connection that held for a minute
// makes the pause short again.
//
// The broker keeps no session: whatever it should know is retained, and is told again with each connection. A message
// that announces more than three times the longest list ends the connection before memory is taken for it; one that is
// shorter, and no list, the user refuses.
//
// Connecting may take as long as the host's name service and TCP do; a signal without SA_RESTART ends the wait.
// Used by one thread.
class CBroker {
public:
    using CTime = std::chrono::steady_clock::time_point;

    // Both objects must outlive this one.
    CBroker(const SAgentConfig& config, CBrokerUser& user);
    ~CBroker();
    CBroker(const CBroker&) = delete;
    CBroker& operator=(const CBroker&) = delete;

    // Reads certificates, key and password. The result says what is wrong with them; empty: nothing. The
    // will is told on `willTopic`; empty: there is none.
    [[nodiscard]] std::string prepare(std::string willTopic);

    // Connects if that is due; then handles what comes, and waits for it at most so long.
    void turn(std::chrono::milliseconds wait);
    bool isConnected() const { return m_bConnected; }

    // False: there is no connection; it is not kept for the next.
    bool subscribe(const std::vector<std::string>& topics);
    bool publish(const std::string& topic, std::string_view text); // retained, told at least once
    size_t unsent() const { return m_vUnsent.size(); } // messages that the broker has not confirmed
    // Tells the last word, and ends the connection; takes two seconds at most.
    void leave(const std::string& topic, std::string_view text);

private:
    static CBroker& self(void* object) { return *static_cast<CBroker*>(object); }
    static void onConnect(mosquitto*, void* object, int reason, int flags, const mosquitto_property*);
    static void onDisconnect(mosquitto*, void* object, int reason, const mosquitto_property*);
    static void onSubscribe(mosquitto*, void* object, int id, int count, const int* granted,
                            const mosquitto_property*);
    static void onPublish(mosquitto*, void* object, int id, int reason, const mosquitto_property*);
    static void onMessage(mosquitto*, void* object, const mosquitto_message* message,
                          const mosquitto_property*);
    static void onLog(mosquitto*, void* object, int level, const char* text);

    static std::string wordOf(int result);
    std::string setTls();
    std::string setPassword();
    void connect();
    void lose(std::string why);
    void drive(std::chrono::milliseconds wait);

    const SAgentConfig& m_oConfig;
    CBrokerUser& m_oUser;
    std::string m_sWillTopic;
    mosquitto* m_pClient = nullptr;
    bool m_bConnected = false;
    bool m_bConnecting = false;              // the broker has not yet taken us in
    bool m_bNoMemory = false;                // for a message that came
    int m_nSubscribing = -1;                 // the request that is under way
    std::vector<std::string> m_vSubscribing; // what it asks for
    std::vector<std::pair<int, std::string>>
        m_vUnsent;         // messages that the broker has not confirmed, and their topics
    std::string m_sDetail; // what the library said of this connection's trouble
    std::chrono::milliseconds m_tPause{1000};
    CTime m_tDue{};
    CTime m_tConnected{};
    std::minstd_rand m_oChance;
};

#endif
