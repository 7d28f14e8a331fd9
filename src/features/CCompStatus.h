// How far one feature has come at one component.
#ifndef QEL_FEATURES_CCOMPSTATUS_H
#define QEL_FEATURES_CCOMPSTATUS_H

#include <cstdint>

class CComponent;

// A plain record, created and deleted by the feature entry that it belongs to. Only CFeatureEntry continues a
// phase; the sweeps of the control and of the component start one by writing the waiting state with a fresh
// stamp.
//
// There is one for every feature at every component, and every pass reads them all: it is kept small, 16
// bytes with 64-bit pointers.
struct CCompStatus {
    // Idle, then three phases of four states each: waiting, success, failure, timed out. In the waiting
    // states (1, 5 and 9), and only there, a reply can be overdue.
    enum ECStatus : int8_t {
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
        csModifyTimedOut = 12  // nothing enters it: a modification that is overdue has failed at once
    };

    CComponent* m_pComponent = nullptr; // whose record it is; not owned
    uint32_t m_tStamp = 0;              // seconds since the epoch: last change of state, or last send
    ECStatus m_eStatus = csIdle;
    uint8_t m_nEnableTries = 0; // sends in the current cycle of each phase: one more than allowed at most
    uint8_t m_nDisableTries = 0;
    uint8_t m_nModifyTries = 0;
};

#endif
