// The interface between the programs and the module with the signing tools.
//
// The tools are a module of their own because they alone need libcrypto, which would otherwise take 1.4 MiB
// of memory for as long as the daemon runs, and a millisecond of its start. A second program would save the
// same, but then `qelserver` would not be the one command any more, and the tools would not run under an
// emulator that starts a single program. A daemon that takes signed lists alone loads it with the first of
// them.
//
// Both sides have a C++ runtime of their own: nothing is thrown from one to the other, and each frees what it
// has allocated.
#ifndef QEL_TOOLS_SIGN_MODULE_H
#define QEL_TOOLS_SIGN_MODULE_H

#include <cstddef>
#include <cstdint>

constexpr char sSignModule[] = "libqelsign.so"; // in lib/qel, beside the directory that the program is in
constexpr char sSignEntry[] = "qelSignMain";
constexpr char sVerifyListEntry[] = "qelVerifyList";
constexpr char sSignListEntry[] = "qelSignList";

// The signature of a list (source/list/list_signature.h), and who may have made it.
struct SListQuestion {
    const char* m_szTrust; // a directory of certificates
    const char* m_pBody;   // what is signed
    size_t m_nBody;
    const char* m_szKeyId;
    const unsigned char* m_pSignature;
    size_t m_nSignature;
    int64_t m_tNow; // seconds since the epoch; negative: certificates may be out of their time
};

enum EListVerdict : uint32_t {
    lvGood = 0,
    lvUnknownKey = 1,  // no certificate of the directory has such a key
    lvChanged = 2,     // it is not the signature of these bytes
    lvNotYetValid = 3, // the bytes are good, but it is too early for the certificate
    lvExpired = 4,     // or too late
    lvNoTrust = 5,     // the directory cannot be read, or no certificate in it can be used
    lvNoMemory = 6     // or libcrypto fails for another reason
};

struct SListAnswer {
    uint32_t m_nVerdict;
    char m_szSigner[128];      // subject of the certificate; from lvNotYetValid to lvExpired, too
    char m_szCertificate[256]; // its file, likewise
    char m_szTime[64];         // from when, or until when it is valid
    char m_szLeftOut[384]; // of lvNoTrust: why. Else: one certificate that cannot be used, and why; or empty
};

struct SSigned {
    char m_szKeyId[17];
    unsigned char m_aSignature[1024];
    size_t m_nSignature; // 0: nothing was signed
    char m_szFailure[384];
};

extern "C" {
// Runs the tool mode that argv[1] names and returns the process's exit status: 0 if there is no such mode.
// Prints to the standard output of the C library, which both sides share.
int qelSignMain(int argc, char** argv);

// Any thread. Nothing is kept. Only lvGood is a yes.
void qelVerifyList(const SListQuestion* question, SListAnswer* answer);

// Signs with the private key of a PEM file.
void qelSignList(const char* keyFile, const char* body, size_t length, SSigned* result);
}

#endif
