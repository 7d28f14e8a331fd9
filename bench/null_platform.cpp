// A platform that takes everything and does nothing, so that a benchmark measures the daemon alone.
#include "null_platform.h"

#include "platform/diag.h"
#include "platform/mfw.h"
#include "platform/os.h"

#include <cstring>

int osInitializeLwtMutex(osLwtMutex_t*) {
    return 0;
}

int osCleanupLwtMutex(osLwtMutex_t*) {
    return 0;
}

int osLockLwtMutex(osLwtMutex_t*) {
    return 0;
}

int osTryLockLwtMutex(osLwtMutex_t*) {
    return 0;
}

int osUnlockLwtMutex(osLwtMutex_t*) {
    return 0;
}

int OvuDiagRegisterModule(const char*, const char*, const char*, const char*, uint32_t* handle) {
    *handle = 1;
    return 0;
}

int OvuDiagAddLogEntry(uint32_t, uint32_t, uint16_t, uint32_t, const char*) {
    return 1;
}

int OvuMfwInitialize(void) {
    return 0;
}

int OvuMfwCleanup(void) {
    return 0;
}

int OvuMfwGetProcessHandle(const char*, uint32_t* handle) {
    *handle = 1;
    return 0;
}

int OvuMfwRegisterCallback(uint16_t, OvuMfwCallback) {
    return 0;
}

int OvuMfwDeregisterCallback(uint16_t) {
    return 0;
}

// But it remembers the head of the latest answer, for whoever asks for the next page.
CStatusAnswer oLatestAnswer;

int OvuMfwSendMessage(uint32_t, uint16_t type, uint32_t, const sOvuMfwMessage* message, uint32_t length) {
    if (type == nQelStatusMfwMsgId && length >= sizeof oLatestAnswer) {
        std::memcpy(&oLatestAnswer, message->data, sizeof oLatestAnswer);
    }
    return 0;
}

int OvuMfwProcessNextMessage(uint32_t) {
    return OVU_MFW_NO_MESSAGE;
}
