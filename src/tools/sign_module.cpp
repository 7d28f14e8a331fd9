#include "tools/sign_module.h"

#include "tools/tool_modes.h"

#include <cstring>

namespace {

struct SMode {
    const char* m_szWord;
    int (*m_fnRun)(int argc, char** argv);
};

constexpr SMode aModes[] = {
    {"-newkey", makeKeyPair},    {"-check", checkKeyPair},           {"-signature", signFile},
    {"-signverify", verifyFile}, {"-certverify", verifyCertificate},
};

} // namespace

extern "C" __attribute__((visibility("default"))) int qelSignMain(int argc, char** argv) {
    for (const SMode& mode : aModes) {
        if (argc > 1 && std::strcmp(argv[1], mode.m_szWord) == 0) {
            return mode.m_fnRun(argc, argv);
        }
    }
    return 0;
}
