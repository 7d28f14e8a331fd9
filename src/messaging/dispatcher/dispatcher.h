// The request dispatcher: what the daemon does with each message of the client protocol.
#ifndef QEL_MESSAGING_DISPATCHER_DISPATCHER_H
#define QEL_MESSAGING_DISPATCHER_DISPATCHER_H

#include "platform/mfw.h"

#include <cstdint>

// Handles one message: logs it, finds the component that it comes from (or creates one for a new name),
// stores what it says about itself, acts on it and answers. It never fails towards the caller: a message that
// makes no sense is logged and dropped, and an answer that cannot be sent is logged; it is up to the
// component to ask again.
//
// The handle and the name in a message are believed, even if the framework names another sender. Counts and
// lengths in it are not: they are checked against `length`, the number of bytes that arrived. Type and id are
// only logged.
//
// The record is the framework's and valid during the call. By the framework's contract it is readable, and
// zero behind the body, for at least OVU_MFW_MIN_DATA bytes. On the main loop's thread.
void dispatchRequest(uint16_t type, uint32_t id, const sOvuMfwMessage* message, uint32_t length);

#endif
