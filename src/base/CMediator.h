// The mediator pattern between the control and what it owns: components and feature entries are parties that
// reach their owner through these operations without knowing its class.
#ifndef QEL_BASE_CMEDIATOR_H
#define QEL_BASE_CMEDIATOR_H

#include "base/CString.h"

class CMediator {
public:
    virtual ~CMediator() = default;
    virtual void clearFeatureArray() = 0;
    virtual void notifyComponents(CString text) = 0;
    virtual int notifyFeatures(void* list, void* component) = 0;
};

class CParty {
public:
    explicit CParty(CMediator* mediator) : m_pMediator(mediator) {}
    virtual ~CParty() = default;
    CParty(const CParty&) = delete;
    CParty& operator=(const CParty&) = delete;

protected:
    CMediator* m_pMediator; // not owned
};

#endif
