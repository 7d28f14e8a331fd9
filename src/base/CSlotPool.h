// Memory for many objects of one size, side by side.
#ifndef QEL_BASE_CSLOTPOOL_H
#define QEL_BASE_CSLOTPOOL_H

#include <cstddef>
#include <mutex>

// What is taken one after the other lies one after the other, and so does what is given back and taken again
// in that order: a walk through the objects in their order is a walk through memory. Never gives memory back
// to the system. May be used from any thread, also while static objects are destroyed: it needs no
// destructor.
class CSlotPool {
public:
    constexpr explicit CSlotPool(size_t slotSize) : m_nSlotSize(slotSize) {}
    CSlotPool(const CSlotPool&) = delete;
    CSlotPool& operator=(const CSlotPool&) = delete;

    // Throws std::bad_alloc where memory is exhausted.
    void* take();
    void give(void* memory);

private:
    struct SFree {
        SFree* m_pNext;
    };

    void grow();

    const size_t m_nSlotSize; // a multiple of the alignment of every type
    std::mutex m_oMutex;
    SFree* m_pFirstFree = nullptr; // taken next; those given back queue up at the end
    SFree* m_pLastFree = nullptr;
    char* m_pFresh = nullptr; // the part of the latest block that was never used
    char* m_pFreshEnd = nullptr;
};

#endif
