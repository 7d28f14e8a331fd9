// Reads the keys that the tools work with, from PEM files. Keeps nothing between calls; any thread.
#ifndef QEL_TOOLS_KEY_INPUT_H
#define QEL_TOOLS_KEY_INPUT_H

#include "tools/handles.h"

// What a tool prints about each reason why it has no key. The tools word them differently, and scripts may
// match the lines, so the reader leaves the wording to them. The texts are static.
struct SKeyTexts {
    const char* m_szNoReader; // libcrypto cannot make a reader: memory is exhausted
    const char* m_szNoFile;   // the file cannot be opened
    const char* m_szNoPem;    // no PEM object of the right kind in it, or one that needs a passphrase
    const char* m_szNoKey;    // the certificate's key cannot be read; null for private keys
    const char* m_szNotRsa;   // the key is of another kind; null: any kind will do
};

struct SKeyInput {
    const char* m_szFailure = nullptr; // one of the texts; null: success
    CKeyHandle m_pKey;                 // null after a failure
    CCertificateHandle m_pCertificate; // the key's; null for a private key, or after a failure
};

// A callback for the library, which would ask for a passphrase at the terminal without one.
int refusePassphrase(char*, int, int, void*);

// Neither asks for a passphrase: a file that needs one fails with m_szNoPem. readCertificate() returns the
// certificate's public key and checks neither its validity nor its signature.
[[nodiscard]] SKeyInput readPrivateKey(const char* file, const SKeyTexts& texts);
[[nodiscard]] SKeyInput readCertificate(const char* file, const SKeyTexts& texts);

#endif
