#include "tools/module/load_module.h"

#include "tools/sign_module.h"

#include <cstdint>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// Only whole pages, and of segments that nobody writes to.
int restObject(dl_phdr_info* object, size_t, void*) {
    if (std::strstr(object->dlpi_name, sSignModule) == nullptr &&
        std::strstr(object->dlpi_name, "/libcrypto.so") == nullptr) {
        return 0;
    }
    const auto page = static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE));
    for (size_t i = 0; i < object->dlpi_phnum; ++i) {
        const auto& segment = object->dlpi_phdr[i];
        const uintptr_t start = object->dlpi_addr + segment.p_vaddr;
        const uintptr_t first = (start + page - 1) / page * page;
        const uintptr_t end = (start + segment.p_memsz) / page * page;
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_W) == 0 && first < end) {
            // NOLINTNEXTLINE(performance-no-int-to-ptr): dl_iterate_phdr(3) tells addresses as numbers
            ::madvise(reinterpret_cast<void*>(first), end - first, MADV_DONTNEED);
        }
    }
    return 0;
}

} // namespace

// The name has no slash, so dlopen(3) searches this executable's run path, $ORIGIN/../lib/qel, and the module
// is found wherever the tree is installed. RTLD_NOW reports a missing symbol here, as an error, instead of
// ending the process in the middle of a signature. The module stays loaded: libcrypto cleans up when the
// process ends, by code that must still be there.
SModuleEntry moduleEntry(const char* name) {
    void* const module = ::dlopen(sSignModule, RTLD_NOW | RTLD_LOCAL);
    void* const entry = module != nullptr ? ::dlsym(module, name) : nullptr;
    return entry != nullptr ? SModuleEntry{entry} : SModuleEntry{nullptr, ::dlerror()};
}

// libcrypto cannot be unmapped (it is linked with -z nodelete), but most of it need not stay in memory.
void restModule() {
    ::dl_iterate_phdr(restObject, nullptr);
}
