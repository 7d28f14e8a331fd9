// libqelclient for C++: qelclient.h with ownership. What the functions do, their times, results and threads
// is told there; this page tells what is different.
//
//     qel::Options options;
//     options.notify = [](const qel::Notification& change, std::string& text) {
//         return take(change.code, change.data) ? qel::Answer::ok : qel::Answer::refused;
//     };
//     qel::Client client;
//     int rc = client.open("Voice", std::move(options));
//     if (rc == 0) rc = client.run();   // until somebody calls client.stop()
//     client.shutdown("good night");
//
// Header only, C++17. Link libqelclient as from C.
//
// Errors: nothing here throws an error of its own, since a component must live with most of them. Results
// are those of the C functions: 0 or a count is success, a negative number is one of QEL_E..., which
// qel::error() puts in words. All but that of shutdown() are [[nodiscard]]. Exhausted memory is QEL_ENOMEM;
// only features() and what the caller does himself may throw std::bad_alloc.
//
// Ownership: a Client owns its qel_client and what was given to it in Options, from open() until close(),
// the destructor, or a move away from it. It can be moved while nobody is inside it, that is neither in a
// callback nor on another thread. There is one open client in a process. The destructor tells the daemon
// nothing, as qel_close does: call shutdown() before.
//
// Threads: as for the C functions; stop() alone may be called from any thread and from a signal handler,
// while the client is open.
#ifndef QEL_CLIENT_QELCLIENT_HPP
#define QEL_CLIENT_QELCLIENT_HPP

#include "qelclient.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qel {

// With the members of the C structure: kind (QEL_ENABLE to QEL_OVERDUE), code, data, new_data, fetched.
using Notification = qel_notification;

// A feature held: code and data.
using Pair = qel_pair;

enum class Answer { ok = QEL_OK, refused = QEL_REFUSED, no_reply = QEL_NO_REPLY };

enum class State {
    seeking = QEL_STATE_SEEKING,
    announced = QEL_STATE_ANNOUNCED,
    fetched = QEL_STATE_FETCHED,
    monitoring = QEL_STATE_MONITORING
};

// How long a call may take. Whole milliseconds; what is longer than 24 days counts as that.
using Time = std::chrono::milliseconds;
inline constexpr Time forever{QEL_FOREVER};

// As in struct qel_options. Empty functions count as null.
struct Options {
    // Called for every change; `text` is empty, and what is in it afterwards goes to the daemon's log, cut at
    // QEL_TEXT_SIZE - 1 bytes, and at its first NUL. What it throws counts as refused.
    std::function<Answer(const Notification& change, std::string& text)> notify;
    // Sees every message as it is sent (true) or received. `body` is valid during the call.
    // What it throws is lost.
    std::function<void(bool sent, const std::uint8_t* body, std::size_t length)> trace;
    Time answer_timeout{0}; // 0: the default. Up to 49 days
    bool notify_unchanged = false;
};

// In words, without a full stop; static.
inline const char* error(int result) noexcept {
    return qel_strerror(result);
}

// Of the library, while QEL_VERSION is that of the header; static.
inline const char* version() noexcept {
    return qel_version();
}

// Where no client is open, the calls return QEL_EINVAL.
class Client {
public:
    Client() noexcept = default;
    ~Client() { close(); }
    Client(Client&& other) noexcept
        : m_client(std::exchange(other.m_client, nullptr)), m_options(std::move(other.m_options)) {}
    Client& operator=(Client&& other) noexcept {
        if (this != &other) {
            close();
            m_client = std::exchange(other.m_client, nullptr);
            m_options = std::move(other.m_options);
        }
        return *this;
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // As qel_open. QEL_EBUSY also if this client is open already.
    [[nodiscard]] int open(const std::string& name, Options options = {}) noexcept {
        if (m_client != nullptr) {
            return QEL_EBUSY;
        }
        std::unique_ptr<Options> kept(new (std::nothrow) Options(std::move(options)));
        if (kept == nullptr) {
            return QEL_ENOMEM;
        }
        if (kept->answer_timeout.count() < 0 || kept->answer_timeout.count() > UINT32_MAX) {
            return QEL_EINVAL;
        }
        qel_options raw{};
        raw.size = sizeof raw;
        raw.answer_timeout_ms = static_cast<std::uint32_t>(kept->answer_timeout.count());
        raw.notify = kept->notify ? notified : nullptr;
        raw.trace = kept->trace ? traced : nullptr;
        raw.user = kept.get();
        raw.notify_unchanged = kept->notify_unchanged ? 1 : 0;
        const int rc = qel_open(name.c_str(), &raw, &m_client);
        if (rc == 0) {
            m_options = std::move(kept);
        }
        return rc;
    }
    // As qel_close. Harmless if nothing is open. Not from a callback.
    void close() noexcept {
        qel_close(std::exchange(m_client, nullptr));
        m_options.reset();
    }
    bool is_open() const noexcept { return m_client != nullptr; }

    [[nodiscard]] int hold(std::uint32_t code, std::uint32_t data) noexcept {
        return qel_hold(m_client, code, data);
    }
    [[nodiscard]] int announce(Time timeout = forever) noexcept {
        return qel_announce(m_client, limit(timeout));
    }
    [[nodiscard]] int fetch(Time timeout = forever) noexcept { return qel_fetch(m_client, limit(timeout)); }
    [[nodiscard]] int monitor(Time timeout = forever) noexcept {
        return qel_monitor(m_client, limit(timeout));
    }
    [[nodiscard]] int wait(Time timeout = forever) noexcept { return qel_wait(m_client, limit(timeout)); }
    [[nodiscard]] int run(Time timeout = forever) noexcept { return qel_run(m_client, limit(timeout)); }

    // For the caller's own poll loop. `next` is set with a result of 0 or more.
    [[nodiscard]] int fd() const noexcept { return qel_fd(m_client); }
    [[nodiscard]] int dispatch(Time& next) noexcept {
        int ms = 0;
        const int rc = qel_dispatch(m_client, &ms);
        if (rc >= 0) {
            next = Time(ms);
        }
        return rc;
    }

    void stop() noexcept { qel_stop(m_client); }
    int shutdown(const std::string& text = {}) noexcept { return qel_shutdown(m_client, text.c_str()); }

    // Nothing if no client is open, or where memory is exhausted in the library. May throw std::bad_alloc.
    [[nodiscard]] std::optional<std::vector<Pair>> features() const {
        const int count = qel_features(m_client, nullptr, 0);
        if (count < 0) {
            return std::nullopt;
        }
        std::vector<Pair> pairs(static_cast<std::size_t>(count));
        if (qel_features(m_client, pairs.data(), pairs.size()) < 0) {
            return std::nullopt;
        }
        return pairs;
    }
    // seeking, if no client is open.
    [[nodiscard]] State state() const noexcept {
        const int state = qel_state(m_client);
        return state < 0 ? State::seeking : static_cast<State>(state);
    }

    // For calls of the C interface; it stays the client's. Null: none is open.
    qel_client* get() const noexcept { return m_client; }

private:
    static int limit(Time timeout) noexcept {
        return timeout.count() < 0           ? int{QEL_FOREVER}
               : timeout.count() > INT32_MAX ? INT32_MAX
                                             : static_cast<int>(timeout.count());
    }
    // Exceptions go on into the library, which knows what to do with them.
    static int notified(void* user, const qel_notification* change, char* text) {
        std::string words;
        const Answer answer = static_cast<Options*>(user)->notify(*change, words);
        text[words.copy(text, QEL_TEXT_SIZE - 1)] = '\0';
        return static_cast<int>(answer);
    }
    static void traced(void* user, int sent, const std::uint8_t* body, std::size_t length) {
        static_cast<Options*>(user)->trace(sent != 0, body, length);
    }

    qel_client* m_client = nullptr;
    std::unique_ptr<Options> m_options; // at a place of its own: the library calls back with its address
};

} // namespace qel

#endif
