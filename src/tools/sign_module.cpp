#include "tools/sign_module.h"

#include "tools/list_signing.h"
#include "tools/tool_modes.h"

#include <cstring>

namespace {

struct SMode {
    const char* m_szWord;
    int (*m_fnRun)(int argc, char** argv);
};

// main() loads this module for just these words. Each must be in both tables: one that is missing here would
// do nothing and end with 0.
constexpr SMode aModes[] = {
    {"-newkey", makeKeyPair},    {"-check", checkKeyPair},           {"-signature", signFile},
    {"-signverify", verifyFile}, {"-certverify", verifyCertificate},
};

} // namespace

// These are the symbols that the module exports; libcrypto's and the tools' own are
// hidden by the link options.

extern "C" __attribute__((visibility("default"))) int qelSignMain(int argc, char** argv) {
    for (const SMode& mode : aModes) {
        if (argc > 1 && std::strcmp(argv[1], mode.m_szWord) == 0) {
            return mode.m_fnRun(argc, argv);
        }
    }
    return 0;
}

extern "C" __attribute__((visibility("default"))) void qelVerifyList(const SListQuestion* question,
                                                                     SListAnswer* answer) {
    verifyList(*question, *answer);
}

extern "C" __attribute__((visibility("default"))) void qelSignList(const char* keyFile, const char* body,
                                                                   size_t length, SSigned* result) {
    signList(keyFile, body, length, *result);
}
