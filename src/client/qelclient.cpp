// The C interface: checks arguments, keeps callbacks and second threads out, and lets no exception through.
#include "client/qelclient.h"

#include "client/CQelClient.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

// The C header's opaque type is the client itself, so no pointer has to be cast.
struct qel_client : CQelClient {
    using CQelClient::CQelClient;
};

namespace {

// The framework gives a process one endpoint, and a client takes all of it.
std::atomic<bool> bOpen{false};

struct SLeave {
    void operator()(qel_client* client) const { client->m_bBusy = false; }
};

// Runs `work` inside the client unless somebody is there already: another thread, or the call whose callback
// this is. The flag refuses instead of waiting, because a callback would wait for its own caller. The library
// itself throws only where memory runs out; a C caller could not catch it.
template <typename Work>
int enter(qel_client* client, Work work) {
    if (!client) {
        return QEL_EINVAL;
    }
    if (client->m_bBusy.exchange(true)) {
        return QEL_EBUSY;
    }
    // However the call ends, also where a callback ends the thread.
    const std::unique_ptr<qel_client, SLeave> leave(client);
    try {
        return work();
    } catch (const std::bad_alloc&) {
        return QEL_ENOMEM;
    }
}

// The daemon does not store a longer name, and answers no message without one.
bool isName(const char* name) {
    size_t length = name ? strnlen(name, nMaxNameLength + 1) : 0;
    return length >= 1 && length <= nMaxNameLength;
}

// What a caller that knows more than this library has set must not be passed over in silence.
bool isKnown(const qel_options& options) {
    const auto* bytes = reinterpret_cast<const char*>(&options);
    return options.size >= sizeof options && options.reserved == 0 &&
           std::all_of(bytes + sizeof options, bytes + options.size, [](char byte) { return byte == 0; });
}

int openClient(const char* name, const qel_options& options, qel_client** client) {
    auto fresh = std::make_unique<qel_client>(name, options);
    if (!fresh->open()) {
        return QEL_EPLATFORM;
    }
    *client = fresh.release();
    return QEL_OK;
}

} // namespace

static_assert(std::string_view(QEL_VERSION) == QEL_PROJECT_VERSION, "the header's must follow the project's");

// The C header cannot include the wire layouts, so its limits are compared with them here.
static_assert(QEL_MAX_NAME == nMaxNameLength && QEL_MAX_ANNOUNCED == nMaxKnownPairs &&
              QEL_TEXT_SIZE == nMaxReplyTextLength + 1);

int qel_open(const char* name, const qel_options* options, qel_client** client) {
    if (!isName(name) || !client || (options && !isKnown(*options))) {
        return QEL_EINVAL;
    }
    // Claimed before anything is opened, so that of two threads one is refused.
    if (bOpen.exchange(true)) {
        return QEL_EBUSY;
    }
    int rc = QEL_ENOMEM;
    try {
        rc = openClient(name, options ? *options : qel_options{}, client);
    } catch (const std::bad_alloc&) {
    }
    // A failed attempt makes room for the next one.
    bOpen = rc == QEL_OK;
    return rc;
}

int qel_hold(qel_client* client, uint32_t code, uint32_t data) {
    if (code == 0 && data == 0) {
        return QEL_EINVAL;
    }
    return enter(client, [&] { return client->hold({code, data}); });
}

int qel_announce(qel_client* client, int timeout_ms) {
    return enter(client, [&] { return client->announce(timeout_ms); });
}

int qel_fetch(qel_client* client, int timeout_ms) {
    return enter(client, [&] { return client->fetch(timeout_ms); });
}

int qel_monitor(qel_client* client, int timeout_ms) {
    return enter(client, [&] { return client->monitor(timeout_ms); });
}

int qel_wait(qel_client* client, int timeout_ms) {
    return enter(client, [&] { return client->wait(timeout_ms); });
}

int qel_run(qel_client* client, int timeout_ms) {
    return enter(client, [&] { return client->run(timeout_ms); });
}

int qel_dispatch(qel_client* client, int* next_ms) {
    return enter(client, [&] { return client->dispatch(next_ms); });
}

int qel_fd(const qel_client* client) {
    if (!client) {
        return QEL_EINVAL;
    }
    return client->descriptor() >= 0 ? client->descriptor() : QEL_EPLATFORM;
}

// A store into an atomic flag and a write(2), so it is safe in a signal handler (signal-safety(7)).
void qel_stop(qel_client* client) {
    if (client) {
        client->stop();
    }
}

int qel_shutdown(qel_client* client, const char* text) {
    return enter(client, [&] { return client->shutdown(text); });
}

void qel_close(qel_client* client) {
    // The flag stays set: it goes with the client. Where it is set already, a callback or another thread is
    // inside, and deleting the client would pull the ground from under it.
    if (client && !client->m_bBusy.exchange(true)) {
        // In this order: the endpoint must be closed before another client may open it.
        delete client;
        bOpen = false;
    }
}

// The queries take no flag, since callbacks may use them.
int qel_features(const qel_client* client, qel_pair* pairs, size_t room) {
    if (!client || (!pairs && room)) {
        return QEL_EINVAL;
    }
    try {
        const auto features = client->table().list(room);
        std::transform(features.begin(), features.end(), pairs, [](const SFeature& feature) {
            return qel_pair{feature.m_nCode, feature.m_nData};
        });
    } catch (const std::bad_alloc&) {
        return QEL_ENOMEM;
    }
    return static_cast<int>(client->table().size());
}

int qel_state(const qel_client* client) {
    return client ? client->state() : QEL_EINVAL;
}

const char* qel_version(void) {
    return QEL_VERSION;
}

const char* qel_strerror(int error) {
    switch (error) {
    case QEL_EINVAL:
        return "invalid argument";
    case QEL_EBUSY:
        return "the client is in use";
    case QEL_EPLATFORM:
        return "no endpoint on the message framework";
    case QEL_ENODAEMON:
        return "the daemon is not running";
    case QEL_ETIMEDOUT:
        return "the daemon did not answer in time";
    case QEL_ESTOPPED:
        return "stopped";
    case QEL_ENOMEM:
        return "out of memory";
    case QEL_EREPLACED:
        return "another process has taken the name";
    default:
        return error >= 0 ? "success" : "unknown error";
    }
}
