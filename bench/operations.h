// The operations of the daemon that are measured, in time and in instructions.
#ifndef QEL_BENCH_OPERATIONS_H
#define QEL_BENCH_OPERATIONS_H

#include "world.h"

#include <span>

// What an operation's work grows with.
enum EGrowth {
    grNothing,  // it costs the same on every table
    grFeatures, // of the one component that speaks, or of the list
    grPairs     // features times components
};

struct SOperation {
    const char* m_szName;
    EGrowth m_eGrowth;
    void (*m_fnPrepare)(CWorld& world); // not measured; null: the world is ready again after each run
    void (*m_fnRun)(CWorld& world);

    void prepare(CWorld& world) const;
    int64_t items(const CWorld& world) const;
};

std::span<const SOperation> operations();

#endif
