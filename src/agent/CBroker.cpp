#include "agent/CBroker.h"

#include "agent/tls_files.h"
#include "source/list/whole_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <fstream>
#include <mqtt_protocol.h>
#include <new>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr int nKeepAlive = 60; // seconds; after half as many more the broker tells our will
constexpr auto tShortestPause = 1s;
constexpr auto tLongestPause = 5min;
constexpr auto tSteady = 1min;
constexpr auto tLastWord = 2s;
constexpr int nAtLeastOnce = 1;
constexpr size_t nMaxPassword = 65535; // the protocol's limit

// While it lives, the process gets no more memory than a message with the longest list takes, as the library
// holds it and as the user copies it. The library allocates whatever size a message announces, up to 256 MiB,
// and has no limit of its own for what comes from a broker.
class CMessageLimit {
public:
    CMessageLimit() {
        std::ifstream pages("/proc/self/statm"); // proc(5): the sixth number is data and stack
        rlim_t used = 0;
        for (int number = 0; number < 6; ++number) {
            pages >> used;
        }
        if (pages && getrlimit(RLIMIT_DATA, &m_oBefore) == 0) {
            const rlim_t most = used * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) +
                                3 * rlim_t{nMaxListFileSize} + nForTheRest;
            const rlimit limit{std::min(most, m_oBefore.rlim_max), m_oBefore.rlim_max};
            m_bSet = setrlimit(RLIMIT_DATA, &limit) == 0;
        }
    }
    ~CMessageLimit() {
        if (m_bSet) {
            setrlimit(RLIMIT_DATA, &m_oBefore);
        }
    }
    CMessageLimit(const CMessageLimit&) = delete;
    CMessageLimit& operator=(const CMessageLimit&) = delete;

private:
    static constexpr rlim_t nForTheRest = rlim_t{4} * 1024 * 1024; // the topic, what TLS holds, and slack

    rlimit m_oBefore{};
    bool m_bSet = false;
};

} // namespace

CBroker::CBroker(const SAgentConfig& config, CBrokerUser& user)
    : m_oConfig(config), m_oUser(user), m_oChance(std::random_device{}()) {
    mosquitto_lib_init();
}

CBroker::~CBroker() {
    mosquitto_destroy(m_pClient);
    mosquitto_lib_cleanup();
}

// The word for what the library returned, or gave as the reason: an error of its own, of the
// system or of the protocol.
std::string CBroker::wordOf(int result) {
    if (result >= MQTT_RC_UNSPECIFIED) {
        return mosquitto_reason_string(result);
    }
    if (result == MOSQ_ERR_ERRNO && errno != 0) {
        return std::strerror(errno);
    }
    const bool isBroken = result == MOSQ_ERR_ERRNO || result == MOSQ_ERR_CONN_LOST;
    return isBroken                     ? "the connection broke"
           : result == MOSQ_ERR_SUCCESS ? "the broker ended the connection"
                                        : mosquitto_strerror(result);
}

std::string CBroker::prepare(std::string willTopic) {
    m_sWillTopic = std::move(willTopic);
    const std::string id = fmt::format("qel-{}-{}", m_oConfig.m_sFleet, m_oConfig.m_sAppliance);
    m_pClient = mosquitto_new(id.c_str(), true, this);
    if (m_pClient == nullptr) {
        return std::strerror(errno);
    }
    mosquitto_int_option(m_pClient, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_connect_v5_callback_set(m_pClient, onConnect);
    mosquitto_disconnect_v5_callback_set(m_pClient, onDisconnect);
    mosquitto_subscribe_v5_callback_set(m_pClient, onSubscribe);
    mosquitto_publish_v5_callback_set(m_pClient, onPublish);
    mosquitto_message_v5_callback_set(m_pClient, onMessage);
    mosquitto_log_callback_set(m_pClient, onLog);
    std::string trouble = setPassword();
    return trouble.empty() ? setTls() : trouble;
}

std::string CBroker::setPassword() {
    std::string password;
    if (!m_oConfig.m_sPasswordFile.empty()) {
        SWholeFile file = readWholeFile(m_oConfig.m_sPasswordFile, nMaxPassword);
        if (!file.m_sError.empty()) {
            return fmt::format("{}: {}", m_oConfig.m_sPasswordFile, file.m_sError);
        }
        password = file.m_sText.substr(0, file.m_sText.find_first_of("\r\n"));
    }
    const int result =
        m_oConfig.m_sUser.empty()
            ? MOSQ_ERR_SUCCESS
            : mosquitto_username_pw_set(m_pClient, m_oConfig.m_sUser.c_str(), password.c_str());
    return result == MOSQ_ERR_SUCCESS ? "" : wordOf(result);
}

// The library reads the files with each connection, and says no more than that TLS failed: so they are looked
// at here.
std::string CBroker::setTls() {
    if (!m_oConfig.isEncrypted()) {
        return "";
    }
    if (std::string trouble = checkTlsFiles(m_oConfig); !trouble.empty()) {
        return trouble;
    }
    const int result = mosquitto_tls_set(m_pClient, m_oConfig.m_sAuthority.c_str(), nullptr,
                                         m_oConfig.m_sCertificate.c_str(), m_oConfig.m_sKey.c_str(), nullptr);
    return result == MOSQ_ERR_SUCCESS ? "" : wordOf(result);
}

void CBroker::turn(std::chrono::milliseconds wait) {
    const CTime now = std::chrono::steady_clock::now();
    if (!m_bConnected && !m_bConnecting && now >= m_tDue) {
        connect();
    }
    drive(wait);
}

void CBroker::connect() {
    m_bConnecting = true;
    m_sDetail.clear();
    if (!m_sWillTopic.empty()) {
        const std::string will = m_oUser.will();
        mosquitto_will_set_v5(m_pClient, m_sWillTopic.c_str(), static_cast<int>(will.size()), will.data(),
                              nAtLeastOnce, true, nullptr);
    }
    const int result =
        mosquitto_connect_bind_v5(m_pClient, m_oConfig.m_sHost.c_str(), static_cast<int>(m_oConfig.m_nPort),
                                  nKeepAlive, nullptr, nullptr);
    if (result != MOSQ_ERR_SUCCESS) {
        lose(wordOf(result));
    }
}

// One wait for the socket and one pass of the library over it.
void CBroker::drive(std::chrono::milliseconds wait) {
    pollfd entry{mosquitto_socket(m_pClient), POLLIN, 0};
    if (entry.fd >= 0 && mosquitto_want_write(m_pClient)) {
        entry.events |= POLLOUT;
    }
    poll(&entry, entry.fd >= 0 ? 1 : 0, static_cast<int>(wait.count()));
    if (entry.fd < 0) {
        return;
    }
    int result = MOSQ_ERR_SUCCESS;
    if ((entry.revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
        const CMessageLimit limit;
        result = mosquitto_loop_read(m_pClient, 1);
    }
    if (result == MOSQ_ERR_SUCCESS && (entry.revents & POLLOUT) != 0) {
        result = mosquitto_loop_write(m_pClient, 1);
    }
    if (result == MOSQ_ERR_SUCCESS) {
        result = mosquitto_loop_misc(m_pClient);
    }
    if (m_bNoMemory) { // the broker sends it again
        mosquitto_disconnect_v5(m_pClient, MQTT_RC_QUOTA_EXCEEDED, nullptr);
        result = MOSQ_ERR_NOMEM;
        m_bNoMemory = false;
    }
    if (result != MOSQ_ERR_SUCCESS && (m_bConnected || m_bConnecting)) {
        lose(wordOf(result));
    }
}

void CBroker::lose(std::string why) {
    const CTime now = std::chrono::steady_clock::now();
    if (m_bConnected && now - m_tConnected >= tSteady) {
        m_tPause = tShortestPause;
    }
    m_tDue = now + m_tPause / 2 + m_tPause / 2 * static_cast<int>(m_oChance() % 1024) / 1024;
    m_tPause = std::min<std::chrono::milliseconds>(2 * m_tPause, tLongestPause);
    m_bConnected = false;
    m_bConnecting = false;
    m_vUnsent.clear();
    if (!m_sDetail.empty()) {
        why += " (" + m_sDetail + ")";
    }
    m_oUser.onLost(why);
}

bool CBroker::subscribe(const std::vector<std::string>& topics) {
    std::vector<char*> names;
    names.reserve(topics.size());
    for (const std::string& topic : topics) {
        names.push_back(const_cast<char*>(topic.c_str())); // the library's interface lacks the const
    }
    m_vSubscribing = topics;
    return m_bConnected &&
           mosquitto_subscribe_multiple(m_pClient, &m_nSubscribing, static_cast<int>(names.size()),
                                        names.data(), nAtLeastOnce, 0, nullptr) == MOSQ_ERR_SUCCESS;
}

bool CBroker::publish(const std::string& topic, std::string_view text) {
    int id = 0;
    if (!m_bConnected || mosquitto_publish_v5(m_pClient, &id, topic.c_str(), static_cast<int>(text.size()),
                                              text.data(), nAtLeastOnce, true, nullptr) != MOSQ_ERR_SUCCESS) {
        return false;
    }
    m_vUnsent.emplace_back(id, topic);
    return true;
}

void CBroker::leave(const std::string& topic, std::string_view text) {
    if (!publish(topic, text)) {
        return;
    }
    const CTime end = std::chrono::steady_clock::now() + tLastWord;
    while (m_bConnected && !m_vUnsent.empty() && std::chrono::steady_clock::now() < end) {
        drive(100ms);
    }
    m_bConnected = false; // no loss
    mosquitto_disconnect_v5(m_pClient, MQTT_RC_NORMAL_DISCONNECTION, nullptr);
    drive(100ms);
}

void CBroker::onConnect(mosquitto*, void* object, int reason, int, const mosquitto_property*) {
    CBroker& broker = self(object);
    if (reason != 0) {
        broker.lose(fmt::format("the broker refuses: {}", mosquitto_reason_string(reason)));
        return;
    }
    broker.m_bConnecting = false;
    broker.m_bConnected = true;
    broker.m_tConnected = std::chrono::steady_clock::now();
    broker.m_oUser.onConnected();
}

void CBroker::onDisconnect(mosquitto*, void* object, int reason, const mosquitto_property*) {
    CBroker& broker = self(object);
    if (broker.m_bConnected || broker.m_bConnecting) {
        broker.lose(reason >= MQTT_RC_UNSPECIFIED ? mosquitto_reason_string(reason) : wordOf(reason));
    }
}

void CBroker::onSubscribe(mosquitto*, void* object, int id, int count, const int* granted,
                          const mosquitto_property*) {
    CBroker& broker = self(object);
    if (id != broker.m_nSubscribing) {
        return;
    }
    for (size_t i = 0; i < std::min(static_cast<size_t>(count), broker.m_vSubscribing.size()); ++i) {
        if (granted[i] >= MQTT_RC_UNSPECIFIED) {
            broker.m_oUser.onDenied(fmt::format("{} may not be read: {}", broker.m_vSubscribing[i],
                                                mosquitto_reason_string(granted[i])));
        }
    }
    broker.m_oUser.onSubscribed();
}

void CBroker::onPublish(mosquitto*, void* object, int id, int reason, const mosquitto_property*) {
    std::vector<std::pair<int, std::string>>& unsent = self(object).m_vUnsent;
    const auto told = std::ranges::find(unsent, id, &std::pair<int, std::string>::first);
    if (told == unsent.end()) {
        return;
    }
    if (reason >= MQTT_RC_UNSPECIFIED) {
        self(object).m_oUser.onDenied(
            fmt::format("{} may not be written: {}", told->second, mosquitto_reason_string(reason)));
    }
    unsent.erase(told);
}

// The reasons of TLS are told nowhere else; the first says most.
void CBroker::onLog(mosquitto*, void* object, int level, const char* text) {
    if (level == MOSQ_LOG_ERR && self(object).m_sDetail.empty()) {
        self(object).m_sDetail = text;
    }
}

void CBroker::onMessage(mosquitto*, void* object, const mosquitto_message* message,
                        const mosquitto_property*) {
    CBroker& broker = self(object);
    try {
        broker.m_oUser.onMessage(message->topic, {static_cast<const char*>(message->payload),
                                                  static_cast<size_t>(message->payloadlen)});
    } catch (const std::bad_alloc&) { // it must not pass through the library
        broker.m_bNoMemory = true;
    }
}
