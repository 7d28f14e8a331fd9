#include "base/CSlotPool.h"

#include <new>

void* CSlotPool::take() {
    const std::lock_guard<std::mutex> lock(m_oMutex);
    if (m_pFirst == nullptr) {
        m_pFirst = m_pLast = newSlab();
    }
    SSlab* slab = m_pFirst;
    const auto slot = static_cast<size_t>(std::countr_zero(slab->m_nFree));
    slab->m_nFree &= slab->m_nFree - 1;
    if (slab->m_nFree == 0) {
        m_pFirst = slab->m_pNext;
    }
    return reinterpret_cast<char*>(slab) + slot * m_nSlotSize;
}

void CSlotPool::give(void* memory) {
    const std::lock_guard<std::mutex> lock(m_oMutex);
    const auto offset = reinterpret_cast<uintptr_t>(memory) & (m_nSlabSize - 1);
    auto* slab = reinterpret_cast<SSlab*>(static_cast<char*>(memory) - offset);
    if (slab->m_nFree == 0) {
        slab->m_pNext = nullptr;
        (m_pFirst != nullptr ? m_pLast->m_pNext : m_pFirst) = slab;
        m_pLast = slab;
    }
    slab->m_nFree |= uint64_t{1} << (offset / m_nSlotSize);
}

CSlotPool::SSlab* CSlotPool::newSlab() {
    constexpr size_t nSlabs = 16; // at a time: aligned memory has a margin
    if (m_pFresh == m_pFreshEnd) {
        m_pFresh = static_cast<char*>(::operator new (nSlabs* m_nSlabSize, std::align_val_t{m_nSlabSize}));
        m_pFreshEnd = m_pFresh + nSlabs * m_nSlabSize;
    }
    const size_t slots = m_nSlabSize / m_nSlotSize;
    const uint64_t all = ~uint64_t{0} >> (nMaxSlots - slots);
    auto* slab = new (m_pFresh) SSlab{nullptr, all & ~uint64_t{1}};
    m_pFresh += m_nSlabSize;
    return slab;
}
