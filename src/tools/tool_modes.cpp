#include "tools/tool_modes.h"

#include "tools/CCrypto.h"

#include <cstdio>

namespace {

constexpr char sQelDefaultCertPath[] = "/ov/etc/t31syscert1.pem"; // verifies a signature if none is named
constexpr char sQelDefaultKeyPath[] = "/tmp/t31";                 // of a new key pair if none is named

// CCrypto says 1 for success, a shell 0.
int exitStatus(int result) {
    return result == 1 ? 0 : 1;
}

int tellUsage(const char* text) {
    std::puts(text);
    return 0;
}

} // namespace

// The result is dropped: see tool_modes.h for how a script learns whether it worked. The default path is in
// /tmp, where anybody can plant a link; COutputFile follows none.
int makeKeyPair(int argc, char** argv) {
    static_cast<void>(CCrypto::generateRSA(argc > 2 ? argv[2] : sQelDefaultKeyPath));
    return 0;
}

int checkKeyPair(int argc, char** argv) {
    if (argc <= 3) {
        return tellUsage("wrong parameters");
    }
    return exitStatus(CCrypto::verifyRSA(argv[2], argv[3]));
}

int signFile(int argc, char** argv) {
    if (argc <= 4) {
        return tellUsage("Usage: qelserver -signature <private key> <data file> <signature>");
    }
    return exitStatus(CCrypto::generateSignature(argv[2], argv[3], argv[4]));
}

// The optional argument comes first, so the number of arguments tells what each of them is.
int verifyFile(int argc, char** argv) {
    if (argc <= 3) {
        return tellUsage("Usage: qelserver -signverify <data file> <signature>");
    }
    if (argc == 4) {
        return exitStatus(CCrypto::verifySignature(sQelDefaultCertPath, argv[2], argv[3]));
    }
    return exitStatus(CCrypto::verifySignature(argv[2], argv[3], argv[4]));
}

int verifyCertificate(int argc, char** argv) {
    if (argc <= 2) {
        return tellUsage("Usage: qelserver -certverify <certificate file>");
    }
    return exitStatus(CCrypto::verifyCert(argv[2]));
}
