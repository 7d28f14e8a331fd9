#include "server/signing.h"

#include "tools/sign_module.h"

#include <cstdio>
#include <dlfcn.h>

namespace {

int fail(const char* reason) {
    std::fprintf(
        stderr,
        "qelserver: the signing tools cannot be loaded: %s. %s must be in ../lib/qel as seen from the "
        "directory of qelserver: install it, and libcrypto, anew.\n",
        reason, sSignModule);
    return 1;
}

} // namespace

// By the file's name alone: the linker looks for it where this executable's run path says. It stays loaded, since
// libcrypto cleans up at the process's end.
int runSigningTool(int argc, char** argv) {
    void* const module = ::dlopen(sSignModule, RTLD_NOW | RTLD_LOCAL);
    void* const entry = module != nullptr ? ::dlsym(module, sSignEntry) : nullptr;
    if (entry == nullptr) {
        return fail(::dlerror());
    }
    return reinterpret_cast<decltype(&qelSignMain)>(entry)(argc, argv);
}
