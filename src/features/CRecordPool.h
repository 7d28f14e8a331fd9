// Memory for the records of one feature entry, side by side.
#ifndef QEL_FEATURES_CRECORDPOOL_H
#define QEL_FEATURES_CRECORDPOOL_H

#include "features/CCompStatus.h"

#include <cstddef>
#include <cstdint>

// A pass reads all records of one feature after those of the other, but components announce themselves one by
// one: taken from the heap each, the records of a feature would be as far apart as the table is large. Here
// they come from a few blocks. A record keeps its address until it is dropped; what was dropped is reused.
// With AddressSanitizer what is not in use is poisoned.
class CRecordPool {
public:
    CRecordPool() = default;
    ~CRecordPool();
    CRecordPool(const CRecordPool&) = delete;
    CRecordPool& operator=(const CRecordPool&) = delete;

    // A new record; null where memory is exhausted. Whoever knows how many there will be passes that as
    // `expected`, so that one block does for them all.
    CCompStatus* make(size_t expected);
    // The record must not be used again. One that was made by `new` is deleted.
    void drop(CCompStatus* record);
    // The record of the component, if it is the n-th of the newest block: one look into memory. Else null.
    CCompStatus* recordAt(size_t n, const CComponent* comp) const;
    // Has the processor fetch the records, which are about to be used.
    void prefetchAll() const;

private:
    struct SBlock;
    union USlot;

    SBlock* newest() const;
    bool grow(size_t expected);
    USlot* slotOf(const CCompStatus* record) const;

    USlot* m_pSlots = nullptr; // of the newest block
    uint32_t m_nSlots = 0;
};

#endif
