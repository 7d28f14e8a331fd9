// The registry of components and features: look-ups, the merge of a new feature list, the periodic passes,
// and the packed list for OAM.
#ifndef QEL_FEATURES_CQELCONTROL_H
#define QEL_FEATURES_CQELCONTROL_H

#include "base/CArray.h"
#include "base/CMediator.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

class CComponent;
class CFeatureEntry;
class CPassIndex;
struct CCompStatus;

// Owns every component and every feature entry in its tables, and deletes them with itself, components first.
// Tables may hold null slots; every walk skips them. Used on the main loop's thread only.
//
// Invariant: between two messages, no feature holds a record of a component that is not in the table. Without
// it, an audit would send to a component that has been freed.
//
// The merge, audit(), timeout() and notifyFeatures() cost instructions linear in features times components
// concerned. The indexes that they need live for one operation only; where there is no memory for one, the
// operation searches instead, with the same result. Nothing here throws: a component or feature for which
// there is no memory is logged, and a later audit, announcement or list repairs it.
class CQelControl : public CMediator {
public:
    // Created on first use, lives until the process ends. Null only where memory is exhausted.
    static CQelControl* instance();

    CQelControl() = default;
    ~CQelControl() override;
    CQelControl(const CQelControl&) = delete;
    CQelControl& operator=(const CQelControl&) = delete;

    // Forgets all features, here and at the components, and deletes their records. The entries themselves
    // pass to the caller, who must have kept their addresses.
    void clearFeatureArray() override;
    // Passes a text to every component's recv().
    void notifyComponents(CString text) override;
    // Takes `component` (a CComponent*) into every feature that concerns it, and appends those to `list` (a
    // CArray<CFeatureEntry*>*, or null). Nothing is sent. The result is that of the last feature alone, so it
    // tells nothing about the others.
    int notifyFeatures(void* list, void* component) override;

    // Bytes of the packed list for OAM, and the list itself: 1, or 0 if `buffer` is null. The buffer must
    // have room for getPackSize() bytes; the size holds until a feature comes or
    // goes, or its m_bSourced changes.
    virtual int getPackSize();
    virtual int packFeatures(char* buffer);

    // Takes ownership. False where memory is exhausted: that is logged, and the component stays the caller's.
    [[nodiscard]] bool addComponent(CComponent* comp);
    // Removes the component from the table, if it is there, and its records from every feature. The component
    // is the caller's again. 1 if the table had it, else 0.
    int delComponent(CComponent* comp);
    // As addComponent(). No check for duplicates.
    [[nodiscard]] bool addFeature(CFeatureEntry* entry);
    // Makes room, so that as many addFeature() cannot fail. Throws std::bad_alloc.
    void reserveFeatures(size_t more);
    // Takes the entries that `isMeant` accepts out of the table and appends them to `taken`, which must have
    // room for them: they are the caller's, and components' arrays still hold them. The others keep their
    // order. Linear in the table.
    void takeFeatures(bool (*isMeant)(const CFeatureEntry&), std::vector<CFeatureEntry*>& taken);
    // Removes the entry from the table only: it is the caller's again, and components' arrays still hold it.
    int delFeature(CFeatureEntry* entry);

    // The first match in table order, null if there is none. Withdrawn features are found as well, until the
    // timeout pass removes them. Linear: meant for one look-up a message, not for one a feature.
    CComponent* findCompByName(const char* name) const;
    CComponent* findCompByMFW(uint32_t handle) const;
    CFeatureEntry* findFeatureByCode(uint32_t code) const;
    CFeatureEntry* findFeatureByCodeData(uint32_t code, uint32_t data) const;

    // Merges a complete new list of fresh entries into the table. Slots whose entry was adopted or deleted
    // are null afterwards; what is left in the list is the caller's to delete. The merge only marks: the
    // passes below do the telling. The result is a CFeatureMerge::EResult; CFeatureMerge.h has the rules.
    int addFeatureList(CArray<CFeatureEntry*>& list);

    // Registers those well-known components whose processes run and which have not announced themselves yet.
    // They count as having what is in force, and as monitoring. Called after each new list. The result is
    // that of the last look-up of a process and tells nothing about the others.
    int auditComponent();

    // Tells the components concerned about the first feature, in table order, of which any of them is to be
    // told; the others wait for later audits, so a long new list does not burst over all components. Only
    // components that monitor are told of changes. Components that lack a feature, or a record in it, are
    // told even if they do not.
    void audit();
    // Tells one component about the first feature of which it is to be told; withdrawn features are left to
    // audit(). 1 if something was sent, else 0.
    int auditComp(CComponent* comp);
    // Settles features that all have answered, removes withdrawn ones, and tells components of replies that
    // are overdue (type 4). It does not send features again; later audits do.
    void timeout();

    const CArray<CComponent*>& components() const { return m_aComponents; }
    const CArray<CFeatureEntry*>& features() const { return m_aFeatures; }

private:
    bool auditFeature(size_t feature, const CPassIndex& index);
    void removeNow(CFeatureEntry* entry);

    static std::atomic<CQelControl*> m_pInstance;

    CArray<CComponent*> m_aComponents;
    CArray<CFeatureEntry*> m_aFeatures;
};

#endif
