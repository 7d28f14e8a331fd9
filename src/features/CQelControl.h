// The registry of components and features: look-ups, the merge of a new feature list, the periodic passes,
// and the packed list for OAM.
#ifndef QEL_FEATURES_CQELCONTROL_H
#define QEL_FEATURES_CQELCONTROL_H

#include "base/CArray.h"
#include "base/CMediator.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

class CComponent;
class CFeatureEntry;
class CPassIndex;
struct CCompStatus;

// Owns every component and every feature entry in its tables, and deletes them with itself, components first.
// Tables may hold null slots; every walk skips them. Used on the main loop's thread only.
//
// Invariant: no feature holds a record of a component that is not in the table.
//
// The merge, audit(), timeout() and notifyFeatures() cost instructions linear in features times components
// concerned. The indexes that they need live for the one operation; where there is no memory for one, the
// operation searches instead. Nothing here throws.
class CQelControl : public CMediator {
public:
    // Created on first use, lives until the process ends. Null only where memory is exhausted.
    static CQelControl* instance();

    CQelControl() = default;
    ~CQelControl() override;
    CQelControl(const CQelControl&) = delete;
    CQelControl& operator=(const CQelControl&) = delete;

    // Forgets all features, here and at the components. The entries themselves stay the caller's to delete.
    void clearFeatureArray() override;
    // Writes a text to every component's recv().
    void notifyComponents(CString text) override;
    // Takes `component` (a CComponent*) into every feature that concerns it, and appends those to `list` (a
    // CArray<CFeatureEntry*>*, may be null).
    int notifyFeatures(void* list, void* component) override;

    // Bytes of the packed list, and the list itself: 1, or 0 if there is no buffer.
    virtual int getPackSize();
    virtual int packFeatures(char* buffer);

    // Takes ownership. False where memory is exhausted: the log tells, and the component stays the caller's.
    [[nodiscard]] bool addComponent(CComponent* comp);
    // Removes the component from the table, and its records from every feature; does not delete it.
    int delComponent(CComponent* comp);
    // As addComponent().
    [[nodiscard]] bool addFeature(CFeatureEntry* entry);
    int delFeature(CFeatureEntry* entry); // gives it back

    // The first in table order; null if none.
    CComponent* findCompByName(const char* name) const;
    CComponent* findCompByMFW(uint32_t handle) const;
    CFeatureEntry* findFeatureByCode(uint32_t code) const;
    CFeatureEntry* findFeatureByCodeData(uint32_t code, uint32_t data) const;

    // Merges a complete new list of fresh entries into the table. Slots whose entry was adopted or deleted
    // are null afterwards; what is left in the list is the caller's to delete. Only marks: the passes below
    // do the telling. Result, of what came last: 1 a feature that needs a restart of the appliance was added
    // or modified; 2 a feature was withdrawn or its data lowered; 0 neither.
    int addFeatureList(CArray<CFeatureEntry*>& list);

    // Registers those well-known components whose processes run and that have not announced themselves yet.
    int auditComponent();

    // Tells the components concerned about the first feature, in table order, of which any is to be told.
    void audit();
    // Tells one component about the first feature of which it is to be told. 1 if something was sent.
    int auditComp(CComponent* comp);
    // Settles features that all have answered, removes withdrawn ones, and sends overdue ones again.
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
