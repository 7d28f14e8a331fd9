// Whose lists are taken: the certificates of the trust directory.
#ifndef QEL_SOURCE_CLISTTRUST_H
#define QEL_SOURCE_CLISTTRUST_H

#include "source/list/list_paths.h"

#include <cstdint>
#include <string>
#include <string_view>

// What is known of a list's signature.
struct SListProof {
    bool isGood() const { return m_sFault.empty(); }

    std::string m_sKeyId;
    std::string m_sSigner;   // subject of the certificate
    std::string m_sFault;    // not empty: why the list must not be used, in one line without the list's path
    bool m_bPassing = false; // another attempt may succeed, though nobody has touched the list since
    std::string m_sWarning;  // a certificate that was left out; empty: none was
};

// Trust is on where the directory exists, where it cannot be told whether it does, where the environment
// names one, and once it has been on in the life of the object. Then nothing but a good signature by a key of
// the directory will do; whatever goes wrong refuses.
class CListTrust {
public:
    explicit CListTrust(STrustPath path) : m_oPath(std::move(path)) {}

    bool isOn();

    // Whether the bytes are signed by one of the trusted keys, now or, for a list that was in force before,
    // ever. The first call loads the module of the signing tools, which stays. Throws std::bad_alloc; any
    // thread, one at a time.
    enum EWhen { now, ever };
    [[nodiscard]] SListProof verify(std::string_view text, EWhen when) const;

    const std::string& directory() const { return m_oPath.m_sDirectory; }

private:
    STrustPath m_oPath;
    bool m_bSeen = false;
};

#endif
