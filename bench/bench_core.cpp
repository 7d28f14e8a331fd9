// What the daemon's operations cost, by the size of its table. "per item" is the time for one feature at one
// component; it must not grow with the table.
#include "base/clock.h"
#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/CQelControl.h"
#include "messaging/wire.h"
#include "server/CQelServer.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace {

using benchmark::Counter;
using benchmark::State;

// The framework record of a message, as the dispatcher gets it.
class CRecord {
public:
    template <typename Body>
    explicit CRecord(const Body& body) : m_nLength(sizeof body) {
        std::memcpy(m_oRecord.data, &body, sizeof body);
    }

    void dispatch() const { CQelServer::cbQelServer(nQelServerMfwMsgId, 0, &m_oRecord, m_nLength); }

private:
    sOvuMfwMessage m_oRecord = {};
    uint32_t m_nLength;
};

CRecord nameMessage(uint32_t type, uint32_t subType, uint32_t handle, const std::string& name,
                    uint32_t processId) {
    CQelNameMessage message;
    message.m_oHeader = {0, sizeof message, type, subType, 7, handle};
    message.m_nProcessId = processId;
    std::memcpy(message.m_szName, name.data(), name.size());
    return CRecord(message);
}

CRecord replyMessage(uint32_t subType, uint32_t handle) {
    CQelReplyMessage message;
    message.m_oHeader = {0, sizeof message, nQelClientReplyMsgType, subType, 7, handle};
    message.m_nStatus = nReplyOk;
    return CRecord(message);
}

// A control with so many features, each of which concerns each of so many monitored components.
class CWorld {
public:
    CWorld(int64_t features, int64_t components) : m_oControl(*CQelControl::instance()) {
        for (int64_t i = 0; i < components; ++i) {
            m_vNames.push_back("component" + std::to_string(i));
        }
        for (uint32_t code = 1; code <= features; ++code) {
            m_oControl.addFeature(makeEntry(code, code));
        }
        m_vEntries = m_oControl.features().m_vItems;
        for (uint32_t i = 0; i < m_vNames.size(); ++i) {
            nameMessage(0, CompNameMsgType, handleOf(i), m_vNames[i], 1).dispatch();
            m_oControl.components().m_vItems.back()->m_bMonitor = 1;
        }
    }

    ~CWorld() {
        m_oControl.clearFeatureArray();
        for (CFeatureEntry* entry : m_vEntries) {
            delete entry;
        }
        const auto components = m_oControl.components().m_vItems;
        for (CComponent* comp : components) {
            m_oControl.delComponent(comp);
            delete comp;
        }
    }
    CWorld(const CWorld&) = delete;
    CWorld& operator=(const CWorld&) = delete;

    static uint32_t handleOf(size_t component) { return 1000 + static_cast<uint32_t>(component); }

    CFeatureEntry* makeEntry(uint32_t code, uint32_t data) {
        auto* entry = new CFeatureEntry(&m_oControl);
        entry->m_nCode = code;
        entry->m_nData = data;
        for (const std::string& name : m_vNames) {
            entry->addCompName(name.c_str());
        }
        return entry;
    }

    // Everything delivered, nothing to do.
    void settle(uint8_t sourced) {
        const uint32_t now = nowSeconds();
        for (CFeatureEntry* entry : m_vEntries) {
            entry->m_eStatus = CFeatureEntry::fsActive;
            entry->m_nNewData = 0;
            entry->m_bSourced = sourced;
            for (CCompStatus* record : entry->m_vCompStatus) {
                record->m_eStatus = CCompStatus::csEnabled;
                record->m_tStamp = now;
            }
        }
    }

    // A list that holds every feature, each `step`-th with other data.
    CArray<CFeatureEntry*> makeList(size_t step) {
        CArray<CFeatureEntry*> list;
        for (size_t i = 0; i < m_vEntries.size(); ++i) {
            const uint32_t change = step != 0 && i % step == 0 ? 1000000 : 0;
            list.m_vItems.push_back(makeEntry(m_vEntries[i]->m_nCode, m_vEntries[i]->m_nCode + change));
        }
        return list;
    }

    int64_t items() const { return static_cast<int64_t>(m_vEntries.size() * m_vNames.size()); }

    CQelControl& m_oControl;
    std::deque<std::string> m_vNames; // entries point at them
    std::vector<CFeatureEntry*> m_vEntries;
};

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
