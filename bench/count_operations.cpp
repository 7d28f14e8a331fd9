// Does one operation of the daemon so many times, for an instruction counter to look on:
//
//     count_operations OPERATION TIMES FEATURES COMPONENTS
//
// A counter that can tell functions apart counts what happens within runMeasured(); another one takes the
// difference of two runs with different TIMES. bench/instructions does both.
#include "operations.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

__attribute__((noinline)) void runMeasured(const SOperation& operation, CWorld& world) {
    operation.m_fnRun(world);
}

int main(int argc, char** argv) {
    const auto named = [argv](const SOperation& operation) {
        return std::string(operation.m_szName) == argv[1];
    };
    const auto operation = argc == 5 ? std::ranges::find_if(operations(), named) : operations().end();
    if (operation == operations().end()) {
        std::fputs("usage: count_operations OPERATION TIMES FEATURES COMPONENTS\noperations:\n", stderr);
        for (const SOperation& known : operations()) {
            std::fprintf(stderr, "  %s%s\n", known.m_szName,
                         known.m_fnPrepare != nullptr ? " (prepared)" : "");
        }
        return 1;
    }
    CWorld world(std::atol(argv[3]), std::atol(argv[4]));
    world.settle(0);
    for (long times = std::atol(argv[2]); times > 0; --times) {
        operation->prepare(world);
        runMeasured(*operation, world);
    }
    return 0;
}
