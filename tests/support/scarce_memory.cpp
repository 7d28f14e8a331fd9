#include "support/scarce_memory.h"

#include <cstdlib>
#include <new>
#include <utility>

namespace {

thread_local size_t nLeft = 0; // allocations up to the one that fails; 0: none does
thread_local size_t nHeld = 0;
thread_local bool bFailed = false;
thread_local CScarceMemory::EKind eKind = CScarceMemory::knAny;

void* allocate(size_t size, CScarceMemory::EKind kind) noexcept {
    if (nLeft != 0 && kind >= eKind && --nLeft == 0) {
        bFailed = true;
        return nullptr;
    }
    ++nHeld;
    return std::malloc(size != 0 ? size : 1);
}

void release(void* memory) noexcept {
    nHeld -= memory != nullptr ? 1 : 0;
    std::free(memory);
}

} // namespace

CScarceMemory::CScarceMemory(size_t nth, EKind kind) {
    eKind = kind;
    nLeft = nth;
    bFailed = false;
}

CScarceMemory::~CScarceMemory() {
    nLeft = 0;
}

bool CScarceMemory::hasFailed() {
    return bFailed;
}

size_t CScarceMemory::held() {
    return nHeld;
}

CPlentyOfMemory::CPlentyOfMemory() : m_nBefore(std::exchange(nLeft, 0)) {}

CPlentyOfMemory::~CPlentyOfMemory() {
    nLeft = m_nBefore;
}

// All forms, so that what one of them allocates is not freed by a form that was not replaced.

void* operator new(size_t size) {
    if (void* memory = allocate(size, CScarceMemory::knThrowing)) {
        return memory;
    }
    throw std::bad_alloc();
}

void* operator new[](size_t size) {
    return operator new(size);
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return allocate(size, CScarceMemory::knAny);
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return allocate(size, CScarceMemory::knAny);
}

void operator delete(void* memory) noexcept {
    release(memory);
}

void operator delete[](void* memory) noexcept {
    release(memory);
}

void operator delete(void* memory, size_t) noexcept {
    release(memory);
}

void operator delete[](void* memory, size_t) noexcept {
    release(memory);
}
