// How far one feature has come at one component.
#ifndef QEL_FEATURES_CCOMPSTATUS_H
#define QEL_FEATURES_CCOMPSTATUS_H

#include <cstdint>

class CComponent;

// A plain record, created and deleted by the feature entry that it belongs to. Only the delivery writes its
// state, stamp and counters (features/delivery.h), so every change follows a row of the delivery's table.
struct CCompStatus {
    // Idle, then three phases of four states each: waiting, success, failure, timed out. Only in the waiting
    // states (1, 5 and 9) can a reply be overdue. The numbers appear in the log, so they must not change.
    enum ECStatus : int32_t {
        csIdle = 0,            // taken into delivery; nothing sent yet
        csEnabling = 1,        // feature sent; waiting for the reply
        csEnabled = 2,         // accepted
        csEnableFailed = 3,    // refused, or no reply after three sends
        csEnableTimedOut = 4,  // no reply in time; counts as answered, and is sent again on the next notify
        csDisabling = 5,       // disable sent; waiting for the reply
        csDisabled = 6,        // disable confirmed; also where a component starts at a withdrawn feature
        csDisableFailed = 7,   // error reported, or no reply after three sends
        csDisableTimedOut = 8, // no reply in time; counts as answered, and is sent again on the next notify
        csModifying = 9,       // modification sent; waiting for the reply
        csModified = 10,       // accepted
        csModifyFailed = 11,   // error reported, no reply in time, or no reply after three sends
        csModifyTimedOut = 12  // handled like 4 and 8, but never entered: an overdue modification has failed
    };

    CComponent* m_pComponent = nullptr; // whose record it is; not owned
    // Seconds since the epoch: the last send, reply, fetch or taking in. A time-out and a new list, which
    // change the state too, leave it; a reply in the wrong state, which does not, renews it.
    uint32_t m_tStamp = 0;
    ECStatus m_eStatus = csIdle;
    uint32_t m_nEnableTries = 0; // notifications without an answer so far, counted for each phase by itself
    uint32_t m_nDisableTries = 0;
    uint32_t m_nModifyTries = 0;
    // When the record came into its state, or was taken in. For whoever looks: it decides nothing, and fills
    // what the compiler would leave empty on 64 bits.
    uint32_t m_tEntered = 0;
};

#endif
