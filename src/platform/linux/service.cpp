// The service manager: a thread that waits for the signals that end a service, and calls the callback for
// each. A thread and not signal handlers: a handler may call next to nothing (signal-safety(7)), while the
// callback logs, closes the endpoint and ends the process.
#include "platform/service.h"

#include "platform/linux/errors.h"
#include "platform/linux/systemd.h"

#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <thread>

namespace {

sigset_t serviceSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGPWR);
    return signals;
}

// SIGINT comes from somebody at the keyboard, SIGPWR from a failing power supply. SIGTERM may mean either, as
// systemd sends it to stop one service and to shut down the host: hence the question.
uint32_t notice(int signal) {
    const bool shutdown = signal == SIGPWR || (signal == SIGTERM && isHostGoingDown());
    return shutdown ? OVU_CALLBACK_NOTIFY_SERVICE_SHUTDOWN : OVU_CALLBACK_NOTIFY_SERVICE_STOP;
}

// Never returns. The callback may return, and is then called for the next signal as well; one that arrives
// while it runs stays pending. "STOPPING=1" goes out first, since notice() may take half
// a second to ask systemd.
void watch(OvuServiceCallback callback) {
    const sigset_t signals = serviceSignals();
    for (;;) {
        const int signal = sigwaitinfo(&signals, nullptr);
        if (signal > 0) {
            tellSystemd("STOPPING=1");
            callback(notice(signal));
        }
    }
}

// Threads inherit the mask, so in every thread that starts after this the signals are blocked and wait for
// the watching thread; a thread that had them unblocked would get them instead. The mask comes before the
// thread, or a signal in between would end the process in the default way. Without the thread, nobody would
// take the signals, so the mask is restored and the process can still be ended by them.
int start(OvuServiceCallback callback) {
    const sigset_t signals = serviceSignals();
    sigset_t before;
    if (const int error = pthread_sigmask(SIG_BLOCK, &signals, &before)) {
        return errorNumber(error);
    }
    try {
        std::thread(watch, callback).detach();
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        return EAGAIN;
    }
    return 0;
}

} // namespace

int OvuServiceStartService(const char* name, uint32_t /*first*/, uint32_t /*second*/,
                           OvuServiceCallback callback, uint32_t /*third*/) {
    if (name == nullptr || callback == nullptr) {
        return EINVAL;
    }
    return guarded([&] {
        // Never destroyed, since another thread may be ending the process. Only a success counts: after a
        // failure the caller may try again.
        static std::mutex& once = *new std::mutex;
        static bool started = false;
        const std::lock_guard<std::mutex> guard(once);
        if (started) {
            return EALREADY;
        }
        const int error = start(callback);
        started = error == 0;
        return error;
    });
}

// EXTEND_TIMEOUT_USEC is a new limit, counted from now, and systemd takes the later of this and its own.
void OvuServiceReport(uint32_t state, const char* text, uint32_t timeMs) {
    char message[256];
    if (state == OVU_SERVICE_READY) {
        std::snprintf(message, sizeof message, "READY=1\nSTATUS=%s", text);
    } else {
        std::snprintf(message, sizeof message, "STATUS=%s\nEXTEND_TIMEOUT_USEC=%" PRIu64, text,
                      uint64_t{timeMs} * 1000);
    }
    tellSystemd(message);
}

[[gnu::hot]] void OvuServiceAlive() {
    feedWatchdog();
}
