// What the daemon's operations cost, by the size of its table. "per item" is the time for one feature at one
// component; it must not grow with the table.
#include "world.h"

#include <benchmark/benchmark.h>

#include <memory>

namespace {

using benchmark::Counter;
using benchmark::State;

// The world of the run in hand: made once for all operations on a table of one size.
CWorld& world(const State& state) {
    static std::unique_ptr<CWorld> current;
    static int64_t features = 0;
    static int64_t components = 0;
    if (current == nullptr || features != state.range(0) || components != state.range(1)) {
        current.reset();
        features = state.range(0);
        components = state.range(1);
        current = std::make_unique<CWorld>(features, components);
    }
    return *current;
}

void perItem(State& state, int64_t items) {
    state.counters["per item"] =
        Counter(static_cast<double>(items), Counter::kIsIterationInvariantRate | Counter::kInvert);
}

void freeList(CArray<CFeatureEntry*>& list) {
    for (CFeatureEntry* entry : list.m_vItems) {
        delete entry;
    }
}

// --- Messages ---

// `items`: what the message makes the daemon look through; 1 for a message that costs the same on every
// table.
void dispatch(State& state, const CRecord& record, int64_t items) {
    CWorld& here = world(state);
    here.settle(0);
    for (auto _ : state) {
        record.dispatch();
    }
    perItem(state, items);
}

uint32_t lastHandle(const State& state) {
    return CWorld::handleOf(static_cast<size_t>(state.range(1) - 1));
}

std::string lastName(const State& state) {
    return "component" + std::to_string(state.range(1) - 1);
}

void messageKnownName(State& state) {
    dispatch(state, nameMessage(0, CompNameMsgType, lastHandle(state), lastName(state), 1), 1);
}

void messageInitList(State& state) {
    dispatch(state, nameMessage(0, InitListMsgType, lastHandle(state), lastName(state), 1), 1);
}

void messageGetFeature(State& state) {
    CWorld& here = world(state);
    CComponent* comp = here.m_oControl.components().m_vItems.back();
    const auto rewind = static_cast<int32_t>(state.range(0));
    const CRecord record = nameMessage(0, nQelClientGetFeatureMsgType, lastHandle(state), lastName(state), 1);
    comp->rewindFeatureList();
    for (auto _ : state) {
        record.dispatch();
        if (comp->m_nNextFeature == rewind) {
            comp->rewindFeatureList();
        }
    }
    comp->rewindFeatureList();
    perItem(state, 1);
}

void messageStartMonitor(State& state) {
    dispatch(state, nameMessage(0, nQelClientStartMonitorMsgType, lastHandle(state), lastName(state), 1),
             state.range(0));
}

void messageWriteReply(State& state) {
    dispatch(state, replyMessage(WriteReplyMsgType, lastHandle(state)), state.range(0));
}

void messageActiveFeatures(State& state) {
    dispatch(state, CRecord(CQelMessageHeader{0, 24, nQelOAMActiveFeatureMsgType, 0, 7, 1}), state.range(0));
}

void messageUnknown(State& state) {
    dispatch(state, CRecord(CQelMessageHeader{0, 24, 99, 0, 7, 1}), 1);
}

// A component that comes back as another process is taken into every feature again.
void messageRestartedName(State& state) {
    CWorld& here = world(state);
    here.settle(0);
    uint32_t processId = 2;
    for (auto _ : state) {
        nameMessage(0, CompNameMsgType, lastHandle(state), lastName(state), ++processId).dispatch();
    }
    perItem(state, here.items());
}

// --- The merge ---

void mergeAllNew(State& state) {
    CWorld& here = world(state);
    for (auto _ : state) {
        state.PauseTiming();
        auto control = std::make_unique<CQelControl>();
        CArray<CFeatureEntry*> list = here.makeList(0);
        state.ResumeTiming();
        control->addFeatureList(list);
        state.PauseTiming();
        control.reset();
        state.ResumeTiming();
    }
    perItem(state, here.items());
}

void merge(State& state, uint8_t sourced, size_t step) {
    CWorld& here = world(state);
    for (auto _ : state) {
        state.PauseTiming();
        here.settle(sourced);
        CArray<CFeatureEntry*> list = here.makeList(step);
        state.ResumeTiming();
        here.m_oControl.addFeatureList(list);
        state.PauseTiming();
        freeList(list);
        state.ResumeTiming();
    }
    perItem(state, here.items());
}

void mergeUnchanged(State& state) {
    merge(state, 1, 0);
}

void mergePushedAgain(State& state) {
    merge(state, 0, 0);
}

void mergeHalfModified(State& state) {
    merge(state, 1, 2);
}

// --- The passes ---

void auditNothingToDo(State& state) {
    CWorld& here = world(state);
    here.settle(0);
    for (auto _ : state) {
        here.m_oControl.audit();
    }
    perItem(state, here.items());
}

void timeoutNothingToDo(State& state) {
    CWorld& here = world(state);
    here.settle(0);
    for (auto _ : state) {
        here.m_oControl.timeout();
    }
    perItem(state, here.items());
}

void timeoutAllOverdue(State& state) {
    CWorld& here = world(state);
    for (auto _ : state) {
        state.PauseTiming();
        here.settle(0);
        for (CFeatureEntry* entry : here.m_vEntries) {
            for (CCompStatus* record : entry->m_vCompStatus) {
                record->m_eStatus = CCompStatus::csEnabling;
                record->m_tStamp = 0;
            }
        }
        state.ResumeTiming();
        here.m_oControl.timeout();
    }
    perItem(state, here.items());
}

void packing(State& state) {
    CWorld& here = world(state);
    here.settle(0);
    std::vector<char> buffer(static_cast<size_t>(here.m_oControl.getPackSize()));
    for (auto _ : state) {
        here.m_oControl.packFeatures(buffer.data());
        benchmark::DoNotOptimize(buffer.data());
    }
    perItem(state, state.range(0));
}

struct SOperation {
    const char* m_szName;
    void (*m_fnRun)(State& state);
};

constexpr SOperation aOperations[] = {
    {"message/known-name", messageKnownName},
    {"message/restarted-name", messageRestartedName},
    {"message/init-list", messageInitList},
    {"message/get-feature", messageGetFeature},
    {"message/start-monitor", messageStartMonitor},
    {"message/write-reply", messageWriteReply},
    {"message/active-features", messageActiveFeatures},
    {"message/unknown", messageUnknown},
    {"merge/all-new", mergeAllNew},
    {"merge/unchanged", mergeUnchanged},
    {"merge/pushed-again", mergePushedAgain},
    {"merge/half-modified", mergeHalfModified},
    {"audit/nothing-to-do", auditNothingToDo},
    {"timeout/nothing-to-do", timeoutNothingToDo},
    {"timeout/all-overdue", timeoutAllOverdue},
    {"packing", packing},
};

} // namespace

int main(int argc, char** argv) {
    for (const int64_t components : {1, 8, 64}) {
        for (const int64_t features : {100, 1000, 10000, 100000}) {
            for (const SOperation& operation : aOperations) {
                benchmark::RegisterBenchmark(operation.m_szName, operation.m_fnRun)
                    ->Args({features, components})
                    ->Unit(benchmark::kMicrosecond);
            }
        }
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
