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

// The entry knows whom the feature concerns (by name) and has a record (CCompStatus) for each component that
// was taken into its delivery. Five operations go through addComponent(), which finds the component's record
// and lets the delivery decide (features/delivery.h); the audits, the paging and the timeout pass hand the
// record to the delivery themselves. The entry sends nothing: a result of 1 for opNotify tells the caller to
// send.
//
// Life: the feature source builds an entry, the control's table takes it over, the merge sets its status, and
// the timeout pass deletes it once it is withdrawn and all have answered.
//
// Invariants:
//
// - A component has at most one record here, but that record may stand in two slots: a component that comes
//   back under its name is taken in again while its old record still stands. It never stands in three: one
//   slot more each time that a component comes back would use up the memory in the end.
// - A record that is deleted leaves no slot pointing at it.
// - No slot is null.
// - No record outlives its component in the control's table (CQelControl::delComponent()).
//
// Nothing here throws, except addCompName(). Everything belongs to the main loop's thread, with one
// exception: the feature source constructs and fills entries (addCompName(), setupName(), the public members)
// on its own thread while nobody else knows them yet.
class CFeatureEntry : public CParty {
public:
    // What can be asked of addComponent().
    enum EOperator : uint32_t {
        opAdd = 0,    // take the component into delivery
        opNotify = 1, // a message for this feature is being sent to the component now
        opReply = 2,  // the component answered; its result is CComponent::m_nReplyStatus
        opRemove = 3, // drop the component's record
        opConfirm = 4 // the component confirms again what it had accepted
    };

    // The feature's own state. The merge sets all but fsActive, which means that the feature is settled: by
    // the timeout pass, by the last answer to a modification, or by a fetch. OAM receives these numbers, so
    // they must not change.
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

    // Whether the entry stands for nobody but components that a list dropped from a feature which others
    // keep. The hand-over makes such entries: withdrawn, so that the audit tells those components to disable
    // the feature and the timeout pass removes the entry, and sourced, so that it is not listed as a second
    // feature. No other entry is both, for a merge withdraws only what the hand-over left without the flag.
    bool isLeaving() const { return m_eStatus == fsDeleted && m_bSourced == 1; }

    // Appends the pointer, without a copy or a check. The string must outlive the entry, for it stays the
    // caller's. Records are not touched: if the entry is in force, a later audit takes the component in.
    // Throws std::bad_alloc.
    void addCompName(const char* name);
    // 1 if the feature concerns the component called `name`, else 0. It does if the name was added (compared
    // exactly, and by case), or is one of aAlwaysConcerned: those take part in every feature.
    int findCompName(const char* name) const;
    static constexpr const char* aAlwaysConcerned[] = {"ALL", "Anchor"};

    // The component's record, or null. Linear in the number of records.
    CCompStatus* findCompByPtr(const CComponent* comp) const;

    // Applies one event. 1 if it was taken, 0 if it was refused: the log says why, except where opAdd meets a
    // component that the feature does not concern, and opNotify a delivery that is settled. All but opAdd
    // need a record of the component.
    int addComponent(EOperator op, CComponent* comp);
    // 1 if every monitoring component has answered, also where there is none. For fsModify only answers to a
    // modification count; for any other value, answers of all phases.
    int isReplied(EFStatus status) const;
    // Sets the state of every record, and leaves stamps and counters. 1 if there was a record, else 0.
    int setCompStatus(CCompStatus::ECStatus status);

    // A walk over the overdue records: call the first, then the second until it returns null. The position is
    // kept in the entry, so one walk at a time; do not remove records during it.
    CCompStatus* findFirstTimeout();
    CCompStatus* findNextTimeout();
    // Takes over another entry's code and data, deletes all records and sets fsModify. Null is only logged.
    void modifyByPtr(const CFeatureEntry* other);
    // Gives the heir the records of the components that it names; they become idle. Names and components'
    // arrays are left to the caller. The heir must have room for the records (m_vCompStatus.reserve()).
    void passOn(CFeatureEntry& heir);
    // Puts the pending data into force, if there is any.
    void commitNewData();
    // Deletes every record and forgets the component names.
    void clear();

    // Fills m_sName from the feature description file. 1, also if that has no name for the feature; 0 if it
    // is no regular file, cannot be opened, or there is no memory. Reads the whole file each time, so naming
    // n features reads it n times.
    int setupName();
    // Whether a description file is configured at all: by QEL_DESCRIPTION in the environment, or compiled in.
    static bool hasDescriptionFile();
    // Reads a decimal number as CDescriptions::readNumber() does, as a signed one: 4294967295 becomes -1.
    static int doC2N(const char* text);

    EFStatus m_eStatus = fsNewAdd;
    uint32_t m_nCode = 0;
    uint32_t m_nData = 0;
    CString m_sName;                         // for people; empty where the description file has no name
    uint32_t m_nNewData = 0;                 // takes effect at the end of a modification; 0: none is pending
    std::vector<const char*> m_vCompNames;   // whom the feature concerns; strings not owned
    std::vector<CCompStatus*> m_vCompStatus; // owned; in the order in which components were taken in
    int32_t m_nTimeoutIndex = 0;             // slot of the overdue record that was returned last
    uint8_t m_bSourced = 0;                  // 1: a merge keeps or modifies the entry; see CFeatureMerge

private:
    int add(CComponent* comp);
    CCompStatus* takeSlot(CComponent* comp);
    bool takeName(std::string_view name);
    int reply(CCompStatus& record);
    int remove(CCompStatus& record);
    int refuse(EOperator op, const CComponent& comp) const;
    void endModification();
    void deleteRecords();
    CCompStatus* findTimeout(size_t from);
};

#endif
