#include "fake/fake_platform.h"

#include "base/clock.h"
#include "support/scarce_memory.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <span>

namespace {

CFakePlatform& fake() {
    return CFakePlatform::get();
}

uint32_t fakeSeconds() {
    return static_cast<uint32_t>(fake().m_nMicroseconds / 1000000);
}

timeval fakeTimeOfDay() {
    return {static_cast<time_t>(fakeSeconds()), static_cast<suseconds_t>(fake().m_nMicroseconds % 1000000)};
}

int find(const std::map<std::string, uint32_t>& handles, const char* name, uint32_t* handle) {
    auto found = handles.find(name);
    if (found == handles.end()) {
        return 2;
    }
    *handle = found->second;
    return 0;
}

constexpr uint32_t nModule = 5; // handle of the diagnostics module
constexpr int nInvalid = 22;

std::string word(const char* text) {
    return text;
}
std::string word(uint32_t number) {
    return std::to_string(number);
}

// Arguments as "one two three". Not by a stream: where no descriptor is left, the sanitizer takes one for
// damaged.
template <typename... Arguments>
std::string listed(const char* first, Arguments... arguments) {
    std::string text = first;
    ((text += ' ' + word(arguments)), ...);
    return text;
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

int CFakePlatform::enter(const std::string& function) {
    const int call = ++m_oCalls[function];
    const SFailure& failure = m_oFailures[function];
    const bool isFailing = call >= failure.m_nFrom && call < failure.m_nFrom + failure.m_nTimes;
    return isFailing ? failure.m_nError : 0;
}

int CFakePlatform::enter(const std::string& function, const std::string& argument) {
    m_vCalls.push_back(argument.empty() ? function : function + " " + argument);
    return enter(function);
}

void CFakePlatform::handOver(OvuMfwCallback callback, uint16_t type, std::string_view body, uint32_t from) {
    const size_t size = std::max(sizeof(sOvuMfwMessage), OVU_MFW_DATA_OFFSET + body.size());
    const auto record = [size] {
        const CPlentyOfMemory plenty;
        return std::make_unique<uint8_t[]>(size);
    }();
    const auto* message = reinterpret_cast<const sOvuMfwMessage*>(record.get());
    for (size_t i = 0; i < 4; ++i) {
        record[20 + i] = static_cast<uint8_t>(from >> (24 - 8 * i));
    }
    std::copy(body.begin(), body.end(), record.get() + OVU_MFW_DATA_OFFSET);
    callback(type, 0, message, static_cast<uint32_t>(body.size()));
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

std::string fromHex(std::string_view hex) {
    std::string digits(hex);
    std::erase_if(digits, [](char c) { return c == ' ' || c == '\n'; });
    std::string bytes;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

std::string toHex(std::string_view bytes) {
    std::string hex;
    for (const char byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<uint8_t>(byte));
        hex += digits;
    }
    return hex;
}

// --- Operating system ---

int osGetProcessState(const char* name, int* state) {
    const CPlentyOfMemory plenty;
    fake().m_fnOnProcessState();
    const int error = fake().enter("osGetProcessState", name);
    *state = error == 0 ? fake().m_nProcessState : *state;
    return error;
}

int osCreateEvent(const char* name, uint32_t flags, uint32_t* handle) {
    const CPlentyOfMemory plenty;
    const int error = fake().enter("osCreateEvent", name);
    if (error != 0 || flags != 0) {
        return error != 0 ? error : nInvalid;
    }
    if (fake().m_oEvents.count(name) != 0) {
        return OS_ERROR_EXISTS;
    }
    *handle = static_cast<uint32_t>(fake().callsOf("osCreateEvent"));
    fake().m_oEvents[name] = *handle;
    return 0;
}

int osOpenEvent(const char* name, uint32_t* handle) {
    const CPlentyOfMemory plenty;
    const int error = fake().enter("osOpenEvent", name);
    return error != 0 ? error : find(fake().m_oEvents, name, handle);
}

int osSendEvent(uint32_t handle) {
    const CPlentyOfMemory plenty;
    return fake().enter("osSendEvent", std::to_string(handle));
}

int osReceiveEvent(uint32_t handle, uint32_t waitMs) {
    const CPlentyOfMemory plenty;
    const auto& events = fake().m_oEvents;
    if (std::ranges::none_of(events, [&](const auto& event) { return event.second == handle; })) {
        std::abort(); // nothing could ever end the wait
    }
    fake().m_vWaits.push_back(waitMs);
    return fake().m_fnReceiveEvent() ? 0 : 110;
}

int osKillEvent(uint32_t handle) {
    const CPlentyOfMemory plenty;
    const int error = fake().enter("osKillEvent", std::to_string(handle));
    std::erase_if(fake().m_oEvents, [&](const auto& event) { return error == 0 && event.second == handle; });
    return error;
}

int osInitializeLwtMutex(osLwtMutex_t* mutex) {
    const CPlentyOfMemory plenty;
    *mutex = 0;
    return 0;
}

int osCleanupLwtMutex(osLwtMutex_t*) {
    const CPlentyOfMemory plenty;
    fake().m_fnOnMutexCleanup();
    return 0;
}

int osLockLwtMutex(osLwtMutex_t* mutex) {
    const CPlentyOfMemory plenty;
    const int error = fake().enter("osLockLwtMutex");
    if (error == 0 && std::exchange(*mutex, 1) != 0) {
        std::abort(); // nobody else could ever unlock it
    }
    return error;
}

int osTryLockLwtMutex(osLwtMutex_t* mutex) {
    const CPlentyOfMemory plenty;
    return *mutex != 0 ? 16 : osLockLwtMutex(mutex);
}

int osUnlockLwtMutex(osLwtMutex_t* mutex) {
    const CPlentyOfMemory plenty;
    if (std::exchange(*mutex, 0) == 0) {
        std::abort(); // it was not locked
    }
    return 0;
}

// --- Service manager ---

int OvuServiceStartService(const char* name, uint32_t first, uint32_t second, OvuServiceCallback callback,
                           uint32_t third) {
    const CPlentyOfMemory plenty;
    fake().m_fnNotice = callback;
    return fake().enter("OvuServiceStartService", listed(name, first, second, third));
}

void OvuServiceReport(uint32_t state, const char* text, uint32_t timeMs) {
    const CPlentyOfMemory plenty;
    fake().enter("OvuServiceReport", listed(text, state, timeMs));
}

void OvuServiceAlive() { // of every turn, so it is counted instead of listed
    ++fake().m_nAlive;
}

// --- Diagnostics ---

static thread_local std::span<const OvuDiagField> oNextFields;

int OvuDiagRegisterModule(const char* name1, const char* name2, const char* name3, const char* logName,
                          uint32_t* handle) {
    const CPlentyOfMemory plenty;
    const bool isOurs = listed(name1, name2, name3, logName) == "Qel Qel Qel QelServerD.log";
    const int error = isOurs ? fake().enter("OvuDiagRegisterModule") : nInvalid;
    *handle = error == 0 ? nModule : 77; // what a failed call leaves there must not count
    return error;
}

int OvuDiagAddLogEntry(uint32_t handle, uint32_t kind, uint16_t severity, uint32_t event, const char* text) {
    const CPlentyOfMemory plenty;
    if (handle != nModule || kind != 2) {
        return nInvalid;
    }
    if (fake().m_bKeepLog) {
        fake().m_vLog.push_back({severity, event, text});
        fake().m_sFields.clear();
        for (const OvuDiagField& field : oNextFields) {
            fake().m_sFields.append(field.name).append("=").append(field.value, field.length).append(" ");
        }
    }
    return 1;
}

void OvuDiagSetFields(const OvuDiagField* fields, size_t count) {
    oNextFields = {fields, count};
}

// --- Message framework ---

int OvuMfwInitialize(void) {
    const CPlentyOfMemory plenty;
    return fake().enter("OvuMfwInitialize", "");
}

int OvuMfwCleanup(void) {
    const CPlentyOfMemory plenty;
    fake().m_oCallbacks.clear();
    return fake().enter("OvuMfwCleanup", "");
}

int OvuMfwGetProcessHandle(const char* processName, uint32_t* handle) {
    const CPlentyOfMemory plenty;
    if (processName == nullptr) {
        *handle = fake().m_nOwnHandle;
        return fake().enter("OvuMfwGetProcessHandle");
    }
    fake().m_fnOnLookup();
    return find(fake().m_oProcesses, processName, handle);
}

int OvuMfwRegisterCallback(uint16_t type, OvuMfwCallback callback) {
    const CPlentyOfMemory plenty;
    if (const int error = fake().enter("OvuMfwRegisterCallback", std::to_string(type))) {
        return error;
    }
    fake().m_oCallbacks[type] = callback;
    return 0;
}

int OvuMfwDeregisterCallback(uint16_t type) {
    const CPlentyOfMemory plenty;
    const int error = fake().enter("OvuMfwDeregisterCallback", std::to_string(type));
    return error != 0 || fake().m_oCallbacks.erase(type) != 0 ? error : 2;
}

int OvuMfwSendMessage(uint32_t handle, uint16_t type, uint32_t userDefinedId, const sOvuMfwMessage* message,
                      uint32_t length) {
    const CPlentyOfMemory plenty;
    if (const int error = fake().enter("OvuMfwSendMessage")) {
        return error;
    }
    if (fake().m_oDead.count(handle) != 0) {
        return 111;
    }
    const auto* body = reinterpret_cast<const char*>(message) + OVU_MFW_DATA_OFFSET;
    if (userDefinedId != 0 || std::count(body - OVU_MFW_DATA_OFFSET, body, '\0') != OVU_MFW_DATA_OFFSET) {
        return nInvalid;
    }
    if (fake().m_bKeepSent) {
        fake().m_vSent.push_back({handle, type, std::string(body, length)});
    }
    return 0;
}

int OvuMfwProcessNextMessage(uint32_t timeoutMs) {
    const CPlentyOfMemory plenty;
    fake().m_oReceiveWaits.insert(timeoutMs);
    fake().m_fnOnReceive();
    const int error = fake().enter("OvuMfwProcessNextMessage");
    return error != 0 ? error : OVU_MFW_NO_MESSAGE;
}
