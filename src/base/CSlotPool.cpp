#include "base/CSlotPool.h"

#include <new>

namespace {

constexpr size_t nCacheLine = 64;
constexpr size_t nSlotsInBlock = 64;

} // namespace

void* CSlotPool::take() {
    const std::lock_guard<std::mutex> lock(m_oMutex);
    if (m_pFirstFree != nullptr) {
        SFree* slot = m_pFirstFree;
        m_pFirstFree = slot->m_pNext;
        return slot;
    }
    if (m_pFresh == m_pFreshEnd) {
        grow();
    }
    char* slot = m_pFresh;
    m_pFresh += m_nSlotSize;
    return slot;
}

void CSlotPool::give(void* memory) {
    const std::lock_guard<std::mutex> lock(m_oMutex);
    auto* slot = new (memory) SFree{nullptr};
    (m_pFirstFree != nullptr ? m_pLastFree->m_pNext : m_pFirstFree) = slot;
    m_pLastFree = slot;
}

void CSlotPool::grow() {
    const size_t size = nSlotsInBlock * m_nSlotSize;
    m_pFresh = static_cast<char*>(::operator new (size, std::align_val_t{nCacheLine}));
    m_pFreshEnd = m_pFresh + size;
}
