// Memory for many objects of one size, side by side.
#ifndef QEL_BASE_CSLOTPOOL_H
#define QEL_BASE_CSLOTPOOL_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <mutex>

// What is taken one after the other lies mostly one after the other, in whatever order what lay there before
// was given back: a walk through the objects in their order is a walk through memory. Never gives memory back
// to the system. May be used from any thread, also while static objects are destroyed: it needs no
// destructor.
class CSlotPool {
public:
    // The slot size is that of the objects; a few pointers at least.
    constexpr explicit CSlotPool(size_t slotSize)
        : m_nSlotSize(slotSize), m_nSlabSize(std::bit_floor(nMaxSlots * slotSize)) {}
    CSlotPool(const CSlotPool&) = delete;
    CSlotPool& operator=(const CSlotPool&) = delete;

    // Throws std::bad_alloc where memory is exhausted.
    void* take();
    void give(void* memory);

private:
    static constexpr size_t nMaxSlots = 64; // of a slab: a bit each

    // Stands in the first slot of its slab, which is aligned to its own size.
    struct SSlab {
        SSlab* m_pNext;
        uint64_t m_nFree; // bit n: slot n is free
    };

    SSlab* newSlab();

    const size_t m_nSlotSize;
    const size_t m_nSlabSize;
    std::mutex m_oMutex;
    SSlab* m_pFirst = nullptr; // slabs with free slots; the first is taken from, others queue up at the end
    SSlab* m_pLast = nullptr;
    char* m_pFresh = nullptr; // memory for the next slabs
    char* m_pFreshEnd = nullptr;
};

#endif
