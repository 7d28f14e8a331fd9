#include "features/CQelControl.h"

#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/counters.h"
#include "server/log/singleton.h"

#include <algorithm>
#include <new>

constinit std::atomic<CQelControl*> CQelControl::m_pInstance = nullptr;

namespace {

// The first item, null slots aside, that the test accepts.
template <typename T, typename Test>
T* findItem(const CArray<T*>& array, Test test) {
    for (T* item : array.m_vItems) {
        if (item != nullptr && test(*item)) {
            return item;
        }
    }
    return nullptr;
}

template <typename T>
bool addItem(CArray<T*>& array, T* item) {
    const bool isAdded = array.add(item);
    if (!isAdded) {
        logEvent(svError, 31124, "failed to new obj");
    }
    return isAdded;
}

} // namespace

CQelControl* CQelControl::instance() {
    return singleton(m_pInstance, [] { return new (std::nothrow) CQelControl; });
}

// Components first: they point at entries and never look at them on their way out, while an entry deletes its
// records without looking at their components (dvForget).
CQelControl::~CQelControl() {
    for (CComponent* comp : m_aComponents.m_vItems) {
        delete comp;
    }
    m_aComponents.m_vItems.clear();
    for (CFeatureEntry* entry : m_aFeatures.m_vItems) {
        delete entry;
    }
    m_aFeatures.m_vItems.clear();
}

// The components' arrays are emptied as well, or they would point at entries that the caller deletes.
void CQelControl::clearFeatureArray() {
    for (CFeatureEntry* entry : m_aFeatures.m_vItems) {
        if (entry != nullptr) {
            entry->clear();
        }
    }
    m_aFeatures.m_vItems.clear();
    for (CComponent* comp : m_aComponents.m_vItems) {
        if (comp != nullptr) {
            comp->clearFeatureArray();
        }
    }
}

bool CQelControl::addComponent(CComponent* comp) {
    return addItem(m_aComponents, comp);
}

// Looks at every feature, not only at the component's array, which may lack some that still have its record:
// the array is refilled by name when a component comes back, and its name may have changed in between. A
// record left behind would point at freed memory.
int CQelControl::delComponent(CComponent* comp) {
    for (CFeatureEntry* entry : m_aFeatures.m_vItems) {
        if (entry != nullptr && entry->findCompByPtr(comp) != nullptr) {
            entry->addComponent(CFeatureEntry::opRemove, comp);
        }
    }
    ++nTableMoves;
    return m_aComponents.del(comp);
}

bool CQelControl::addFeature(CFeatureEntry* entry) {
    return addItem(m_aFeatures, entry);
}

void CQelControl::reserveFeatures(size_t more) {
    m_aFeatures.m_vItems.reserve(m_aFeatures.m_vItems.size() + more);
}

void CQelControl::takeFeatures(bool (*isMeant)(const CFeatureEntry&), std::vector<CFeatureEntry*>& taken) {
    std::erase_if(m_aFeatures.m_vItems, [&](CFeatureEntry* entry) {
        const bool isTaken = entry != nullptr && isMeant(*entry);
        if (isTaken) {
            taken.push_back(entry);
        }
        return isTaken;
    });
}

// Only for a removal by itself: linear. A pass that removes many compacts the table once (CRemovals).
int CQelControl::delFeature(CFeatureEntry* entry) {
    return m_aFeatures.del(entry);
}

CComponent* CQelControl::findCompByName(const char* name) const {
    return findItem(m_aComponents, [name](const CComponent& comp) { return comp.equalName(name); });
}

CComponent* CQelControl::findCompByMFW(uint32_t handle) const {
    return findItem(m_aComponents, [handle](const CComponent& comp) { return comp.equalMFW(handle); });
}

CFeatureEntry* CQelControl::findFeatureByCode(uint32_t code) const {
    return findItem(m_aFeatures, [code](const CFeatureEntry& entry) { return entry.m_nCode == code; });
}

CFeatureEntry* CQelControl::findFeatureByCodeData(uint32_t code, uint32_t data) const {
    return findItem(m_aFeatures, [code, data](const CFeatureEntry& entry) {
        return entry.m_nCode == code && entry.m_nData == data;
    });
}
