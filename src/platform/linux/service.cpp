// The service manager: a thread that waits for the signals that end a service and tells the callback.
#include "platform/service.h"

#include "platform/linux/errors.h"

#include <csignal>
#include <mutex>
#include <string>
#include <thread>

#ifdef QEL_HAVE_SYSTEMD
#include <chrono>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#endif

namespace {

#ifdef QEL_HAVE_SYSTEMD

using CClock = std::chrono::steady_clock;

constexpr const char* MANAGER_SOCKET = "unix:path=/run/systemd/private"; // open to root, needs no bus daemon
constexpr std::chrono::milliseconds ANSWER_TIME{500};                    // asking must not hold up the notice

void tellSystemd(const std::string& state) {
    sd_notify(0, state.c_str());
}

struct SAnswer {
    bool m_bCame = false;
    bool m_bStopping = false;
};

int onSystemState(sd_bus_message* message, void* context, sd_bus_error*) {
    auto* answer = static_cast<SAnswer*>(context);
    const char* state = nullptr;
    answer->m_bCame = true;
    if (sd_bus_message_is_method_error(message, nullptr) == 0 &&
        sd_bus_message_read(message, "v", "s", &state) > 0) {
        answer->m_bStopping = std::string("stopping") == state;
    }
    return 0;
}

// Works the bus until the answer came. The library's own waiting call is not used: its time limit does not
// cover the opening of the bus, and a bus that hangs then holds it for a minute and a half.
SAnswer awaitAnswer(sd_bus* bus, CClock::time_point end) {
    SAnswer answer;
    int status =
        sd_bus_call_method_async(bus, nullptr, "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                                 "org.freedesktop.DBus.Properties", "Get", onSystemState, &answer, "ss",
                                 "org.freedesktop.systemd1.Manager", "SystemState");
    while (status >= 0 && !answer.m_bCame) {
        status = sd_bus_process(bus, nullptr);
        if (status != 0) {
            continue;
        }
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(end - CClock::now()).count();
        if (left <= 0) {
            break;
        }
        status = sd_bus_wait(bus, static_cast<uint64_t>(left));
    }
    return answer;
}

int openManager(sd_bus** bus) {
    int status = sd_bus_new(bus);
    if (status >= 0) {
        status = sd_bus_set_address(*bus, MANAGER_SOCKET);
    }
    return status >= 0 ? sd_bus_start(*bus) : status;
}

SAnswer askForStop(int (*open)(sd_bus**), CClock::time_point end) {
    sd_bus* bus = nullptr;
    SAnswer answer;
    if (open(&bus) >= 0) {
        answer = awaitAnswer(bus, end);
    }
    sd_bus_close_unref(bus);
    return answer;
}

// The system manager itself first: at shutdown the bus daemon may be gone before us.
bool isHostGoingDown() {
    const CClock::time_point end = CClock::now() + ANSWER_TIME;
    const SAnswer answer = askForStop(openManager, end);
    return answer.m_bCame ? answer.m_bStopping : askForStop(sd_bus_open_system, end).m_bStopping;
}

#else

void tellSystemd(const std::string&) {}

bool isHostGoingDown() {
    return false;
}

#endif

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
