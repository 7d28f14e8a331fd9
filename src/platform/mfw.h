/* The message framework: addressed messages between the processes of one host. Platform contract: another
 * platform supplies these functions under these names.
 *
 * Every function returns 0 for success and an error number otherwise (OVU_MFW_NO_MESSAGE is the one with a
 * meaning of its own). A process has one endpoint. All functions may be called from any thread, but one
 * thread at a time takes in messages. */
#ifndef QEL_PLATFORM_MFW_H
#define QEL_PLATFORM_MFW_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Handle of a process on the framework: 32 bits, unique while the process lives, never all ones. */
#define OVU_MFW_NO_HANDLE UINT32_C(0xFFFFFFFF)

#define OVU_MFW_NO_MESSAGE 0x200001 /* OvuMfwProcessNextMessage: nothing came within the time */

enum {
    OVU_MFW_MIN_DATA = 1024 /* a record handed to a callback has at least so many readable data bytes */
};

/* A message as the framework hands it over: 24 bytes of its own, then the body. */
typedef struct sOvuMfwMessage {
    uint8_t framework[20]; /* the framework's; zero in what is sent */
    uint8_t sender[4]; /* sender's handle, big-endian, by the framework's own word; zero in what is sent */
    uint8_t data[OVU_MFW_MIN_DATA]; /* the body; may go on past the end of this array, for the length given
                                       beside it */
} sOvuMfwMessage;

enum { OVU_MFW_DATA_OFFSET = 24 };

/* The record is valid during the call only. `length` counts the body's bytes; the record is zero from there
 * up to OVU_MFW_MIN_DATA, so a reader of fixed fields cannot run off it whatever a peer sent. */
typedef void (*OvuMfwCallback)(uint16_t type, uint32_t userDefinedId, const sOvuMfwMessage* message,
                               uint32_t length);

/* Opens this process's endpoint. May be called again while open: harmless. Clean-up closes the endpoint and
 * forgets all callbacks, however often it was initialised; after that it can be initialised anew. Clean-up of
 * what is not open is harmless too, and is safe while another thread is inside any function of the framework;
 * it does not wait for a callback that runs on another thread. */
int OvuMfwInitialize(void);
int OvuMfwCleanup(void);

/* Handle of the process called `processName`, or of this process for NULL. Works without an endpoint of one's
 * own; an error where no living process of that name has one. Does not block. */
int OvuMfwGetProcessHandle(const char* processName, uint32_t* handle);

/* Messages of `type` go to `callback`; the callback of type 0 also gets those whose type has none. A second
 * registration replaces the first; deregistering what is not registered is an error. A message that no
 * callback takes is dropped, and counts as processed. */
int OvuMfwRegisterCallback(uint16_t type, OvuMfwCallback callback);
int OvuMfwDeregisterCallback(uint16_t type);

/* Sends the `length` body bytes of `message` to a process (one's own included). Never blocks: a peer that is
 * gone, or that does not read and whose queue is full, is an error number, and the message is then not sent
 * at all. Only `length` bytes from `data` are read. Bodies of several megabytes arrive whole, in the order
 * they were sent. */
int OvuMfwSendMessage(uint32_t handle, uint16_t type, uint32_t userDefinedId, const sOvuMfwMessage* message,
                      uint32_t length);

/* Waits at most `timeoutMs` milliseconds for a message and runs its callback on the calling thread. One
 * message a call; senders take turns, so one that floods does not keep the others waiting.
 * OVU_MFW_NO_MESSAGE: none came. Without an endpoint it waits out the time and returns an error, so that a
 * loop around it cannot spin. */
int OvuMfwProcessNextMessage(uint32_t timeoutMs);

#ifdef __cplusplus
}
#endif

#endif
