// What the daemon's operations cost in time, by the size of its table. "per item" is the time for one feature
// at one component, or for one feature where only one component is concerned.
#include "operations.h"

#include <benchmark/benchmark.h>

#include <memory>

namespace {

using benchmark::Counter;
using benchmark::State;

// The world of the run in hand: made once for all operations on a table of one size.
CWorld& worldOf(const State& state) {
    static std::unique_ptr<CWorld> current;
    static int64_t features = 0;
    static int64_t components = 0;
    if (current == nullptr || features != state.range(0) || components != state.range(1)) {
        current.reset();
        features = state.range(0);
        components = state.range(1);
        current = std::make_unique<CWorld>(features, components);
    }
    if (!current->isWhole()) {
        current->refill();
    }
    current->settle(0);
    return *current;
}

void run(State& state, const SOperation& operation) {
    CWorld& world = worldOf(state);
    for (auto _ : state) {
        if (operation.m_fnPrepare != nullptr) {
            state.PauseTiming();
            operation.prepare(world);
            state.ResumeTiming();
        }
        operation.m_fnRun(world);
    }
    state.counters["per item"] = Counter(static_cast<double>(operation.items(world)),
                                         Counter::kIsIterationInvariantRate | Counter::kInvert);
}

void registerAll(int64_t features, int64_t components) {
    for (const SOperation& operation : operations()) {
        benchmark::RegisterBenchmark(operation.m_szName,
                                     [&operation](State& state) { run(state, operation); })
            ->Args({features, components})
            ->Unit(benchmark::kMicrosecond);
    }
}

} // namespace

int main(int argc, char** argv) {
    for (const int64_t components : {1, 8, 64}) {
        for (const int64_t features : {100, 1000, 10000}) {
            registerAll(features, components);
        }
    }
    registerAll(100000, 8);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
