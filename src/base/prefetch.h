// Asks the processor to fetch memory that is needed soon.
#ifndef QEL_BASE_PREFETCH_H
#define QEL_BASE_PREFETCH_H

#include <cstddef>

// A hint without effect on the result; the memory need not be readable.
inline void prefetch(const void* memory, size_t size) {
    constexpr size_t nCacheLine = 64;
    const char* at = static_cast<const char*>(memory);
    for (size_t offset = 0; offset < size; offset += nCacheLine) {
        __builtin_prefetch(at + offset);
    }
}

#endif
