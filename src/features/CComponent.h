// The daemon's record of one client process that has announced itself.
#ifndef QEL_FEATURES_CCOMPONENT_H
#define QEL_FEATURES_CCOMPONENT_H

#include "base/CArray.h"
#include "base/CMediator.h"
#include "messaging/wire/wire.h"

#include <array>
#include <cstdint>
#include <span>

class CFeatureEntry;
struct CCompStatus;

inline constexpr int nErrorNoEndpoint = 31; // there is no message framework to send with

// Knows how to reach the process (the header of its last message), which features concern it, which it said
// it holds already, and how far it has paged through its list. Builds and sends every message that goes to
// the process.
//
// The feature entries are the control's: the array here only points at them, in the control's order, none
// twice. Used on the main loop's thread only.
class CComponent : public CParty {
public:
    explicit CComponent(CMediator* mediator);
    ~CComponent() override;

    // Takes over what came with the component's latest message. A name of 1 to 16 characters and a text of 1
    // to 500 replace the stored ones; others (null included) leave them.
    void init(const CQelMessageHeader& header, const char* name, uint32_t status, const char* text);
    // Replaces the pairs that the process says it holds.
    void setKnownPairs(std::span<const CQelPair> pairs);

    void notify(CString text);
    void recv(CString text);

    bool equalMFW(uint32_t handle) const;
    bool equalName(const char* name) const;

    // Hands out the next feature of the component's list, which counts as delivered thereby. False: no more.
    bool getNextFeatureList(uint32_t* code, uint32_t* data);
    // Pages from the first feature again.
    void rewindFeatureList();

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
    // Sends what the entry's state asks for, given this component's record in it: disable, modification,
    // notification. False if there is nothing to tell.
    bool pushChange(CFeatureEntry& entry, CCompStatus& record);
    // The case of a modification; `word` is the first of the log line.
    bool pushModification(CFeatureEntry& entry, CCompStatus& record, const char* word);
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
    uint32_t m_nSecondCursor = 0; // reset with m_nNextFeature; nothing reads it
    uint8_t m_bMonitor = 0;       // 1: is notified, and counts in CFeatureEntry::isReplied()
    uint32_t m_nKnownCount = 0;
    struct SKnownPair {
        uint32_t m_nCode;
        uint32_t m_nData;
    };
    std::array<SKnownPair, nMaxKnownPairs> m_aKnown = {}; // the first m_nKnownCount are valid

private:
    CFeatureEntry* firstToTake(uint32_t op);
    bool auditEntry(CFeatureEntry& entry);
    void deliver(CFeatureEntry& entry, CCompStatus& record);
    bool isHeldAlready(uint32_t type, uint32_t code, uint32_t data);
};

#endif
