// Reads the keys that the tools work with.
#ifndef QEL_TOOLS_KEY_INPUT_H
#define QEL_TOOLS_KEY_INPUT_H

#include "tools/handles.h"

// What a tool says about a key that it cannot have.
struct SKeyTexts {
    const char* m_szNoReader; // the library cannot read files now
    const char* m_szNoFile;
    const char* m_szNoPem;
    const char* m_szNoKey; // of a certificate: holds a key that cannot be read
    const char* m_szNotRsa;
};

struct SKeyInput {
    const char* m_szFailure = nullptr; // one of the texts; null: the key is there
    CKeyHandle m_pKey;                 // an RSA key; null after a failure
    CCertificateHandle m_pCertificate; // that it was read from, if any; null after a failure
};

// From PEM files. A key that asks for a passphrase is no readable PEM; nobody is asked.
[[nodiscard]] SKeyInput readPrivateKey(const char* file, const SKeyTexts& texts);
[[nodiscard]] SKeyInput readCertificate(const char* file, const SKeyTexts& texts);

#endif
