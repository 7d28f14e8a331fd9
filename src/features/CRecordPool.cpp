#include "features/CRecordPool.h"

#include "base/prefetch.h"
#include "base/sanitizer.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <new>
#include <type_traits>

static_assert(std::is_trivially_destructible_v<CCompStatus>);

union CRecordPool::USlot {
    USlot* m_pNextFree;
    CCompStatus m_oRecord;
};

// The slots follow their block in memory.
struct CRecordPool::SBlock {
    SBlock* m_pOlder;
    USlot* m_pFree; // dropped records of all blocks; kept by the newest
    uint32_t m_nSlots;
    uint32_t m_nTaken; // the slots from here on were never used

    USlot* slots() { return reinterpret_cast<USlot*>(this + 1); }
};

CRecordPool::~CRecordPool() {
    while (SBlock* block = m_pNewest) {
        m_pNewest = block->m_pOlder;
        ::operator delete(block);
    }
}

CCompStatus* CRecordPool::make(size_t expected) {
    USlot* slot = m_pNewest != nullptr ? m_pNewest->m_pFree : nullptr;
    if (slot != nullptr) {
        ASAN_UNPOISON_MEMORY_REGION(slot, sizeof *slot);
        m_pNewest->m_pFree = slot->m_pNextFree;
        return new (slot) CCompStatus;
    }
    if ((m_pNewest == nullptr || m_pNewest->m_nTaken == m_pNewest->m_nSlots) && !grow(expected)) {
        return nullptr;
    }
    slot = m_pNewest->slots() + m_pNewest->m_nTaken++;
    ASAN_UNPOISON_MEMORY_REGION(slot, sizeof *slot);
    return new (slot) CCompStatus;
}

// Called when nothing is free. Each block at least doubles what there is.
bool CRecordPool::grow(size_t expected) {
    size_t slots = std::max<size_t>(expected, 1);
    for (const SBlock* block = m_pNewest; block != nullptr; block = block->m_pOlder) {
        slots = std::max(slots, 2 * size_t{block->m_nSlots});
    }
    void* memory = ::operator new(sizeof(SBlock) + slots * sizeof(USlot), std::nothrow);
    if (memory == nullptr) {
        return false;
    }
    m_pNewest = new (memory) SBlock{m_pNewest, nullptr, static_cast<uint32_t>(slots), 0};
    ASAN_POISON_MEMORY_REGION(m_pNewest->slots(), slots * sizeof(USlot));
    return true;
}

void CRecordPool::drop(CCompStatus* record) {
    USlot* slot = slotOf(record);
    if (slot == nullptr) {
        delete record;
        return;
    }
    slot->m_pNextFree = m_pNewest->m_pFree;
    m_pNewest->m_pFree = slot;
    ASAN_POISON_MEMORY_REGION(slot, sizeof *slot);
}

void CRecordPool::prefetchAll() const {
    for (SBlock* block = m_pNewest; block != nullptr; block = block->m_pOlder) {
        prefetch(block->slots(), block->m_nTaken * sizeof(USlot));
    }
}

// Null for a record that is not the pool's.
CRecordPool::USlot* CRecordPool::slotOf(const CCompStatus* record) const {
    const std::less<const void*> before;
    for (SBlock* block = m_pNewest; block != nullptr; block = block->m_pOlder) {
        USlot* begin = block->slots();
        if (!before(record, begin) && before(record, begin + block->m_nSlots)) {
            return begin + (record - &begin->m_oRecord);
        }
    }
    return nullptr;
}
