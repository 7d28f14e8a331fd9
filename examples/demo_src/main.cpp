// The demonstration: real processes get real features from a real daemon.
//
//     qel_demo PROGRAMS LIST      directory of the programs, and the example list
#include "CStory.h"

#include <csignal>
#include <cstdio>
#include <exception>

namespace {

constexpr int nExitUnplayable = 2;

volatile sig_atomic_t nInterrupted = 0;

void cbSignal(int signal) {
    nInterrupted = signal;
}

// A reader of our output that goes away ends the story in order, too.
void watchSignals() {
    struct sigaction action = {};
    action.sa_handler = cbSignal;
    for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        sigaction(signal, &action, nullptr);
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: qel_demo PROGRAMS LIST\n", stderr);
        return nExitUnplayable;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    watchSignals();
    try {
        return CStory(argv[1], argv[2], nInterrupted).play();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "demo: %s\n", error.what());
        return nExitUnplayable;
    }
}
