// CCrypto: signatures over files, and the certificates that verify them.
#include "base/clock.h"
#include "tools/CCrypto.h"
#include "tools/COutputFile.h"
#include "tools/CSignalBlock.h"
#include "tools/certificate_time.h"
#include "tools/key_input.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace {

constexpr size_t nBlockSize = 1024;    // bytes of data that are read at once
constexpr size_t nMaxSignature = 4096; // bytes; a signature is as long as its key: 32,768 bits

constexpr SKeyTexts oPrivateKeyTexts{"Cannot open private key file", "Cannot open private key file",
                                     "Cannot read private key file", nullptr, "Cannot read private key file"};
constexpr SKeyTexts oCertificateTexts{"Cannot open public key file", "Cannot open public key file",
                                      "Cannot read public certificate file", "Cannot read public key file",
                                      "Cannot read public key file"};
// The key must be there, but of what kind it is does not matter to the dates.
constexpr SKeyTexts oDatedTexts{oCertificateTexts.m_szNoReader, oCertificateTexts.m_szNoFile,
                                oCertificateTexts.m_szNoPem, oCertificateTexts.m_szNoKey, nullptr};

struct SFileClose {
    void operator()(FILE* file) const { std::fclose(file); }
};
using CStreamHandle = std::unique_ptr<FILE, SFileClose>;

using CSignature = std::vector<unsigned char>;

int fail(const char* text, const char* file) {
    std::printf("%s (%s)\n", text, file);
    return 0;
}

int failParameter() {
    std::puts("Invalid parameter.");
    return 0;
}

// Hands the file to `update` block by block. False if a block cannot be read or `update` fails. A directory
// can be opened for reading, and fails only here (EISDIR); without the check of ferror(3) it would pass for
// an empty file, and be signed as one.
template <typename FUpdate>
bool readBlocks(FILE* file, FUpdate update) {
    unsigned char block[nBlockSize];
    size_t count = 0;
    do {
        count = std::fread(block, 1, sizeof block, file);
        if (update(block, count) != 1) {
            return false;
        }
    } while (count == sizeof block);
    return std::ferror(file) == 0;
}

// Empty on failure, also where the system's crypto policy forbids SHA-1 signatures.
CSignature sign(EVP_PKEY* key, FILE* data) {
    const CDigestHandle digest(EVP_MD_CTX_new());
    EVP_MD_CTX* const raw = digest.get();
    if (raw == nullptr || EVP_DigestSignInit(raw, nullptr, EVP_sha1(), nullptr, key) != 1 ||
        !readBlocks(
            data, [raw](const void* block, size_t size) { return EVP_DigestSignUpdate(raw, block, size); })) {
        return {};
    }
    CSignature signature(nMaxSignature);
    size_t length = signature.size();
    if (EVP_DigestSignFinal(raw, signature.data(), &length) != 1) {
        return {};
    }
    signature.resize(length);
    return signature;
}

// The name of the regular file to which the path leads, by links if need be, or which it is to create. Empty
// for anything else, such as a device, a pipe, or /dev/stdout that leads to a file without a name.
std::string fileName(const char* path) {
    struct stat status {};
    if (::stat(path, &status) != 0) {
        return errno == ENOENT && ::lstat(path, &status) != 0 ? path : "";
    }
    char resolved[PATH_MAX];
    return S_ISREG(status.st_mode) && ::realpath(path, resolved) != nullptr ? resolved : "";
}

// Half a signature would look like a tampered file, so an older one stays until the new one is whole. No
// signal leaves a temporary file.
int writeFile(const std::string& name, std::string_view signature, const char* path) {
    const CSignalBlock block;
    COutputFile file(name, COutputFile::acAnybody);
    if (!file.open()) {
        return fail("Cannot open signature file", path);
    }
    return file.fill(signature) && file.publish() ? 1 : fail("Cannot write to signature file", path);
}

// A full disk often shows only in fclose(3), which writes what stdio has buffered.
int writeStream(std::string_view signature, const char* path) {
    CStreamHandle file(std::fopen(path, "wb"));
    if (file == nullptr) {
        return fail("Cannot open signature file", path);
    }
    const size_t written = std::fwrite(signature.data(), 1, signature.size(), file.get());
    const bool isClosed = std::fclose(file.release()) == 0;
    return written == signature.size() && isClosed ? 1 : fail("Cannot write to signature file", path);
}

// Data that cannot be read is told apart from a wrong signature: the one is a typing
// mistake, the other an alarm.
enum EVerdict { vdUnreadable, vdWrong, vdRight };

EVerdict verify(EVP_PKEY* key, FILE* data, const CSignature& signature) {
    const CDigestHandle digest(EVP_MD_CTX_new());
    EVP_MD_CTX* const raw = digest.get();
    if (raw == nullptr || EVP_DigestVerifyInit(raw, nullptr, EVP_sha1(), nullptr, key) != 1) {
        return vdWrong;
    }
    if (!readBlocks(data, [raw](const void* block, size_t size) {
            return EVP_DigestVerifyUpdate(raw, block, size);
        })) {
        return vdUnreadable;
    }
    // Only 1 means success: a signature that does not match gives 0, and one that makes no sense may give a
    // negative number (EVP_DigestVerifyInit(3)), which must not pass for true.
    return EVP_DigestVerifyFinal(raw, signature.data(), signature.size()) == 1 ? vdRight : vdWrong;
}

// Reads one block and no more, so an endless file (/dev/zero) is no trouble. A longer file than any signature
// is not refused here: it fails to verify.
bool readSignature(const char* path, CSignature& signature) {
    const CStreamHandle file(std::fopen(path, "rb"));
    if (file == nullptr) {
        return false;
    }
    signature.resize(nMaxSignature);
    signature.resize(std::fread(signature.data(), 1, signature.size(), file.get()));
    return std::ferror(file.get()) == 0;
}

} // namespace

int CCrypto::generateSignature(const char* privateKeyFile, const char* dataFile, const char* signatureFile) {
    if (privateKeyFile == nullptr || dataFile == nullptr || signatureFile == nullptr) {
        return failParameter();
    }
    const SKeyInput privateKey = readPrivateKey(privateKeyFile, oPrivateKeyTexts);
    if (privateKey.m_szFailure != nullptr) {
        return fail(privateKey.m_szFailure, privateKeyFile);
    }
    const CStreamHandle data(std::fopen(dataFile, "rb"));
    if (data == nullptr) {
        return fail("Cannot open data file", dataFile);
    }
    const CSignature signature = sign(privateKey.m_pKey.get(), data.get());
    if (signature.empty()) {
        return fail("Cannot open data file", dataFile); // mostly data that opened but cannot be read
    }
    const std::string_view bytes(reinterpret_cast<const char*>(signature.data()), signature.size());
    const std::string name = fileName(signatureFile);
    return name.empty() ? writeStream(bytes, signatureFile) : writeFile(name, bytes, signatureFile);
}

// Reads the certificate, the signature and the data in this order, and reports the first that fails. The
// certificate's own validity plays no part: a file signed in time still verifies after it has expired.
int CCrypto::verifySignature(const char* certificateFile, const char* dataFile, const char* signatureFile) {
    if (certificateFile == nullptr || dataFile == nullptr || signatureFile == nullptr) {
        return failParameter();
    }
    const SKeyInput certificate = readCertificate(certificateFile, oCertificateTexts);
    if (certificate.m_szFailure != nullptr) {
        return fail(certificate.m_szFailure, certificateFile);
    }
    CSignature signature;
    if (!readSignature(signatureFile, signature)) {
        return fail("Cannot open signature file", signatureFile);
    }
    const CStreamHandle data(std::fopen(dataFile, "rb"));
    const EVerdict verdict =
        data != nullptr ? verify(certificate.m_pKey.get(), data.get(), signature) : vdUnreadable;
    if (verdict == vdUnreadable) {
        return fail("Cannot open data file", dataFile);
    }
    const bool isRight = verdict == vdRight;
    std::printf("%s: (%s %s) \n", isRight ? "Verify pass" : "Cannot verify", dataFile, signatureFile);
    return isRight ? 1 : 0;
}

// RFC 5280 counts the moment of not-after as valid (section 4.1.2.5); here that very second is too late
// already. Times that are malformed count as not valid either way.
int CCrypto::verifyCert(const char* certificateFile) {
    if (certificateFile == nullptr || *certificateFile == '\0') {
        return failParameter();
    }
    const SKeyInput certificate = readCertificate(certificateFile, oDatedTexts);
    if (certificate.m_szFailure != nullptr) {
        return fail(certificate.m_szFailure, certificateFile);
    }
    const CTimeHandle now = certificateTime(nowTimeOfDay().tv_sec);
    if (!isAtOrBefore(X509_get0_notBefore(certificate.m_pCertificate.get()), now.get())) {
        return fail("Certificate not yet valid", certificateFile);
    }
    if (!isAfter(X509_get0_notAfter(certificate.m_pCertificate.get()), now.get())) {
        return fail("Certificate has expired", certificateFile);
    }
    return 1;
}
