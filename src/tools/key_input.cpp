#include "tools/key_input.h"

#include <openssl/pem.h>
#include <utility>

namespace {

SKeyInput failure(const char* text) {
    SKeyInput input;
    input.m_szFailure = text;
    return input;
}

// RSA-PSS keys are a kind of their own for the library, so where RSA is asked for they are refused as well:
// their signatures could not be verified as PKCS #1 v1.5.
SKeyInput accept(CKeyHandle key, CCertificateHandle certificate, const SKeyTexts& texts) {
    if (texts.m_szNotRsa != nullptr && EVP_PKEY_is_a(key.get(), "RSA") != 1) {
        return failure(texts.m_szNotRsa);
    }
    return SKeyInput{nullptr, std::move(key), std::move(certificate)};
}

// Opens the file and hands it to `read`, which returns the key or its failure.
template <typename FRead>
SKeyInput readFile(const char* file, const SKeyTexts& texts, FRead read) {
    const CBioHandle reader(BIO_new(BIO_s_file()));
    if (reader == nullptr) {
        return failure(texts.m_szNoReader);
    }
    if (BIO_read_filename(reader.get(), file) != 1) {
        return failure(texts.m_szNoFile);
    }
    return read(reader.get());
}

} // namespace

// At a terminal (pem_password_cb(3)) a script would hang. Certificates need it too, for PEM encryption can
// wrap any kind of object.
int refusePassphrase(char*, int, int, void*) {
    return -1;
}

SKeyInput readPrivateKey(const char* file, const SKeyTexts& texts) {
    return readFile(file, texts, [&](BIO* reader) {
        CKeyHandle key(PEM_read_bio_PrivateKey(reader, nullptr, refusePassphrase, nullptr));
        return key != nullptr ? accept(std::move(key), nullptr, texts) : failure(texts.m_szNoPem);
    });
}

SKeyInput readCertificate(const char* file, const SKeyTexts& texts) {
    return readFile(file, texts, [&](BIO* reader) {
        CCertificateHandle certificate(PEM_read_bio_X509(reader, nullptr, refusePassphrase, nullptr));
        if (certificate == nullptr) {
            return failure(texts.m_szNoPem);
        }
        CKeyHandle key(X509_get_pubkey(certificate.get()));
        return key != nullptr ? accept(std::move(key), std::move(certificate), texts)
                              : failure(texts.m_szNoKey);
    });
}
