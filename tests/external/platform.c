/* Another platform in the small: the whole contract of src/platform, for one process. It tells on standard output what
 * the daemon logs and sends, hands over the messages of one component, and then ends the daemon, in the way that
 * QEL_TEST_END names: by "event", by the service manager's "stop" or "shutdown"; with "taken" the daemon cannot even
 * create its event, and with "deaf" not register a callback for the notes of its feature source. In C, as the headers of the contract promise. */
#include "platform/diag.h"
#include "platform/mfw.h"
#include "platform/os.h"
#include "platform/service.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { nHandle = 0x21, nProtocol = 6, nNotes = 7, nProcessOffset = 24, nNameOffset = 28, nBodyLength = 52 };

/* What the component says: the sub-types of requests. A name message, and the list to its end. */
static const uint8_t aSubTypes[] = {0, 2, 2};
static size_t nTaken = 0;

static OvuMfwCallback pCallback = NULL;
static OvuServiceCallback pService = NULL;

static int endsBy(const char* word) {
    const char* wanted = getenv("QEL_TEST_END");
    return strcmp(word, wanted != NULL ? wanted : "event") == 0;
}

static void* notify(void* unused) {
    pService(endsBy("stop") ? OVU_CALLBACK_NOTIFY_SERVICE_STOP : OVU_CALLBACK_NOTIFY_SERVICE_SHUTDOWN);
    return unused;
}

int osGetProcessState(const char* name, int* state) {
    *state = OS_PROCESS_NOT_RUNNING;
    return strcmp(name, "") == 0;
}

int osCreateEvent(const char* name, uint32_t flags, uint32_t* handle) {
    *handle = 1 + flags;
    return endsBy("taken") || strcmp(name, "") == 0 ? OS_ERROR_EXISTS : 0;
}

int osOpenEvent(const char* name, uint32_t* handle) {
    *handle = 1;
    return strcmp(name, "") == 0;
}

int osSendEvent(uint32_t handle) {
    return handle != 1;
}

int osReceiveEvent(uint32_t handle, uint32_t waitMs) {
    static pthread_t thread;
    if (nTaken == sizeof aSubTypes && !endsBy("stop") && !endsBy("shutdown")) {
        return handle != 1;
    }
    if (nTaken == sizeof aSubTypes && thread == 0 && pthread_create(&thread, NULL, notify, NULL) == 0) {
        pthread_detach(thread);
    }
    usleep(1000 * waitMs);
    return 110;
}

int osKillEvent(uint32_t handle) {
    printf("kill %u\n", handle);
    return handle != 1;
}

int osInitializeLwtMutex(osLwtMutex_t* mutex) {
    *mutex = 0;
    return 0;
}

int osCleanupLwtMutex(osLwtMutex_t* mutex) {
    return *mutex != 0;
}

int osLockLwtMutex(osLwtMutex_t* mutex) {
    return (*mutex)++ != 0;
}

int osTryLockLwtMutex(osLwtMutex_t* mutex) {
    return osLockLwtMutex(mutex);
}

int osUnlockLwtMutex(osLwtMutex_t* mutex) {
    return --*mutex != 0;
}

int OvuServiceStartService(const char* name, uint32_t first, uint32_t second, OvuServiceCallback callback,
                           uint32_t third) {
    printf("service %s %u %u %u\n", name, first, second, third);
    pService = callback;
    return 0;
}

int OvuDiagRegisterModule(const char* name1, const char* name2, const char* name3, const char* logName,
                          uint32_t* handle) {
    printf("module %s %s %s %s\n", name1, name2, name3, logName);
    *handle = 1;
    return 0;
}

int OvuDiagAddLogEntry(uint32_t handle, uint32_t kind, uint16_t severity, uint32_t event, const char* text) {
    printf("log %u %u %u %u %s\n", handle, kind, severity, event, text);
    return 0;
}

int OvuMfwInitialize(void) {
    return 0;
}

int OvuMfwCleanup(void) {
    pCallback = NULL;
    return 0;
}

int OvuMfwGetProcessHandle(const char* processName, uint32_t* handle) {
    *handle = nHandle - 1;
    return processName != NULL; /* nobody else runs */
}

int OvuMfwRegisterCallback(uint16_t type, OvuMfwCallback callback) {
    if (type == nProtocol) {
        pCallback = callback;
    }
    return type == nNotes && endsBy("deaf") ? 7 : 0;
}

int OvuMfwDeregisterCallback(uint16_t type) {
    return type == nProtocol && pCallback == NULL;
}

int OvuMfwSendMessage(uint32_t handle, uint16_t type, uint32_t userDefinedId, const sOvuMfwMessage* message,
                      uint32_t length) {
    flockfile(stdout); /* the thread that watches the list logs, too */
    printf("sent %u %u %u", handle, type, userDefinedId);
    for (uint32_t i = 0; i < length; ++i) {
        printf("%s%02x", i % 4 == 0 ? " " : "", message->data[i]);
    }
    printf("\n");
    funlockfile(stdout);
    return 0;
}

int OvuMfwProcessNextMessage(uint32_t timeoutMs) {
    static const char szName[] = "Voice";
    sOvuMfwMessage message = {0};
    (void)timeoutMs;
    if (nTaken == sizeof aSubTypes || pCallback == NULL) {
        return OVU_MFW_NO_MESSAGE;
    }
    message.data[15] = aSubTypes[nTaken++]; /* the last byte of each word */
    message.data[19] = (uint8_t)nTaken;     /* tag */
    message.data[23] = nHandle;
    message.data[nProcessOffset + 3] = 77;
    memcpy(message.data + nNameOffset, szName, sizeof szName);
    pCallback(nProtocol, 0, &message, nBodyLength);
    return 0;
}
