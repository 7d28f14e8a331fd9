// Memory that runs out when a test says so. A program that uses this has its operator new replaced.
#ifndef QEL_TESTS_SUPPORT_SCARCE_MEMORY_H
#define QEL_TESTS_SUPPORT_SCARCE_MEMORY_H

#include <cstddef>

// While this lives, the n-th allocation from now on (counted from 1) fails, and only that one. Of one thread.
class CScarceMemory {
public:
    enum EKind { knAny, knThrowing }; // the latter: what asks for null instead of an exception does not count

    explicit CScarceMemory(size_t nth, EKind kind = knAny);
    ~CScarceMemory();
    CScarceMemory(const CScarceMemory&) = delete;
    CScarceMemory& operator=(const CScarceMemory&) = delete;

    // Whether it has come to that.
    static bool hasFailed();
    // How many allocations this thread has made and not given back.
    static size_t held();
};

// What is allocated while this lives is not the daemon's: it neither counts nor fails.
class CPlentyOfMemory {
public:
    CPlentyOfMemory();
    ~CPlentyOfMemory();
    CPlentyOfMemory(const CPlentyOfMemory&) = delete;
    CPlentyOfMemory& operator=(const CPlentyOfMemory&) = delete;

private:
    size_t m_nBefore;
};

#endif
