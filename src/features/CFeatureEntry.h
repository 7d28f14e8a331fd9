// One feature in force, and the state of its delivery to every component that it concerns.
#ifndef QEL_FEATURES_CFEATUREENTRY_H
#define QEL_FEATURES_CFEATUREENTRY_H

#include "base/CMediator.h"
#include "base/CString.h"
#include "base/SFeature.h"
#include "features/CCompStatus.h"

#include <cstdint>
#include <string_view>
#include <vector>

// Every event about this feature at one component goes through addComponent(), which finds the component's record
// and has the delivery decide (features/delivery.h). The entry sends nothing; a result of 1 for opNotify tells
// the caller to send.
//
// Invariants: a component has at most one record here, though the record may stand in two slots: a component that
// came back under its name is taken in again while its record still stands. A record that goes leaves no slot
// pointing at it. No slot is null.
//
// Nothing here throws, but for addCompName(). Used on the main loop's thread only, but for
// construction and those two, which the feature source calls on its own thread for entries that nobody else knows
// yet.
class CFeatureEntry : public CParty {
public:
    enum EOperator : uint32_t {
        opAdd = 0,    // take the component into delivery
        opNotify = 1, // a message for this feature is being sent to the component now
        opReply = 2,  // the component answered; its result is CComponent::m_nReplyStatus
        opRemove = 3, // drop the component's record
        opConfirm = 4 // the component confirms again what it had accepted
    };

    // The feature's own state between merge and settlement.
    enum EFStatus : int32_t {
        fsNewAdd = 0,  // new, or withdrawn and taken into use again
        fsModify = 1,  // its data changes
        fsActive = 2,  // delivered and settled
        fsDeleted = 3, // withdrawn; its components are being told
        fsExisting = 4 // unchanged by the latest merge
    };

    explicit CFeatureEntry(CMediator* mediator);
    ~CFeatureEntry() override;

    SFeature id() const { return {m_nCode, m_nData}; }

    // Appends the pointer; the string is the caller's and must outlive its use here.
    void addCompName(const char* name);
    // 1 if the feature concerns the component called `name`: one of the names added, exactly, or one of those
    // that every feature concerns.
    int findCompName(const char* name) const;
    static constexpr const char* aAlwaysConcerned[] = {"ALL", "Anchor"};

    // The component's record, or null.
    CCompStatus* findCompByPtr(const CComponent* comp) const;

    // Applies one event. 1 if it was taken, 0 if it was refused.
    int addComponent(EOperator op, CComponent* comp);
    // 1 if every monitored component has answered. For fsModify only the answers to a modification count.
    int isReplied(EFStatus status) const;
    // Sets every record's state, and nothing else of it. 1 if there was a record.
    int setCompStatus(CCompStatus::ECStatus status);

    // Walk over the overdue records; do not remove records during it. At the end: null, and the walk is
    // reset.
    CCompStatus* findFirstTimeout();
    CCompStatus* findNextTimeout();
    // Takes over another entry's code and data, and starts a modification without any record.
    void modifyByPtr(const CFeatureEntry* other);
    // Makes the pending data the data in force, if there is any.
    void commitNewData();
    // Deletes every record and forgets the component names.
    void clear();

    // Fills m_sName from the feature description file, which is read anew each time. 0 if that cannot be
    // read.
    int setupName();
    // Whether a description file is configured at all: QEL_DESCRIPTION in the environment, else compiled in.
    static bool hasDescriptionFile();
    // Reads a decimal number as CDescriptions::readNumber() does: 4294967295 reads as -1.
    static int doC2N(const char* text);

    EFStatus m_eStatus = fsNewAdd;
    uint32_t m_nCode = 0;
    uint32_t m_nData = 0;
    CString m_sName;                         // for people; empty where nobody named the feature
    uint32_t m_nNewData = 0;                 // waits to take effect at the end of a modification; 0: none
    std::vector<const char*> m_vCompNames;   // not owned
    std::vector<CCompStatus*> m_vCompStatus; // owned; in the order in which components were taken in
    int32_t m_nTimeoutIndex = 0;             // slot of the overdue record returned last
    uint8_t m_bSourced = 0;                  // 1: the source keeps this entry from list to list

private:
    int add(CComponent* comp);
    CCompStatus* takeSlot(CComponent* comp);
    void takeName(std::string_view name);
    int reply(CCompStatus& record);
    int remove(CCompStatus& record);
    int refuse(EOperator op, const CComponent& comp) const;
    void endModification();
    void deleteRecords();
    CCompStatus* findTimeout(size_t from);
};

#endif
