// The feature source's events in the log: 31170 to 31179 are its own. docs/events.md describes each one to
// operators, and a test compares that page with the calls.
#ifndef QEL_SOURCE_EVENTS_H
#define QEL_SOURCE_EVENTS_H

#include <cstdint>

enum ESourceEvent : uint32_t {
    evListError = 31170,     // error: one fault of a list, with file and line
    evListRefused = 31171,   // error: the list is not used; warning: what is used instead
    evHandedOver = 31172,    // information: how many features, and the merge's result
    evListUnchanged = 31173, // information: the file changed, what it says did not
    evRestartNeeded = 31174, // warning: a feature takes effect with the appliance's next restart only
    evWithdrawn = 31175,     // features, or components of one, went, or data was lowered; warning: many
    evHeldBack = 31176,      // information: components that are added to features later
    evPlaced = 31177,        // information: one feature brought in beside the merge
    evTrouble = 31178,       // a list cannot be watched, read or handed over, or can again; or its names
    evWatching = 31179       // information: changes of the list are being watched
};

#endif
