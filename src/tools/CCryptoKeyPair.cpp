// CCrypto: key pairs, made and checked.
#include "base/clock.h"
#include "tools/CCrypto.h"
#include "tools/COutputFile.h"
#include "tools/CSignalBlock.h"
#include "tools/certificate_time.h"
#include "tools/key_input.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <openssl/core_names.h>
#include <openssl/params.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr size_t nMaxBasePath = 244; // leaves room for the suffixes, and for a temporary file's
constexpr size_t nKeyBits = 2048;
constexpr unsigned nPublicExponent = 65537;
constexpr int64_t nValidSeconds = 315360000; // 3650 days

struct SNameEntry {
    const char* m_szField;
    const char* m_szValue;
};

// Subject and issuer alike, as the certificate signs itself. The country is not one of the two-letter codes
// of ISO 3166 that the attribute calls for; see addEntries().
constexpr SNameEntry aNameEntries[] = {{"C", "Tarsil"}, {"CN", "Halyx"}, {"O", "Dorna"}, {"OU", "Platforms"}};

constexpr SKeyTexts oPrivateKeyTexts{"Failed to get SSL key", "Failed to read file name",
                                     "Failed to load private key file", nullptr,
                                     "Failed to get private key structure"};
constexpr SKeyTexts oCertificateTexts{"Failed to get SSL BIO key", "Failed to read file name",
                                      "Failed to get load certificate", "Failed to get public key",
                                      "Failed to get public key structure"};

CKeyHandle failedKey(const char* text) {
    std::puts(text);
    return nullptr;
}

// EVP_PKEY_generate() fills the key that it is given; it would allocate one only for a null pointer
// (EVP_PKEY_keygen(3)). So the caller's handle stays the owner.
bool generate(EVP_PKEY* key) {
    size_t bits = nKeyBits;
    unsigned exponent = nPublicExponent;
    const OSSL_PARAM parameters[] = {OSSL_PARAM_construct_size_t(OSSL_PKEY_PARAM_RSA_BITS, &bits),
                                     OSSL_PARAM_construct_uint(OSSL_PKEY_PARAM_RSA_E, &exponent),
                                     OSSL_PARAM_construct_end()};
    const CKeyContextHandle context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    return context != nullptr && EVP_PKEY_keygen_init(context.get()) == 1 &&
           EVP_PKEY_CTX_set_params(context.get(), parameters) == 1 &&
           EVP_PKEY_generate(context.get(), &key) == 1;
}

CKeyHandle newKey() {
    CKeyHandle key(EVP_PKEY_new());
    if (key == nullptr) {
        return failedKey("Failed to EVP_PKEY_new");
    }
    if (!generate(key.get())) {
        return failedKey("Failed to RSA_generate_key");
    }
    if (EVP_PKEY_is_a(key.get(), "RSA") != 1) {
        return failedKey("Failed to EVP_PKEY_assign_RSA");
    }
    return key;
}

// Passes the values as PrintableString, the type that they have in the certificate. If they were passed as
// text to convert (MBSTRING_ASC), the library would check its table of sizes and refuse a country of more
// than two letters.
bool addEntries(X509_NAME* name) {
    return std::all_of(std::begin(aNameEntries), std::end(aNameEntries), [name](const SNameEntry& entry) {
        const auto* value = reinterpret_cast<const unsigned char*>(entry.m_szValue);
        return X509_NAME_add_entry_by_txt(name, entry.m_szField, V_ASN1_PRINTABLESTRING, value, -1, -1, 0) ==
               1;
    });
}

bool setValidity(X509* certificate, int64_t now) {
    const CTimeHandle notBefore = certificateTime(now);
    const CTimeHandle notAfter = certificateTime(now + nValidSeconds);
    return notBefore != nullptr && notAfter != nullptr &&
           X509_set1_notBefore(certificate, notBefore.get()) == 1 &&
           X509_set1_notAfter(certificate, notAfter.get()) == 1;
}

// The serial number need not be hard to guess; it only tells certificates apart, and two made within one
// second share it. Both names must be the same, and the key's own signature goes on last, since it covers all
// the other fields. SHA-1 as in the signatures: what verifies on the appliances knows nothing else.
CCertificateHandle newCertificate(EVP_PKEY* key) {
    CCertificateHandle certificate(X509_new());
    X509* const raw = certificate.get();
    const int64_t now = nowTimeOfDay().tv_sec; // nowSeconds() begins again in 2106
    std::srand(static_cast<unsigned>(now));
    if (raw == nullptr || X509_set_version(raw, X509_VERSION_3) != 1 ||
        ASN1_INTEGER_set(X509_get_serialNumber(raw), std::rand()) != 1 || !setValidity(raw, now) ||
        X509_set_pubkey(raw, key) != 1 || !addEntries(X509_get_subject_name(raw)) ||
        X509_set_issuer_name(raw, X509_get_subject_name(raw)) != 1 || X509_sign(raw, key, EVP_sha1()) <= 0) {
        return nullptr;
    }
    return certificate;
}

int fail(const char* text, const char* file) {
    std::printf("%s %s\n", text, file);
    return 0;
}

int failWriting(const COutputFile& file) {
    std::printf("Cannot write file (%s)\n", file.path());
    return 0;
}

// What `write` puts into a BIO, returning 1 for success; null where memory is exhausted. libcrypto wipes the
// memory when it frees it.
template <typename FWrite>
CBioHandle pem(FWrite write) {
    CBioHandle out(BIO_new(BIO_s_mem()));
    return out != nullptr && write(out.get()) == 1 ? std::move(out) : nullptr;
}

std::string_view textOf(BIO* memory) {
    char* text = nullptr;
    const long length = BIO_get_mem_data(memory, &text);
    return {text, static_cast<size_t>(length)};
}

// Writes all three before it publishes any: a full disk leaves an old key pair as it was, instead of a new
// key beside an old certificate. Signals wait until all three are in place, for the same reason, and so that
// no temporary file stays. The private key is written unencrypted, since the tools cannot ask for a
// passphrase when they read it back.
int writeFiles(const std::string& path, EVP_PKEY* key, X509* certificate) {
    const CBioHandle contents[] = {
        pem([key](BIO* out) {
            return PEM_write_bio_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr);
        }),
        pem([key](BIO* out) { return PEM_write_bio_PUBKEY(out, key); }),
        pem([certificate](BIO* out) { return PEM_write_bio_X509(out, certificate); })};
    const CSignalBlock block;
    COutputFile files[] = {{path, COutputFile::acOwner},
                           {path + ".pub", COutputFile::acUmask},
                           {path + ".crt", COutputFile::acUmask}};
    for (size_t i = 0; i < std::size(files); ++i) {
        if (contents[i] == nullptr || !files[i].open() || !files[i].fill(textOf(contents[i].get()))) {
            return failWriting(files[i]);
        }
    }
    const COutputFile* failed = COutputFile::publishAll(files);
    return failed == nullptr ? 1 : failWriting(*failed);
}

using CBlock = std::vector<unsigned char>;

// The raw RSA operation (RFC 8017, section 5) with either half of a key, without padding. `init` and `apply`
// choose the half: EVP_PKEY_sign for the private one, EVP_PKEY_verify_recover for the
// public one. Empty on failure.
CBlock transform(EVP_PKEY* key, const CBlock& input, decltype(&EVP_PKEY_sign_init) init,
                 decltype(&EVP_PKEY_sign) apply) {
    const CKeyContextHandle context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    CBlock output(static_cast<size_t>(EVP_PKEY_get_size(key)));
    size_t length = output.size();
    if (context == nullptr || init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING) != 1 ||
        apply(context.get(), output.data(), &length, input.data(), input.size()) != 1) {
        return {};
    }
    output.resize(length);
    return output;
}

// Comparing the public parts (EVP_PKEY_eq) would not do: a private key file holds a copy of the public part,
// and only using the private exponent shows that the two halves work together. A key of another size fails
// too, since its result has another length.
bool isPair(EVP_PKEY* privateKey, EVP_PKEY* publicKey) {
    CBlock block(static_cast<size_t>(EVP_PKEY_get_size(privateKey)));
    for (size_t i = 0; i < block.size(); ++i) {
        block[i] = static_cast<unsigned char>(i); // the first is 0, so that the number is below the modulus
    }
    const CBlock secret = transform(privateKey, block, EVP_PKEY_sign_init, EVP_PKEY_sign);
    return !secret.empty() &&
           transform(publicKey, secret, EVP_PKEY_verify_recover_init, EVP_PKEY_verify_recover) == block;
}

} // namespace

// No file is touched before both the key and the certificate exist.
int CCrypto::generateRSA(const char* path) {
    if (path == nullptr || std::strlen(path) > nMaxBasePath) {
        return fail("Invalid file name", path != nullptr ? path : "(null)");
    }
    const CKeyHandle key = newKey();
    if (key == nullptr) {
        return 0;
    }
    const CCertificateHandle certificate = newCertificate(key.get());
    return certificate != nullptr ? writeFiles(path, key.get(), certificate.get()) : 0;
}

int CCrypto::verifyRSA(const char* privateKeyFile, const char* certificateFile) {
    if (privateKeyFile == nullptr || certificateFile == nullptr) {
        std::puts("Invalid parameter.");
        return 0;
    }
    const SKeyInput privateKey = readPrivateKey(privateKeyFile, oPrivateKeyTexts);
    if (privateKey.m_szFailure != nullptr) {
        return fail(privateKey.m_szFailure, privateKeyFile);
    }
    const SKeyInput certificate = readCertificate(certificateFile, oCertificateTexts);
    if (certificate.m_szFailure != nullptr) {
        return fail(certificate.m_szFailure, certificateFile);
    }
    if (!isPair(privateKey.m_pKey.get(), certificate.m_pKey.get())) {
        std::printf("Invalid key pair (%s, %s)\n", privateKeyFile, certificateFile);
        return 0;
    }
    return 1;
}
