// Who supplies the control with its feature lists, as the server sees it.
#ifndef QEL_FEATURES_CFEATURESUPPLY_H
#define QEL_FEATURES_CFEATURESUPPLY_H

class CQelControl;

class CFeatureSupply {
public:
    // Hands the first list to the control, which must live as long as the process. False where there is no
    // usable list; the log has said why. On the main thread, before startWatching().
    virtual bool supply(CQelControl& control) = 0;

    // From now on hands over every list that replaces the one in force. After supply() and with the message
    // framework up; again whenever that was initialised anew. On the main thread.
    virtual void startWatching() = 0;

protected:
    ~CFeatureSupply() = default;
};

#endif
