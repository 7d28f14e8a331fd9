// How far one feature has come at one component.
#ifndef QEL_FEATURES_CCOMPSTATUS_H
#define QEL_FEATURES_CCOMPSTATUS_H

#include <cstdint>

class CComponent;

// A plain record, created and deleted by the feature entry that it belongs to. State, stamp and counters are
// written by the delivery alone (features/delivery.h).
struct CCompStatus {
    // Idle, then three phases of four states each: waiting, success, failure, timed out. In the waiting
    // states (1, 5 and 9), and only there, a reply can be overdue.
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
    uint32_t m_tStamp = 0;              // seconds since the epoch: last change of state, or last send
    ECStatus m_eStatus = csIdle;
    uint32_t m_nEnableTries = 0; // sends in the current cycle of each phase
    uint32_t m_nDisableTries = 0;
    uint32_t m_nModifyTries = 0;
};

#endif
