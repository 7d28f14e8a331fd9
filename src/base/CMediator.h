// The mediator pattern between the control and what it owns. Components and feature entries are parties: they
// reach their owner through these operations without knowing its class, so neither header needs the other's.
#ifndef QEL_BASE_CMEDIATOR_H
#define QEL_BASE_CMEDIATOR_H

#include "base/CString.h"

// CQelControl, which implements it, says what each operation does. Main loop's thread only.
class CMediator {
public:
    virtual ~CMediator() = default;
    virtual void clearFeatureArray() = 0;
    virtual void notifyComponents(CString text) = 0;
    // `list` is a CArray<CFeatureEntry*>* or null, `component` a CComponent*: this library stands below those
    // that define them.
    virtual int notifyFeatures(void* list, void* component) = 0;
};

// Not copied, since others point at a party by its address.
class CParty {
public:
    explicit CParty(CMediator* mediator) : m_pMediator(mediator) {}
    virtual ~CParty() = default;
    CParty(const CParty&) = delete;
    CParty& operator=(const CParty&) = delete;

protected:
    CMediator* m_pMediator; // not owned; null in a party that has no owner
};

#endif
