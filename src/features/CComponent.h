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

// Knows how to reach the process (by the header of its last message), which features concern it, which of
// them it said it holds already, and how far it has paged through its list. Builds and sends every message
// that goes to the process.
//
// Identity: a component is found by its name when it announces itself, and by the handle in the header of its
// last message otherwise. It stays registered, with what it was told, until it sends a shutdown message; a
// process that died comes back under its name with another process id and is then told everything again.
//
// The feature entries are the control's; the array here only points at them. They stand in the control's
// order when the component was taken into all of them at once; entries that the audit adds later stand at the
// end. Only the audit checks for duplicates. The order matters: pages, notifications and the crediting of
// replies follow it.
//
// Nothing here throws. Used on the main loop's thread only.
class CComponent : public CParty {
public:
    explicit CComponent(CMediator* mediator);
    ~CComponent() override;

    // Stores what came with the component's latest message. A name of 1 to 16 characters and a text of 1 to
    // 500 replace the stored ones; anything else (null included) leaves them as they are. Header and status
    // always replace the stored ones.
    void init(const CQelMessageHeader& header, const char* name, uint32_t status, const char* text);
    // Replaces the pairs that the process says it holds; pairs beyond nMaxKnownPairs are dropped.
    void setKnownPairs(std::span<const SFeature> pairs);

    void notify(CString text); // does nothing
    void recv(CString text);   // prints the text on standard output

    bool equalMFW(uint32_t handle) const;
    bool equalName(const char* name) const; // exactly, and by case

    // Hands out the next feature of the component's list. That counts as accepted: no write reply follows.
    // False at the end; the position then stays, so features that are added later come with the next call.
    bool getNextFeatureList(uint32_t* code, uint32_t* data);
    // The next page starts at the first feature again.
    void rewindFeatureList();

    // Appends. 1, or 0 where memory is exhausted: that is logged, and an audit adds the entry later.
    int addFeatureEntry(CFeatureEntry* entry);
    int findFeatureEntry(const CFeatureEntry* entry) const; // 1 if the array has it, else 0
    int delFeatureEntry(CFeatureEntry* entry);              // 1 if the array had it, else 0
    void clearFeatureArray();                               // the component's records stay in the features

    // The first entry of the array that takes the event (opNotify or opReply) for this component; null if
    // none does. Each entry that refuses leaves a line in the log, so a reply that nobody awaits costs a line
    // for each feature.
    CFeatureEntry* notifyFeatureArray();
    CFeatureEntry* replyFeatureArray(); // judged by m_nReplyStatus
    // Deletes this component's record in every entry of the array, and leaves the array.
    void removeFeatureArray();
    // Has the control take this component into every feature that concerns it and append those to the array.
    // To start anew, clear the array first. Nothing is sent.
    void notifyAllFeatures();
    // Sends the first pending notification, if there is one. 1 if there was one, else 0. A component that
    // does not monitor is told only of features that have no record of it.
    int auditFeature();
    // Lets the delivery apply an event to this component's record in the entry, and sends the message that
    // results. False if none does. The record has its new state before the message goes out, whether or not
    // that succeeds.
    bool tell(EDeliveryEvent event, const CFeatureEntry& entry, CCompStatus& record);
    void logDeleted(const CFeatureEntry& entry) const;

    static int fillMessageHeader(CQelServerMessage* message, uint32_t type, uint32_t subType, uint32_t tag);
    // Sends one message to the handle, and with the tag, of the last message received. 0 for success, else an
    // error number, which is logged; callers do not try again. An enable that is lost becomes overdue, and
    // later audits send it again.
    //
    // A notification (type 1) of exactly a pair that the component announced is not sent, which is a success
    // too: it counts as accepted at once, and that acceptance is credited as a write reply would be. Anything
    // else that is sent about the code removes the first announced pair of that code.
    int sendMessage(uint32_t type, uint32_t code, uint32_t data);
    int sendMessage(uint32_t type, uint32_t code, uint32_t data, uint32_t extra);

    CArray<CFeatureEntry*> m_aFeatures;
    CQelMessageHeader m_oHeader;        // of the last message received: tag and handle of whatever is sent
    uint32_t m_nProcessId = 0;          // as announced; 0: none, or registered by the daemon itself
    char m_szName[nNameFieldSize] = {}; // NUL-terminated, at most nMaxNameLength characters
    uint32_t m_nReplyStatus = 0;        // of the last reply; nReplyOk is success
    char m_szReplyText[nMaxReplyTextLength + 1] = {};
    uint8_t m_bReplyText = 0;     // 1: the text came with the last message; 0: it is an earlier one's
    uint32_t m_tHeard = 0;        // when the last message came, in seconds since the epoch; 0: none did
    uint32_t m_tDead = 0;         // when its process was found to be gone; 0: it lives, or that is not known
    int32_t m_nNextFeature = 0;   // where in m_aFeatures the next page starts
    uint32_t m_nSecondCursor = 0; // reset with m_nNextFeature; paging uses that one alone
    // 1: is told of changes, and its answers are waited for (CFeatureEntry::isReplied()). Set by
    // StartMonitor, or when the daemon registers the component by itself. Never cleared, so a process that
    // comes back is told before it asks.
    uint8_t m_bMonitor = 0;
    uint32_t m_nKnownCount = 0;
    std::array<SFeature, nMaxKnownPairs> m_aKnown = {}; // the first m_nKnownCount are valid

private:
    CFeatureEntry* firstToTake(uint32_t op);
    bool auditEntry(CFeatureEntry& entry);
    bool isNextToFetch(CFeatureEntry* entry);
    bool isHeldAlready(uint32_t type, uint32_t code, uint32_t data);
};

#endif
