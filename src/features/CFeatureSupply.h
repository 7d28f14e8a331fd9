// Who supplies the control with its feature lists, as the server sees it. These calls are all that the server
// knows of the supplier, so the loop builds and is tested without one.
#ifndef QEL_FEATURES_CFEATURESUPPLY_H
#define QEL_FEATURES_CFEATURESUPPLY_H

class CQelControl;
struct SListState;

class CFeatureSupply {
public:
    // Hands the first list to the control, which must live as long as the process. False if there is no
    // usable list; the log has said why. It returns only when the list is in the table. Call it on the main
    // thread, before startWatching().
    virtual bool supply(CQelControl& control) = 0;

    // From now on every list that replaces the one in force is handed over, on the main loop's thread. Call
    // it on the main thread, after supply() and with the message framework initialised; and again each time
    // that was initialised anew, since its clean-up forgets all callbacks.
    virtual void startWatching() = 0;

    // For whoever looks, on the main loop's thread.
    virtual const SListState& state() const = 0;

protected:
    ~CFeatureSupply() = default;
};

#endif
