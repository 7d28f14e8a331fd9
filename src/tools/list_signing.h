// Signatures of feature lists, made and verified. The module's other half; what the parameters mean is told
// in tools/sign_module.h.
//
// Ed25519 (RFC 8032), or RSA of 2048 to 8192 bits with SHA-256 and PSS (RFC 8017, salt as long as the
// digest). The kind of the key says which; nothing in the list can choose. A key's id is the beginning of the
// SHA-256 digest of its public half (SubjectPublicKeyInfo).
//
// A certificate is trusted because of the directory that it is in: who signed it, and what else it says, does
// not matter. Files are *.crt and *.pem, PEM, one certificate each. One that cannot be used is left out,
// which never has more lists accepted.
#ifndef QEL_TOOLS_LIST_SIGNING_H
#define QEL_TOOLS_LIST_SIGNING_H

#include "tools/sign_module.h"

inline constexpr int nMaxTrusted = 64;                           // certificates of a directory
inline constexpr size_t nMaxCertificateFile = size_t{64} * 1024; // bytes

// Nothing is kept between calls; any thread. Exhausted memory is a verdict, or a failure.
void verifyList(const SListQuestion& question, SListAnswer& answer) noexcept;
void signList(const char* keyFile, const char* body, size_t length, SSigned& result) noexcept;

#endif
