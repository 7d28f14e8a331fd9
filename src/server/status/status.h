// The daemon's side of the language for looking (messaging/wire/status.h).
#ifndef QEL_SERVER_STATUS_STATUS_H
#define QEL_SERVER_STATUS_STATUS_H

#include <cstdint>

class CFeatureSupply;
class CMFWServer;
struct sOvuMfwMessage;

// All on the main loop's thread. Nothing here throws or logs, with the one exception of startAnswering().

// Answers from now on, and records what there is to tell. To be called again each time that the endpoint was
// initialised anew. Without it the daemon serves its components all the same, so a failure is only logged.
// The supply knows about the list; null: there is none, else it must live as long as answers are given.
void startAnswering(CMFWServer& endpoint, const CFeatureSupply* supply);

// Answers one question. It is the framework's callback, which startAnswering() registers.
void answerStatus(uint16_t type, uint32_t id, const sOvuMfwMessage* message, uint32_t length);

// One turn of the loop has done its work. `turnsLeft`: how many turns are left until the next audit.
void noteTurn(uint32_t turnsLeft);

// An audit and a timeout pass have ended: looks whether the components' processes still live.
void notePass();

#endif
