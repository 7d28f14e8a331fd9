// Does one operation of the daemon so many times, for an instruction counter to look on:
//
//     count_operations OPERATION TIMES FEATURES COMPONENTS
//
// What one operation costs is the difference of two runs with different TIMES, divided; bench/instructions
// does that.
#include "world.h"

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>

namespace {

uint32_t nLast = 0; // the component that speaks

std::string lastName() {
    return "component" + std::to_string(nLast);
}

void say(const CRecord& record, long times) {
    for (long i = 0; i < times; ++i) {
        record.dispatch();
    }
}

void sayRequest(uint32_t subType, long times) {
    say(nameMessage(0, subType, CWorld::handleOf(nLast), lastName(), 1), times);
}

using Operation = std::function<void(CWorld& world, long times)>;

const std::map<std::string, Operation> oOperations = {
    {"known-name", [](CWorld&, long times) { sayRequest(CompNameMsgType, times); }},
    {"init-list", [](CWorld&, long times) { sayRequest(InitListMsgType, times); }},
    {"get-feature", [](CWorld&, long times) { sayRequest(nQelClientGetFeatureMsgType, times); }},
    {"start-monitor", [](CWorld&, long times) { sayRequest(nQelClientStartMonitorMsgType, times); }},
    {"write-reply",
     [](CWorld&, long times) { say(replyMessage(WriteReplyMsgType, CWorld::handleOf(nLast)), times); }},
    {"active-features",
     [](CWorld&, long times) {
         say(CRecord(CQelMessageHeader{0, 24, nQelOAMActiveFeatureMsgType, 0, 7, 1}), times);
     }},
    {"unknown",
     [](CWorld&, long times) {
         say(CRecord(CQelMessageHeader{0, 24, 99, 0, 7, 1}), times);
     }},
    {"audit",
     [](CWorld& world, long times) {
         for (long i = 0; i < times; ++i) {
             world.m_oControl.audit();
         }
     }},
    {"timeout",
     [](CWorld& world, long times) {
         for (long i = 0; i < times; ++i) {
             world.m_oControl.timeout();
         }
     }},
};

} // namespace

int main(int argc, char** argv) {
    const auto operation = oOperations.find(argc == 5 ? argv[1] : "");
    if (operation == oOperations.end()) {
        std::fputs("usage: count_operations OPERATION TIMES FEATURES COMPONENTS\noperations:", stderr);
        for (const auto& [name, run] : oOperations) {
            std::fprintf(stderr, " %s", name.c_str());
        }
        std::fputs("\n", stderr);
        return 1;
    }
    CWorld world(std::atol(argv[3]), std::atol(argv[4]));
    world.settle(0);
    nLast = static_cast<uint32_t>(world.m_vNames.size() - 1);
    operation->second(world, std::atol(argv[2]));
    return 0;
}
