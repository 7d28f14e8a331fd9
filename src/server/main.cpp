// Entry and command line: which mode the first word names, and what runs it.
#include "server/daemon.h"
#include "server/signing.h"
#include "source/CFeatureSource.h"

#include <cstdio>
#include <cstring>

namespace {

int run(int argc, char** argv) {
    const bool isDebugging = argc > 2 && std::strcmp(argv[2], "-debug") == 0;
    const int status = runDaemon(isDebugging, []() -> CFeatureSupply& { return CFeatureSource::instance(); });
    claimProcessEnd();
    return status;
}

int stop(int, char**) {
    return stopDaemon();
}

struct SMode {
    const char* m_szWord;
    int (*m_fnRun)(int argc, char** argv);
};

// The words of the signing tools are here and in sign_module.cpp, so that other words do not load the module.
constexpr SMode aModes[] = {
    {"-newkey", runSigningTool},
    {"-run", run},
    {"-check", runSigningTool},
    {"-signature", runSigningTool},
    {"-signverify", runSigningTool},
    {"-certverify", runSigningTool},
    {"-stop", stop},
};

} // namespace

// A word that names no mode does nothing: it prints nothing, and the status is 0. Only a missing word counts
// as wrong use.
int main(int argc, char** argv) {
    if (argc <= 1) {
        std::puts("Usage: qelserver -[newkey|run|check|signature|signverify] [...]");
        return 1;
    }
    for (const SMode& mode : aModes) {
        if (std::strcmp(argv[1], mode.m_szWord) == 0) {
            return mode.m_fnRun(argc, argv);
        }
    }
    return 0;
}
