#include "server/signing.h"

#include "tools/sign_module.h"

#include <cstdio>
#include <dlfcn.h>

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

// The name has no slash, so dlopen(3) searches this executable's run path, $ORIGIN/../lib/qel, and the module
// is found wherever the tree is installed. RTLD_NOW reports a missing symbol here, as an error, instead of
// ending the process in the middle of a signature. The module stays loaded, because libcrypto cleans up when
// the process ends, by code that must still be there.
int runSigningTool(int argc, char** argv) {
    void* const module = ::dlopen(sSignModule, RTLD_NOW | RTLD_LOCAL);
    void* const entry = module != nullptr ? ::dlsym(module, sSignEntry) : nullptr;
    if (entry == nullptr) {
        return fail(::dlerror());
    }
    return reinterpret_cast<decltype(&qelSignMain)>(entry)(argc, argv);
}
