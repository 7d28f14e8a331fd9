#include "fake/fake_platform.h"

#include "base/clock.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

CFakePlatform& fake() {
    return CFakePlatform::get();
}

uint32_t fakeSeconds() {
    return static_cast<uint32_t>(fake().m_nMicroseconds / 1000000);
}

timeval fakeTimeOfDay() {
    timeval now{};
    now.tv_sec = static_cast<time_t>(fake().m_nMicroseconds / 1000000);
    now.tv_usec = static_cast<suseconds_t>(fake().m_nMicroseconds % 1000000);
    return now;
}

constexpr SClock oFakeClock{fakeSeconds, fakeTimeOfDay};

} // namespace

CFakePlatform& CFakePlatform::get() {
    static auto* const platform = new CFakePlatform;
    return *platform;
}

void CFakePlatform::reset() {
    *this = CFakePlatform();
    m_nMicroseconds = uint64_t{1000000} * 1000000;
    useClock(oFakeClock);
}

void CFakePlatform::fail(const std::string& function, int error, int nth, int times) {
    m_oFailures[function] = {m_oCalls[function] + nth, times, error};
}

int CFakePlatform::callsOf(const std::string& function) const {
    auto calls = m_oCalls.find(function);
    return calls != m_oCalls.end() ? calls->second : 0;
}

int CFakePlatform::enter(const std::string& function) {
    const int call = ++m_oCalls[function];
    auto failure = m_oFailures.find(function);
    const bool isFailing = failure != m_oFailures.end() && call >= failure->second.m_nFrom &&
                           call < failure->second.m_nFrom + failure->second.m_nTimes;
    return isFailing ? failure->second.m_nError : 0;
}

void CFakePlatform::deliver(uint16_t type, std::string_view body) {
    m_vIncoming.emplace_back(type, body);
}

void CFakePlatform::handOver(OvuMfwCallback callback, uint16_t type, std::string_view body, uint32_t sender) {
    const size_t size = std::max(sizeof(sOvuMfwMessage), OVU_MFW_DATA_OFFSET + body.size());
    const std::unique_ptr<uint8_t[]> record(new uint8_t[size]());
    for (size_t i = 0; i < 4; ++i) {
        record[20 + i] = static_cast<uint8_t>(sender >> (24 - 8 * i));
    }
    std::copy(body.begin(), body.end(), record.get() + OVU_MFW_DATA_OFFSET);
    callback(type, 0, reinterpret_cast<const sOvuMfwMessage*>(record.get()),
             static_cast<uint32_t>(body.size()));
}

std::vector<std::string> CFakePlatform::logged(uint32_t event) const {
    std::vector<std::string> texts;
    for (const SLogged& line : m_vLog) {
        if (line.m_nEvent == event) {
            texts.push_back(line.m_sText);
        }
    }
    return texts;
}

std::vector<SSent> CFakePlatform::takeSent() {
    return std::exchange(m_vSent, {});
}

std::vector<SLogged> CFakePlatform::takeLog() {
    return std::exchange(m_vLog, {});
}

std::string fromHex(std::string_view hex) {
    std::string digits;
    std::copy_if(hex.begin(), hex.end(), std::back_inserter(digits),
                 [](char c) { return c != ' ' && c != '\n'; });
    std::string bytes;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

std::string toHex(std::string_view bytes) {
    static constexpr char szDigits[] = "0123456789abcdef";
    std::string hex;
    for (const char byte : bytes) {
        const auto value = static_cast<uint8_t>(byte);
        hex += szDigits[value >> 4];
        hex += szDigits[value & 15];
    }
    return hex;
}

// --- Operating system ---

int osGetProcessState(const char* name, int* state) {
    fake().m_vCalls.push_back(std::string("osGetProcessState ") + name);
    if (const int error = fake().enter("osGetProcessState")) {
        return error;
    }
    *state = fake().m_nProcessState;
    return 0;
}

int osCreateEvent(const char* name, uint32_t, uint32_t* handle) {
    fake().m_vCalls.push_back(std::string("osCreateEvent ") + name);
    if (const int error = fake().enter("osCreateEvent")) {
        return error;
    }
    if (fake().m_oEvents.count(name) != 0) {
        return OS_ERROR_EXISTS;
    }
    *handle = static_cast<uint32_t>(fake().callsOf("osCreateEvent"));
    fake().m_oEvents[name] = *handle;
    return 0;
}

int osOpenEvent(const char* name, uint32_t* handle) {
    fake().m_vCalls.push_back(std::string("osOpenEvent ") + name);
    if (const int error = fake().enter("osOpenEvent")) {
        return error;
    }
    auto event = fake().m_oEvents.find(name);
    if (event == fake().m_oEvents.end()) {
        return 2;
    }
    *handle = event->second;
    return 0;
}

int osSendEvent(uint32_t handle) {
    fake().m_vCalls.push_back("osSendEvent " + std::to_string(handle));
    return fake().enter("osSendEvent");
}

int osReceiveEvent(uint32_t, uint32_t waitMs) {
    fake().m_vWaits.push_back(waitMs);
    if (const int error = fake().enter("osReceiveEvent")) {
        return error;
    }
    return fake().m_fnReceiveEvent && fake().m_fnReceiveEvent() ? 0 : 110;
}

int osKillEvent(uint32_t handle) {
    fake().m_vCalls.push_back("osKillEvent " + std::to_string(handle));
    if (const int error = fake().enter("osKillEvent")) {
        return error;
    }
    std::erase_if(fake().m_oEvents, [handle](const auto& event) { return event.second == handle; });
    return 0;
}

int osInitializeLwtMutex(osLwtMutex_t* mutex) {
    *mutex = 0;
    return 0;
}

int osCleanupLwtMutex(osLwtMutex_t*) {
    return 0;
}

int osLockLwtMutex(osLwtMutex_t* mutex) {
    if (const int error = fake().enter("osLockLwtMutex")) {
        return error;
    }
    if (*mutex != 0) {
        std::abort(); // nobody else could ever unlock it
    }
    *mutex = 1;
    return 0;
}

int osTryLockLwtMutex(osLwtMutex_t* mutex) {
    return *mutex != 0 ? 16 : osLockLwtMutex(mutex);
}

int osUnlockLwtMutex(osLwtMutex_t* mutex) {
    if (const int error = fake().enter("osUnlockLwtMutex")) {
        return error;
    }
    *mutex = 0;
    return 0;
}

// --- Service manager and diagnostics ---

int OvuServiceStartService(const char* name, uint32_t, uint32_t, OvuServiceCallback callback, uint32_t) {
    fake().m_vCalls.push_back(std::string("OvuServiceStartService ") + name);
    fake().m_fnService = callback;
    return fake().enter("OvuServiceStartService");
}

int OvuDiagRegisterModule(const char*, const char*, const char*, const char*, uint32_t* handle) {
    const int error = fake().enter("OvuDiagRegisterModule");
    if (error != 0 || !fake().m_bDiagnostics) {
        *handle = 77; // what a failed call leaves there must not count
        return error != 0 ? error : 2;
    }
    *handle = 5;
    return 0;
}

int OvuDiagAddLogEntry(uint32_t, uint32_t, uint16_t severity, uint32_t event, const char* text) {
    if (fake().m_bKeepLog) {
        fake().m_vLog.push_back({severity, event, text});
    }
    return 1;
}

// --- Message framework ---

int OvuMfwInitialize(void) {
    fake().m_vCalls.push_back("OvuMfwInitialize");
    return fake().enter("OvuMfwInitialize");
}

int OvuMfwCleanup(void) {
    fake().m_vCalls.push_back("OvuMfwCleanup");
    if (const int error = fake().enter("OvuMfwCleanup")) {
        return error;
    }
    fake().m_oCallbacks.clear();
    return 0;
}

int OvuMfwGetProcessHandle(const char* processName, uint32_t* handle) {
    if (const int error = fake().enter("OvuMfwGetProcessHandle")) {
        return error;
    }
    if (processName == nullptr) {
        *handle = 1;
        return 0;
    }
    auto process = fake().m_oProcesses.find(processName);
    if (process == fake().m_oProcesses.end()) {
        return 2;
    }
    *handle = process->second;
    return 0;
}

int OvuMfwRegisterCallback(uint16_t type, OvuMfwCallback callback) {
    fake().m_vCalls.push_back("OvuMfwRegisterCallback " + std::to_string(type));
    if (const int error = fake().enter("OvuMfwRegisterCallback")) {
        return error;
    }
    fake().m_oCallbacks[type] = callback;
    return 0;
}

int OvuMfwDeregisterCallback(uint16_t type) {
    fake().m_vCalls.push_back("OvuMfwDeregisterCallback " + std::to_string(type));
    if (const int error = fake().enter("OvuMfwDeregisterCallback")) {
        return error;
    }
    return fake().m_oCallbacks.erase(type) != 0 ? 0 : 2;
}

int OvuMfwSendMessage(uint32_t handle, uint16_t type, uint32_t, const sOvuMfwMessage* message,
                      uint32_t length) {
    if (const int error = fake().enter("OvuMfwSendMessage")) {
        return error;
    }
    if (fake().m_oDead.count(handle) != 0) {
        return 111;
    }
    if (fake().m_bKeepSent) {
        const auto* body = reinterpret_cast<const char*>(message) + OVU_MFW_DATA_OFFSET;
        fake().m_vSent.push_back({handle, type, std::string(body, length)});
    }
    return 0;
}

int OvuMfwProcessNextMessage(uint32_t) {
    if (fake().m_fnOnReceive) {
        fake().m_fnOnReceive();
    }
    if (const int error = fake().enter("OvuMfwProcessNextMessage")) {
        return error;
    }
    if (fake().m_vIncoming.empty()) {
        return OVU_MFW_NO_MESSAGE;
    }
    const auto [type, body] = fake().m_vIncoming.front();
    fake().m_vIncoming.pop_front();
    auto callback = fake().m_oCallbacks.find(type);
    if (callback != fake().m_oCallbacks.end()) {
        CFakePlatform::handOver(callback->second, type, body);
    }
    return 0;
}
