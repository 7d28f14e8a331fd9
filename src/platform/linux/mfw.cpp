// The message framework's C functions: the process's one endpoint, and its callbacks.
#include "platform/mfw.h"

#include "platform/linux/CMfwEndpoint.h"
#include "platform/linux/errors.h"

#include <algorithm>
#include <memory>
#include <sys/resource.h>
#include <unordered_map>

namespace {

// Where memory is exhausted, a loop around the receiving must not spin; but it is soon to try again.
constexpr uint32_t nPauseMs = 10;

constexpr int nMaxDraws = 8; // of a handle; even a second one is hardly ever needed

// Never destroyed, since another thread may end the process while this one waits for
// a message or delivers it.
struct SFramework {
    std::mutex m_oMutex; // not held while the endpoint sends or receives, nor while a callback runs
    std::shared_ptr<CMfwEndpoint> m_pEndpoint;
    uint32_t m_nHandle = OVU_MFW_NO_HANDLE; // drawn when it is first wanted
    pid_t m_nHandleOf = 0;                  // the process that has drawn it; a child of it draws anew
    std::unordered_map<uint16_t, OvuMfwCallback> m_oCallbacks;
};

[[gnu::hot]] SFramework& framework() {
    static SFramework& instance = *new SFramework;
    return instance;
}

// The caller shares ownership: if another thread cleans up meanwhile, the endpoint is closed at once, but
// destroyed only when the last operation has left it.
[[gnu::hot]] std::shared_ptr<CMfwEndpoint> currentEndpoint() {
    const std::lock_guard<std::mutex> guard(framework().m_oMutex);
    return framework().m_pEndpoint;
}

// Looked up for each message, for a callback may register and deregister. Type 0
// catches what has no callback.
OvuMfwCallback callbackFor(uint16_t type) {
    const std::lock_guard<std::mutex> guard(framework().m_oMutex);
    const auto& callbacks = framework().m_oCallbacks;
    auto found = callbacks.find(type);
    if (found == callbacks.end()) {
        found = callbacks.find(0);
    }
    return found == callbacks.end() ? nullptr : found->second;
}

// With the framework's mutex held. The process keeps its handle, also from one endpoint to the next: others
// may remember it.
uint32_t ownHandle() {
    SFramework& own = framework();
    if (own.m_nHandleOf != getpid()) {
        own.m_nHandle = drawMfwHandle();
        own.m_nHandleOf = getpid();
    }
    return own.m_nHandle;
}

// Each peer costs a descriptor, and the usual soft limit is 1024. So the process uses what the administrator
// allows (the hard limit). Fewer are no failure: sending then fails with EMFILE, and new peers wait.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// The mutex is held throughout: of two threads that initialise at the same moment, one opens the endpoint,
// and the other finds it open.
int openEndpoint() {
    const std::lock_guard<std::mutex> guard(framework().m_oMutex);
    if (framework().m_pEndpoint != nullptr) {
        return 0;
    }
    raiseDescriptorLimit();
    for (int attempt = 0;; ++attempt) {
        auto endpoint = std::make_shared<CMfwEndpoint>(ownHandle());
        const int error = endpoint->open(ownProcessName());
        if (error == 0) {
            framework().m_pEndpoint = std::move(endpoint);
        }
        if (error != EADDRINUSE || attempt == nMaxDraws) {
            return error;
        }
        framework().m_nHandleOf = 0; // taken by chance, so another is drawn
    }
}

// Takes the next message and makes its record. A large message whose memory file cannot be read is skipped:
// an error would help nobody, since its sender was told of a success long ago. The next one is taken within
// the same time.
int receiveRecord(uint32_t timeoutMs, SMfwMessage& message, CMfwRecord& record) {
    const CDeadline deadline(timeoutMs);
    const std::shared_ptr<CMfwEndpoint> endpoint = currentEndpoint();
    if (endpoint == nullptr) {
        deadline.sleep();
        return ENOTCONN;
    }
    int error = endpoint->receive(deadline, message, record);
    while (error == 0 && message.makeRecord(record) != 0) {
        error = endpoint->receive(deadline, message, record);
    }
    return error;
}

} // namespace

int OvuMfwInitialize(void) {
    return guarded(openEndpoint);
}

// Holds the framework's mutex while it closes the endpoint, so that a new one, opened by another thread at
// the same moment, finds the process's name free. A thread that waits in receive() is woken and returns.
int OvuMfwCleanup(void) {
    return guarded([] {
        const std::lock_guard<std::mutex> guard(framework().m_oMutex);
        framework().m_oCallbacks.clear();
        if (framework().m_pEndpoint != nullptr) {
            framework().m_pEndpoint->close();
            framework().m_pEndpoint.reset();
        }
        return 0;
    });
}

// Works without an endpoint of its own, as the contract promises: the runtime directory has all the names.
// Where there is none, nobody is to be found; who only asks does not make it, as its owner may be about to.
int OvuMfwGetProcessHandle(const char* processName, uint32_t* handle) {
    if (handle == nullptr) {
        return EINVAL;
    }
    if (processName == nullptr) {
        return guarded([&] {
            const std::lock_guard<std::mutex> guard(framework().m_oMutex);
            *handle = ownHandle();
            return 0;
        });
    }
    return guarded([&] {
        CRuntimeDirectory directory;
        const int error = directory.openExisting();
        return error != 0 ? error : findProcess(directory, processName, *handle);
    });
}

int OvuMfwRegisterCallback(uint16_t type, OvuMfwCallback callback) {
    if (callback == nullptr) {
        return EINVAL;
    }
    return guarded([&] {
        const std::lock_guard<std::mutex> guard(framework().m_oMutex);
        framework().m_oCallbacks[type] = callback;
        return 0;
    });
}

int OvuMfwDeregisterCallback(uint16_t type) {
    return guarded([&] {
        const std::lock_guard<std::mutex> guard(framework().m_oMutex);
        return framework().m_oCallbacks.erase(type) != 0 ? 0 : ENOENT;
    });
}

int OvuMfwSendMessage(uint32_t handle, uint16_t type, uint32_t userDefinedId, const sOvuMfwMessage* message,
                      uint32_t length) {
    if (handle == OVU_MFW_NO_HANDLE || (message == nullptr && length != 0)) {
        return EINVAL;
    }
    if (length > nMfwMaxBody) {
        return EMSGSIZE;
    }
    return guarded([&] {
        const std::shared_ptr<CMfwEndpoint> endpoint = currentEndpoint();
        if (endpoint == nullptr) {
            return ENOTCONN;
        }
        // By offset from the beginning: the body may go on past the array that the structure declares.
        const uint8_t* record = reinterpret_cast<const uint8_t*>(message);
        return endpoint->send(handle, type, userDefinedId,
                              length != 0 ? record + OVU_MFW_DATA_OFFSET : nullptr, length);
    });
}

// The callback runs without any lock, so it may call every function of the framework, a clean-up included.
// Message and record are on this stack, hence the contract's rule that a record is
// valid during the call only.
[[gnu::hot]] int OvuMfwProcessNextMessage(uint32_t timeoutMs) {
    SMfwMessage message;
    CMfwRecord record;
    if (const int error = guarded([&] { return receiveRecord(timeoutMs, message, record); })) {
        if (error == ENOMEM) {
            CDeadline(std::min(timeoutMs, nPauseMs)).sleep();
        }
        return error;
    }
    if (const OvuMfwCallback callback = callbackFor(message.m_nType)) {
        const void* start = record.data();
        callback(message.m_nType, message.m_nUserId, static_cast<const sOvuMfwMessage*>(start),
                 message.m_nLength);
    }
    return 0;
}

int OvuMfwGetDescriptor(int* descriptor) {
    const std::shared_ptr<CMfwEndpoint> endpoint = currentEndpoint();
    if (endpoint == nullptr || descriptor == nullptr) {
        return endpoint == nullptr ? ENOTCONN : EINVAL;
    }
    *descriptor = endpoint->descriptor();
    return 0;
}

int OvuMfwWatchProcess(const char* processName, uint32_t* changes) {
    return guarded([&] {
        const std::shared_ptr<CMfwEndpoint> endpoint = currentEndpoint();
        if (endpoint == nullptr || changes == nullptr) {
            return endpoint == nullptr ? ENOTCONN : EINVAL;
        }
        return endpoint->watchProcess(processName, *changes);
    });
}
