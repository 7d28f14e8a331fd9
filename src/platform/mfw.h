/* The message framework: addressed messages between the processes of one host. Platform contract: another
 * platform supplies these functions under these names.
 *
 * Every function returns 0 for success and an error number otherwise; only OVU_MFW_NO_MESSAGE has a meaning
 * of its own. A process has one endpoint. All functions may be called from any thread, also inside a
 * callback, but only one thread at a time may be in OvuMfwProcessNextMessage. Any thread may end the
 * process (exit) meanwhile. */
#ifndef QEL_PLATFORM_MFW_H
#define QEL_PLATFORM_MFW_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Handle of a process on the framework: 32 bits, unique while the process lives, never all ones. A later
 * process does not get it again, so a message for a process that has died reaches nobody. */
#define OVU_MFW_NO_HANDLE UINT32_C(0xFFFFFFFF)

#define OVU_MFW_NO_MESSAGE 0x200001 /* OvuMfwProcessNextMessage: nothing came within the time */

enum {
    OVU_MFW_MIN_DATA = 1024 /* a record handed to a callback has at least so many readable data bytes */
};

/* A message as the framework hands it over: 24 bytes of its own, then the body. */
typedef struct sOvuMfwMessage {
    uint8_t framework[20]; /* the framework's; zero in what is sent */
    uint8_t sender[4];     /* sender's handle, big-endian, filled in by the framework, all ones where the
                              sender was gone before its first message was read; zero in what is sent */
    uint8_t data[OVU_MFW_MIN_DATA]; /* the body; may go on past the end of this array, for the length given
                                       beside it */
} sOvuMfwMessage;

enum { OVU_MFW_DATA_OFFSET = 24 };

/* The record is valid during the call only. `length` counts the body's bytes. From there up to
 * OVU_MFW_MIN_DATA the record is zero, so a reader of fixed fields stays within it, whatever a
 * peer has sent. */
typedef void (*OvuMfwCallback)(uint16_t type, uint32_t userDefinedId, const sOvuMfwMessage* message,
                               uint32_t length);

/* Opens this process's endpoint; harmless if it is open already. Clean-up closes the endpoint and forgets all
 * callbacks, however often it was initialised; it can be initialised again afterwards. Clean-up is harmless
 * if nothing is open, and safe while another thread is inside any function of the framework. It does not wait
 * for a callback that runs on another thread. */
int OvuMfwInitialize(void);
int OvuMfwCleanup(void);

/* Handle of the process called `processName`, or of this process for NULL. The caller needs no endpoint for
 * that; its own handle stays the same from one endpoint to the next, unless another process has taken it in
 * between. An error if no living process of that name has an endpoint. Does not block. */
int OvuMfwGetProcessHandle(const char* processName, uint32_t* handle);

/* Messages of `type` go to `callback`; the callback of type 0 also gets those whose type has none. A second
 * registration replaces the first. To deregister a type that has no callback is an error. A message for which
 * there is no callback is dropped, and counts as processed. */
int OvuMfwRegisterCallback(uint16_t type, OvuMfwCallback callback);
int OvuMfwDeregisterCallback(uint16_t type);

/* Sends the `length` body bytes of `message` to a process, which may be the caller's own. Reads nothing of
 * `message` but `length` bytes from `data` on. Never blocks: if the peer is gone, or does not read and its
 * queue is full, that is an error number, and nothing of the message is sent. Bodies of several megabytes
 * arrive whole, and messages to one peer in the order in which they were sent. Success means that the message
 * is in the peer's queue, not that the peer will read it. */
int OvuMfwSendMessage(uint32_t handle, uint16_t type, uint32_t userDefinedId, const sOvuMfwMessage* message,
                      uint32_t length);

/* Waits at most `timeoutMs` milliseconds for a message and runs its callback on the calling thread. Each call
 * delivers one message. Senders take turns, so one that floods does not keep the others waiting.
 * OVU_MFW_NO_MESSAGE: none came. Without an endpoint it waits out the time and then returns an error, so that
 * a loop around it cannot spin. Where memory is exhausted (ENOMEM) it pauses for some milliseconds; what has
 * come stays for the next call, but for a long message that twice finds none. */
int OvuMfwProcessNextMessage(uint32_t timeoutMs);

/* For programs that wait by themselves. A platform may leave these two out: a program that can do without refers
 * to them weakly, as libqelclient does.
 *
 * OvuMfwGetDescriptor: a descriptor for poll(2), readable when OvuMfwProcessNextMessage may have something to
 * do. It stays the framework's: it is only waited on, and gone with the clean-up. What a call has taken in
 * and left for the next one does not show, so call until OVU_MFW_NO_MESSAGE before each wait.
 *
 * OvuMfwWatchProcess: *changes is another number than before if, since the last call, a connection has ended
 * or, unless `processName` is NULL, a process of that name may have come. Both make the descriptor readable.
 * An error means that coming processes cannot be watched for at present: ask for the name from time to time. */
int OvuMfwGetDescriptor(int* descriptor);
int OvuMfwWatchProcess(const char* processName, uint32_t* changes);

#ifdef __cplusplus
}
#endif

#endif
