// Asks the processor to fetch memory that is needed soon.
#ifndef QEL_BASE_PREFETCH_H
#define QEL_BASE_PREFETCH_H

#include <cstddef>
#include <cstdint>

// A hint without effect on the result; the memory need not be readable.
inline void prefetch(const void* memory, size_t size) {
    constexpr size_t nCacheLine = 64;
    const char* at = static_cast<const char*>(memory);
    const size_t before = reinterpret_cast<uintptr_t>(memory) % nCacheLine; // in the first line
    for (size_t offset = 0; offset < before + size; offset += nCacheLine) {
        __builtin_prefetch(at - before + offset);
    }
}

#endif
