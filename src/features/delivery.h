// The delivery of a feature to a component: what can happen to a record, and what comes of it.
#ifndef QEL_FEATURES_DELIVERY_H
#define QEL_FEATURES_DELIVERY_H

#include "features/CCompStatus.h"

#include <cstddef>
#include <cstdint>

class CFeatureEntry;

// The rules stand in delivery.cpp as a table, a row for each way in which an event can go: from which states,
// what must hold, to which state, what is to be sent, and the line of the log. One engine runs the table; it is
// the only code that writes a record's state, stamp and counters. It sends nothing: it says what is to be sent,
// and CComponent sends it.
//
// A phase (enable, disable, modify) begins with a push of the audit or with the first notification, and ends
// with the component's answer. It allows three sends; the fourth notification without an answer in between
// declares that the delivery failed. An enable or a disable that is overdue counts as answered and is sent again
// by the next notification; a modification that is overdue has failed for good.
//
// Pushes do not count as sends, so a phase that a push began is sent up to three times more. No state is left
// but by an event; a number that is no state counts as idle.
//
// On the main loop's thread only. Nothing here throws.

enum EDeliveryEvent : uint8_t {
    dvTakeIn,   // the component joins the feature's delivery, or joins it anew
    dvNotify,   // the feature's message is being sent now: first, again, or after a time-out
    dvAccept,   // the component answered: carried out
    dvRefuse,   // the component answered: not carried out
    dvConfirm,  // the component confirms again what it has accepted
    dvFetch,    // the component's paging has come to the feature
    dvAudit,    // the audit of the whole table has come to the pair
    dvAuditOne, // the audit of the one component has come to it
    dvOverdue,  // no answer in time
    dvAssume,   // the component ran before the daemon: what it has is taken as told
    dvReset,    // a new list: everybody is to be told again
    dvRemove,   // the component leaves the delivery
    dvForget,   // the feature leaves, with all its records
    nDeliveryEvents
};

// What an event comes to.
enum EOutcome : uint8_t {
    ocRefused,     // not taken, or given up thereby: there is nothing to send or to hand out
    ocTaken,       // taken; there is nothing to send
    ocSend,        // taken; the caller knows which message it is that is being sent
    ocNotify,      // send: take the feature up
    ocNotifyNew,   // the same with the pending data, to a component that has none
    ocModify,      // send: the data in force change to the pending ones
    ocModifyAgain, // send: a modification, with the data in force alone
    ocDisable,     // send: the feature is withdrawn
    ocOverdue      // send: the answer is overdue
};

// Applies an event to a record of the entry, which may be new (all zero but for its component), or about to be
// deleted (dvRemove, dvForget).
EOutcome deliver(EDeliveryEvent event, const CFeatureEntry& entry, CCompStatus& record);

// Puts the record into a state, whatever it was in; its stamp and counters stay. For dvReset.
void resetDelivery(const CFeatureEntry& entry, CCompStatus& record, CCompStatus::ECStatus status);

// A message is out and its answer is not in.
bool isWaiting(CCompStatus::ECStatus status);
// Nothing is awaited, and the component has been told: accepted, failed or timed out, in any phase.
bool isAnswered(CCompStatus::ECStatus status);
// The same, in the modifying phase.
bool isModificationAnswered(CCompStatus::ECStatus status);
// The answer has been awaited for more than nReplyTimeout seconds.
bool isOverdue(const CCompStatus& record);

inline constexpr uint32_t nReplyTimeout = 10; // seconds
inline constexpr uint32_t nMaxTries = 3;      // sends that a phase allows

// One step of a delivery, as it has just been taken.
struct STransition {
    const CFeatureEntry& m_oFeature;
    const CCompStatus& m_oRecord; // as it is now; with dvForget its component may be gone already
    CCompStatus::ECStatus m_eFrom;
    CCompStatus::ECStatus m_eTo; // the same as before where a message is sent again
    EDeliveryEvent m_eCause;     // dvRemove and dvForget: the record goes, from and to are its last state
};

// Sees every step; must not start another. Null: nobody does. What was set before is returned.
using DeliveryWitness = void (*)(const STransition& transition);
DeliveryWitness setDeliveryWitness(DeliveryWitness witness);

#endif
