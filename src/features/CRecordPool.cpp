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

CRecordPool::SBlock* CRecordPool::newest() const {
    return m_pSlots != nullptr ? reinterpret_cast<SBlock*>(m_pSlots) - 1 : nullptr;
}

CRecordPool::~CRecordPool() {
    SBlock* block = newest();
    while (block != nullptr) {
        SBlock* older = block->m_pOlder;
        ::operator delete(block);
        block = older;
    }
}

CCompStatus* CRecordPool::make(size_t expected) {
    SBlock* block = newest();
    USlot* slot = block != nullptr ? block->m_pFree : nullptr;
    if (slot != nullptr) {
        ASAN_UNPOISON_MEMORY_REGION(slot, sizeof *slot);
        block->m_pFree = slot->m_pNextFree;
        return new (slot) CCompStatus;
    }
    if (block == nullptr || block->m_nTaken == block->m_nSlots) {
        if (!grow(expected)) {
            return nullptr;
        }
        block = newest();
    }
    slot = m_pSlots + block->m_nTaken++;
    ASAN_UNPOISON_MEMORY_REGION(slot, sizeof *slot);
    return new (slot) CCompStatus;
}

// Called when nothing is free. Each block at least doubles what there is.
bool CRecordPool::grow(size_t expected) {
    size_t slots = std::max<size_t>(expected, 1);
    for (const SBlock* block = newest(); block != nullptr; block = block->m_pOlder) {
        slots = std::max(slots, 2 * size_t{block->m_nSlots});
    }
    void* memory = ::operator new(sizeof(SBlock) + slots * sizeof(USlot), std::nothrow);
    if (memory == nullptr) {
        return false;
    }
    auto* block = new (memory) SBlock{newest(), nullptr, static_cast<uint32_t>(slots), 0};
    m_pSlots = block->slots();
    m_nSlots = block->m_nSlots;
    std::fill_n(m_pSlots, slots, USlot{nullptr}); // what the memory held is no component
    ASAN_POISON_MEMORY_REGION(m_pSlots, slots * sizeof(USlot));
    return true;
}

void CRecordPool::drop(CCompStatus* record) {
    USlot* slot = slotOf(record);
    if (slot == nullptr) {
        delete record;
        return;
    }
    slot->m_pNextFree = newest()->m_pFree;
    newest()->m_pFree = slot;
    ASAN_POISON_MEMORY_REGION(slot, sizeof *slot);
}

// A slot that is not in use holds the address of another, or null, where a record has its component's.
CCompStatus* CRecordPool::recordAt(size_t n, const CComponent* comp) const {
    if (bAddressSanitizer || n >= m_nSlots || m_pSlots[n].m_oRecord.m_pComponent != comp) {
        return nullptr;
    }
    return &m_pSlots[n].m_oRecord;
}

void CRecordPool::prefetchAll() const {
    for (SBlock* block = newest(); block != nullptr; block = block->m_pOlder) {
        prefetch(block->slots(), block->m_nTaken * sizeof(USlot));
    }
}

// Null for a record that is not the pool's.
CRecordPool::USlot* CRecordPool::slotOf(const CCompStatus* record) const {
    const std::less<const void*> before;
    for (SBlock* block = newest(); block != nullptr; block = block->m_pOlder) {
        USlot* begin = block->slots();
        if (!before(record, begin) && before(record, begin + block->m_nSlots)) {
            return begin + (record - &begin->m_oRecord);
        }
    }
    return nullptr;
}
