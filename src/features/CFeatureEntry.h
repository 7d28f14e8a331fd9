// One feature in force, and the state of its delivery to every component that it concerns.
#ifndef QEL_FEATURES_CFEATUREENTRY_H
#define QEL_FEATURES_CFEATUREENTRY_H

#include "base/CMediator.h"
#include "base/CString.h"
#include "features/CCompStatus.h"
#include "features/CRecordPool.h"

#include <cstdint>
#include <string_view>
#include <vector>

// The heart of the delivery: every event about this feature at one component goes through addComponent(),
// which moves that component's record, counts the sends, stamps the time and writes the log line. The entry
// sends nothing itself; a result of 1 for opNotify tells the caller to send.
//
// The delivery, phase by phase (enable 1-4, disable 5-8, modify 9-12):
//
//   from            event                                   to   result, log event
//   none            opAdd, feature not withdrawn            0    1, 31125
//   none            opAdd, feature withdrawn                6    1, 31125
//   0, 1, 4         opNotify, fewer than three sends        1    1 (send), 31126
//   5, 8            opNotify, fewer than three sends        5    1 (send), 31126
//   9, 12           opNotify, fewer than three sends        9    1 (send), 31126
//   0, 1, 4         opNotify, three sends already           3    0, 31126
//   5, 8            opNotify, three sends already           7    0, 31126
//   9, 12           opNotify, three sends already           11   0, 31126
//   2 3 6 7 10 11   opNotify (settled)                      -    0
//   1 / 5 / 9       overdue (CQelControl::timeout)          4 / 8 / 11
//   1 / 5 / 9       opReply, success                        2 / 6 / 10   1, 31129 / 31131 / 31131
//   1 / 5 / 9       opReply, failure                        3 / 7 / 11   1, 31130 / 31132 / 31132
//   other           opReply (stamp renewed)                 -    0, 31133
//   2               opConfirm (stamp renewed)               2    1, 31137
//   other           opConfirm                               -    0, 31138
//   any             opRemove                                none 1, 31135
//
// An enable or disable that is overdue counts as answered and is sent again by the next opNotify; a
// modification that is overdue has failed for good. Each phase allows three sends; the fourth opNotify
// declares the failure.
//
// Invariants: a component has at most one record here, though the record may stand in two slots (a component
// that came back under its name is taken in again while its record still stands). A record that goes leaves
// no slot pointing at it. No slot is null.
//
// Used on the main loop's thread only, but for construction and setupName(), which the feature source calls
// on its own thread for entries that nobody else knows yet.
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
    enum EFStatus : int8_t {
        fsNewAdd = 0,  // new, or withdrawn and taken into use again
        fsModify = 1,  // its data changes
        fsActive = 2,  // delivered and settled
        fsDeleted = 3, // withdrawn; its components are being told
        fsExisting = 4 // unchanged by the latest merge
    };

    // How long a reply may take: overdue when more than so many seconds have passed.
    static constexpr uint32_t nReplyTimeout = 10;
    // Sends that each phase allows.
    static constexpr uint32_t nMaxTries = 3;

    explicit CFeatureEntry(CMediator* mediator);
    ~CFeatureEntry() override;

    // Entries that are made one after the other lie one after the other; see CSlotPool. From any thread.
    static void* operator new(size_t size);
    static void operator delete(void* memory, size_t size);

    // Appends the pointer; the string is the caller's and must outlive its use here.
    void addCompName(const char* name);
    // 1 if the feature concerns the component called `name`: one of the names added, exactly, or one of the
    // two that every feature concerns, "ALL" and "Anchor".
    int findCompName(const char* name) const;
    static bool isConcernedByAll(std::string_view name);

    // The component's record, or null.
    CCompStatus* findCompByPtr(const CComponent* comp) const;

    // Applies one event. 1 if it was taken, 0 if it was refused.
    int addComponent(EOperator op, CComponent* comp);
    // opNotify for a caller that has found the component's record already.
    int notify(CCompStatus& record);

    // 1 if every monitored component has answered. For fsModify only the answers to a modification count.
    int isReplied(EFStatus status) const;
    // Sets every record's state, and nothing else of it. 1 if there was a record.
    int setCompStatus(CCompStatus::ECStatus status);

    // Has the processor fetch the records, and where they stand, before they are used.
    void prefetchRecords() const;

    // Walk over the overdue records; do not remove records during it. At the end: null, and the walk is
    // reset.
    CCompStatus* findFirstTimeout();
    CCompStatus* findNextTimeout();
    // Where an overdue record goes: the state itself, unless it is a waiting one.
    static CCompStatus::ECStatus overdueStatus(CCompStatus::ECStatus status);

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
    // Reads a decimal number: leading blanks, an optional sign, digits. 0 where there is none. Beyond the
    // signed 32-bit range it wraps, so that 4294967295 reads as -1.
    static int doC2N(const char* text);

    // What every pass over the table reads stands first, within one cache line or two.
    EFStatus m_eStatus = fsNewAdd;
    uint8_t m_bSourced = 0; // 1: the source keeps this entry from list to list
    uint32_t m_nCode = 0;
    uint32_t m_nData = 0;
    uint32_t m_nNewData = 0; // waits to take effect at the end of a modification; 0: none

private:
    // Of m_vCompStatus; a record there may also come from elsewhere, made by `new`.
    [[no_unique_address]] CRecordPool m_oRecords;

public:
    int32_t m_nTimeoutIndex = 0;             // slot of the overdue record returned last
    std::vector<CCompStatus*> m_vCompStatus; // owned; in the order in which components were taken in
    std::vector<const char*> m_vCompNames;   // not owned
    CString m_sName;

private:
    int add(CComponent* comp);
    CCompStatus* makeRecord();
    int reply(CCompStatus& record);
    int remove(CCompStatus& record);
    int confirm(CCompStatus& record);
    int refuse(EOperator op, const CComponent& comp) const;
    void endModification();
    void deleteRecords();
    CCompStatus* findTimeout(size_t from);
};

#endif
