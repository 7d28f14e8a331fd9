// The request dispatcher: what the daemon does with each message of the client protocol.
#ifndef QEL_MESSAGING_DISPATCHER_DISPATCHER_H
#define QEL_MESSAGING_DISPATCHER_DISPATCHER_H

#include "platform/mfw.h"

#include <cstdint>

// Handles one message: logs it, finds the component that it is from, or makes one for a new name, lets that
// update itself, and answers. The record is the framework's, `length` counts the bytes of the body; type and id
// are logged only. On the main loop's thread.
void dispatchRequest(uint16_t type, uint32_t id, const sOvuMfwMessage* message, uint32_t length);

#endif
