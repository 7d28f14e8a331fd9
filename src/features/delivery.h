// The delivery of a feature to a component: what can happen to a record, and what comes of it.
#ifndef QEL_FEATURES_DELIVERY_H
#define QEL_FEATURES_DELIVERY_H

#include "features/CCompStatus.h"

#include <cstddef>
#include <cstdint>

class CFeatureEntry;

// The rules stand in delivery.cpp as a table, with a row for each way in which an event can go: from which
// states, under which condition, to which state, what is to be sent, and the line of the log. One engine runs
// the table. It is the only code that writes a record's state, stamp and counters. It sends nothing: it says
// what is to be sent, and CComponent sends it.
//
// The states are those of CCompStatus::ECStatus. The rules:
//
// - A phase (enable, disable, modify) begins with a push of the audit or with the first notification, and
//   ends with the component's answer.
// - A phase allows three sends. The fourth notification without an answer in between sends nothing and
//   declares the delivery failed, so a component that hangs is left alone until the next list.
// - Pushes do not count as sends. A phase that a push began is therefore sent up to three times more.
// - A reply is overdue when it has been awaited for more than 10 seconds. An overdue enable or disable counts
//   as answered, so that nobody else has to wait for it; the next notification sends it again. The audits
//   notify of features in force only, so a disable is not repeated. An overdue modification has failed for
//   good.
// - What a component fetches by itself counts as accepted, whatever state the record was in. A withdrawn
//   feature that the paging passes over counts as disabled.
// - A new list sets the records of whatever it touches back to idle. A reply that was under way then finds no
//   waiting record there, and is refused or credited to another feature that awaits one.
// - A state changes only by an event or by resetDelivery(). A number that is none of the states counts as
//   idle when the component is notified, and meets only those rows that hold for any state otherwise.
//
// On the main loop's thread only. The source's thread deletes entries too, but only those that nobody else
// has seen, which have no records. Nothing here throws.

// What can happen to a record. The numbers are positions in the table of delivery.cpp.
enum EDeliveryEvent : uint8_t {
    dvTakeIn,   // the component joins the feature's delivery, or joins it anew
    dvNotify,   // the feature's message is being sent now: first, again, or after a time-out
    dvAccept,   // the component answered: carried out
    dvRefuse,   // the component answered: not carried out
    dvConfirm,  // the component confirms again what it has accepted
    dvFetch,    // the component's paging has come to the feature
    dvAudit,    // CQelControl::audit() or CComponent::auditFeature() has come to the pair
    dvAuditOne, // CQelControl::auditComp() has come to it
    dvOverdue,  // no answer in time
    dvAssume,   // the component is registered by the daemon itself, as told; dvAccept follows
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

// Applies an event to a record of the entry, and logs and reports the step. The record may be new (all zero
// but for its component) or about to be deleted by the caller (dvRemove, dvForget). Where the outcome is to
// send, the record is in its waiting state already. dvReset goes through resetDelivery() instead and is
// refused here.
EOutcome deliver(EDeliveryEvent event, const CFeatureEntry& entry, CCompStatus& record);

// Puts the record into a state, whatever state it was in. Stamp and counters stay, so sends that went
// unanswered before a new list still count after it. This is the event dvReset, which has no rows because the
// caller names the state.
void resetDelivery(const CFeatureEntry& entry, CCompStatus& record, CCompStatus::ECStatus status);

// A message is out and its answer has not come: 1, 5, 9.
bool isWaiting(CCompStatus::ECStatus status);
// The component was told and nothing is awaited: accepted, failed or timed out, in any phase.
bool isAnswered(CCompStatus::ECStatus status);
// The same, in the modifying phase only: 10, 11, 12.
bool isModificationAnswered(CCompStatus::ECStatus status);
// The next audit that comes to the record sends something, or gives up sending. It says nothing of whether
// the component monitors.
bool isPending(const CFeatureEntry& entry, const CCompStatus& record);
// The record is waiting, and its stamp is more than nReplyTimeout whole seconds old.
bool isOverdue(const CCompStatus& record);

// Sends without an answer so far, in the phase that the record is in: nMaxTries at most.
uint32_t sendsOf(const CCompStatus& record);

inline constexpr uint32_t nReplyTimeout = 10; // seconds
inline constexpr uint32_t nMaxTries = 3;      // sends that a phase allows

// Sees every step, after it was taken and logged; it must not cause another. An event that meets no row, or
// whose row keeps the state, is no step; nor is a reset of what is in that state already. The record is as it
// is now, `from` its state before: the same where a message is sent again. With dvRemove and dvForget the record
// goes, and has its last state; with dvForget its component may be gone already. Single arguments, since they
// cost a message less than a struct of them.
// setDeliveryWitness() returns the witness that was set before; null means none. Set it only on the main
// loop's thread.
using DeliveryWitness = void (*)(EDeliveryEvent cause, const CFeatureEntry& entry, const CCompStatus& record,
                                 CCompStatus::ECStatus from);
DeliveryWitness setDeliveryWitness(DeliveryWitness witness);

#endif
