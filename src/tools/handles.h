// Owning handles for libcrypto's objects: each frees its object, or drops its reference to one that libcrypto
// counts, at the end of its scope. To be used with what the library returns as the caller's own (..._new,
// PEM_read_..., X509_get_pubkey), never with what it only lends (..._get0_...).
#ifndef QEL_TOOLS_HANDLES_H
#define QEL_TOOLS_HANDLES_H

#include <memory>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

// The function is part of the type, so a handle is no larger than a pointer.
template <auto fnFree>
struct SHandleFree {
    template <typename T>
    void operator()(T* object) const {
        fnFree(object);
    }
};

using CBioHandle = std::unique_ptr<BIO, SHandleFree<BIO_free>>;
using CKeyHandle = std::unique_ptr<EVP_PKEY, SHandleFree<EVP_PKEY_free>>;
using CKeyContextHandle = std::unique_ptr<EVP_PKEY_CTX, SHandleFree<EVP_PKEY_CTX_free>>;
using CDigestHandle = std::unique_ptr<EVP_MD_CTX, SHandleFree<EVP_MD_CTX_free>>;
using CCertificateHandle = std::unique_ptr<X509, SHandleFree<X509_free>>;
using CTimeHandle = std::unique_ptr<ASN1_TIME, SHandleFree<ASN1_TIME_free>>;

#endif
