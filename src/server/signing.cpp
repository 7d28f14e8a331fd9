#include "server/signing.h"

#include "tools/module/load_module.h"
#include "tools/sign_module.h"

#include <cstdio>

namespace {

// On standard error, since standard output carries the tools' own answers. A missing libcrypto ends up here
// too, in the dynamic linker's words.
int fail(const char* reason) {
    std::fprintf(
        stderr,
        "qelserver: the signing tools cannot be loaded: %s. %s must be in ../lib/qel as seen from the "
        "directory of qelserver: reinstall it and libcrypto.\n",
        reason, sSignModule);
    return 1;
}

} // namespace

int runSigningTool(int argc, char** argv) {
    const SModuleEntry entry = moduleEntry(sSignEntry);
    if (entry.m_pFunction == nullptr) {
        return fail(entry.m_szReason);
    }
    return reinterpret_cast<decltype(&qelSignMain)>(entry.m_pFunction)(argc, argv);
}
