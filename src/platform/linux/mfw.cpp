// The message framework's C functions: the process's one endpoint, and its callbacks.
#include "platform/mfw.h"

#include "platform/linux/CMfwEndpoint.h"
#include "platform/linux/errors.h"

#include <memory>
#include <sys/resource.h>

namespace {

// Never destroyed: another thread may be ending the process while a message is waited for or delivered.
struct SFramework {
    std::mutex m_oMutex; // not held while an endpoint's operation runs
    std::shared_ptr<CMfwEndpoint> m_pEndpoint;
    std::unordered_map<uint16_t, OvuMfwCallback> m_oCallbacks;
};

SFramework& framework() {
    static SFramework& instance = *new SFramework;
    return instance;
}

std::shared_ptr<CMfwEndpoint> currentEndpoint() {
    const std::lock_guard<std::mutex> guard(framework().m_oMutex);
    return framework().m_pEndpoint;
}

OvuMfwCallback callbackFor(uint16_t type) {
    const std::lock_guard<std::mutex> guard(framework().m_oMutex);
    const auto& callbacks = framework().m_oCallbacks;
    auto found = callbacks.find(type);
    if (found == callbacks.end()) {
        found = callbacks.find(0);
    }
    return found == callbacks.end() ? nullptr : found->second;
}

uint32_t ownHandle() {
    return static_cast<uint32_t>(getpid());
}

// Each peer costs a descriptor. What the administrator allows is used; that it may be less is no failure
// here.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int openEndpoint() {
    const std::lock_guard<std::mutex> guard(framework().m_oMutex);
    if (framework().m_pEndpoint != nullptr) {
        return 0;
    }
    raiseDescriptorLimit();
    auto endpoint = std::make_shared<CMfwEndpoint>(ownHandle());
    const int error = endpoint->open(ownProcessName());
    if (error == 0) {
        framework().m_pEndpoint = std::move(endpoint);
    }
    return error;
}

// Takes the next message and makes its record. A message whose file cannot be read is passed over.
int receiveRecord(uint32_t timeoutMs, SMfwMessage& message, CMfwRecord& record) {
    const CDeadline deadline(timeoutMs);
    const std::shared_ptr<CMfwEndpoint> endpoint = currentEndpoint();
    if (endpoint == nullptr) {
        deadline.sleep();
        return ENOTCONN;
    }
    int error = endpoint->receive(deadline, message);
    while (error == 0 && message.makeRecord(record) != 0) {
        error = endpoint->receive(deadline, message);
    }
    return error;
}

} // namespace

int OvuMfwInitialize(void) {
    return guarded(openEndpoint);
}

// The endpoint is closed with the framework's mutex held, so that one that is opened at once finds the name
// free.
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

int OvuMfwGetProcessHandle(const char* processName, uint32_t* handle) {
    if (handle == nullptr) {
        return EINVAL;
    }
    if (processName == nullptr) {
        *handle = ownHandle();
        return 0;
    }
    return guarded([&] {
        CRuntimeDirectory directory;
        const int error = directory.open();
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
    if (length > MFW_MAX_BODY) {
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

int OvuMfwProcessNextMessage(uint32_t timeoutMs) {
    SMfwMessage message;
    CMfwRecord record;
    if (const int error = guarded([&] { return receiveRecord(timeoutMs, message, record); })) {
        return error;
    }
    if (const OvuMfwCallback callback = callbackFor(message.m_nType)) {
        const void* start = record.data();
        callback(message.m_nType, message.m_nUserId, static_cast<const sOvuMfwMessage*>(start),
                 message.m_nLength);
    }
    return 0;
}
