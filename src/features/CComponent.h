// The daemon's record of one client process that has announced itself.
#ifndef QEL_FEATURES_CCOMPONENT_H
#define QEL_FEATURES_CCOMPONENT_H

#include "base/CArray.h"
#include "base/CMediator.h"
#include "base/SFeature.h"
#include "features/delivery.h"
#include "messaging/wire/wire.h"

#include <array>
#include <cstdint>
#include <span>

class CFeatureEntry;

inline constexpr int nErrorNoEndpoint = 31; // there is no message framework to send with

// Knows how to reach the process (the header of its last message), which features concern it, which it said
// it holds already, and how far it has paged through its list. Builds and sends every message that goes to
// the process.
//
// The feature entries are the control's; the array here only points at them. It follows the control's order where
// the component was taken into all of them at once; what the audit adds later stands at its end. Nothing but the
// audit looks whether an entry is in it already.
//
// Nothing here throws. Used on the main loop's thread only.
class CComponent : public CParty {
public:
    explicit CComponent(CMediator* mediator);
    ~CComponent() override;

    // Takes over what came with the component's latest message. A name of 1 to 16 characters and a text of 1
    // to 500 replace the stored ones; others (null included) leave them.
    void init(const CQelMessageHeader& header, const char* name, uint32_t status, const char* text);
    // Replaces the pairs that the process says it holds.
    void setKnownPairs(std::span<const SFeature> pairs);

    void notify(CString text);
    void recv(CString text);

    bool equalMFW(uint32_t handle) const;
    bool equalName(const char* name) const;

    // Hands out the next feature of the component's list, which counts as delivered thereby. False: no more.
    bool getNextFeatureList(uint32_t* code, uint32_t* data);
    // Pages from the first feature again.
    void rewindFeatureList();

    // 1, or 0 where memory is exhausted: the log tells, and the next audit makes good for it.
    int addFeatureEntry(CFeatureEntry* entry);
    int findFeatureEntry(const CFeatureEntry* entry) const;
    int delFeatureEntry(CFeatureEntry* entry);
    void clearFeatureArray();

    // The first entry that takes the event (opNotify, opReply) for this component; null if none does.
    CFeatureEntry* notifyFeatureArray();
    CFeatureEntry* replyFeatureArray();
    // Drops this component's record in every entry of the array.
    void removeFeatureArray();
    // Has the control take this component into every feature that concerns it, and fill the array with them.
    void notifyAllFeatures();
    // Sends the first pending notification, if there is one. 1 if something was sent.
    int auditFeature();
    // Has the delivery apply an event to this component's record in the entry, and sends what comes of it. False if
    // nothing does.
    bool tell(EDeliveryEvent event, const CFeatureEntry& entry, CCompStatus& record);
    void logDeleted(const CFeatureEntry& entry) const;

    static int fillMessageHeader(CQelServerMessage* message, uint32_t type, uint32_t subType, uint32_t tag);
    // 0: sent, or on purpose not sent, because the component holds the feature already. Else an error number.
    int sendMessage(uint32_t type, uint32_t code, uint32_t data);
    int sendMessage(uint32_t type, uint32_t code, uint32_t data, uint32_t extra);

    CArray<CFeatureEntry*> m_aFeatures;
    CQelMessageHeader m_oHeader; // of the last message received: tag and handle of whatever is sent
    uint32_t m_nProcessId = 0;
    char m_szName[nNameFieldSize] = {}; // NUL-terminated, at most nMaxNameLength characters
    uint32_t m_nReplyStatus = 0;        // of the last reply; nReplyOk is success
    char m_szReplyText[nMaxReplyTextLength + 1] = {};
    int32_t m_nNextFeature = 0;   // where in m_aFeatures the next page starts
    uint32_t m_nSecondCursor = 0; // counts as m_nNextFeature does, and is reset with it
    uint8_t m_bMonitor = 0;       // 1: is notified, and counts in CFeatureEntry::isReplied()
    uint32_t m_nKnownCount = 0;
    std::array<SFeature, nMaxKnownPairs> m_aKnown = {}; // the first m_nKnownCount are valid

private:
    CFeatureEntry* firstToTake(uint32_t op);
    bool auditEntry(CFeatureEntry& entry);
    bool isNextToFetch(CFeatureEntry* entry);
    bool isHeldAlready(uint32_t type, uint32_t code, uint32_t data);
};

#endif
