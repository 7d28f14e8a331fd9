// The service manager: a thread that waits for the signals that end a service and tells the callback.
#include "platform/service.h"

#include "platform/linux/errors.h"
#include "platform/linux/systemd.h"

#include <csignal>
#include <mutex>
#include <string>
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

// SIGINT is somebody at the keyboard, SIGPWR the power; SIGTERM is sent for both reasons.
uint32_t notice(int signal) {
    const bool shutdown = signal == SIGPWR || (signal == SIGTERM && isHostGoingDown());
    return shutdown ? OVU_CALLBACK_NOTIFY_SERVICE_SHUTDOWN : OVU_CALLBACK_NOTIFY_SERVICE_STOP;
}

// Never returns. The callback may: then the next signal is told as well.
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

// Every thread that is started after this has the signals blocked, so that they wait for the watching thread.
int start(const char* name, OvuServiceCallback callback) {
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
    tellSystemd(std::string("READY=1\nSTATUS=") + name + " runs");
    return 0;
}

} // namespace

int OvuServiceStartService(const char* name, uint32_t /*first*/, uint32_t /*second*/,
                           OvuServiceCallback callback, uint32_t /*third*/) {
    if (name == nullptr || callback == nullptr) {
        return EINVAL;
    }
    return guarded([&] {
        static std::mutex& once = *new std::mutex;
        static bool started = false;
        const std::lock_guard<std::mutex> guard(once);
        if (started) {
            return EALREADY;
        }
        const int error = start(name, callback);
        started = error == 0;
        return error;
    });
}
