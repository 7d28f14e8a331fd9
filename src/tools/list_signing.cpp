#include "tools/list_signing.h"

#include "base/CFileDescriptor.h"
#include "tools/certificate_time.h"
#include "tools/key_input.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <new>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int nLeastRsaBits = 2048;
constexpr int nMostRsaBits = 8192;
constexpr char szNotRegular[] = "is no regular file";
constexpr char szTooLarge[] = "is too large";
constexpr char szNoCertificate[] = "is no certificate in PEM form";
constexpr char szNoKey[] = "has a key that cannot be used: neither Ed25519 nor RSA of 2048 to 8192 bits";

struct SDirectoryClose {
    void operator()(DIR* directory) const { ::closedir(directory); }
};
using CDirectoryHandle = std::unique_ptr<DIR, SDirectoryClose>;

struct STrusted {
    std::string m_sFile;
    CCertificateHandle m_pCertificate;
    CKeyHandle m_pKey;
    std::string m_sKeyId;
};

struct STrust {
    std::vector<STrusted> m_vTrusted;
    std::string m_sLeftOut;  // the first one
    std::string m_sUnusable; // not empty: the directory cannot be used at all, and why
};

// Cut to the field, at whose end a NUL stays.
template <size_t N>
void setText(char (&field)[N], std::string_view text) {
    const size_t length = text.copy(field, N - 1);
    field[length] = '\0';
}

// Without its configuration, which could replace what verifies; and without its clean-up, since any thread
// may end the process while another is in here. Its errors of earlier calls are no business of this one.
void prepare() {
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT | OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
    ERR_clear_error();
}

// The library's errors, which are forgotten. Memory that ran out is no property of the
// list or of a certificate.
void throwIfNoMemory() {
    bool isMemory = false;
    while (const unsigned long error = ERR_get_error()) {
        isMemory = isMemory || ERR_GET_REASON(error) == ERR_R_MALLOC_FAILURE;
    }
    if (isMemory) {
        throw std::bad_alloc();
    }
}

const char* errorText() {
    const char* text = strerrordesc_np(errno);
    return text != nullptr ? text : "unknown error";
}

bool isEd25519(const EVP_PKEY* key) {
    return EVP_PKEY_is_a(key, "ED25519") == 1;
}

bool isUsable(const EVP_PKEY* key) {
    const int bits = EVP_PKEY_get_bits(key);
    return isEd25519(key) ||
           (EVP_PKEY_is_a(key, "RSA") == 1 && bits >= nLeastRsaBits && bits <= nMostRsaBits);
}

// Throws std::bad_alloc for anything that goes wrong, since nothing else can.
std::string keyIdOf(const EVP_PKEY* key) {
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(key, &der);
    unsigned char digest[EVP_MAX_MD_SIZE];
    const bool isDone = length > 0 && EVP_Digest(der, static_cast<size_t>(length), digest, nullptr,
                                                 EVP_sha256(), nullptr) == 1;
    OPENSSL_free(der);
    if (!isDone) {
        throw std::bad_alloc();
    }
    std::string id;
    for (size_t i = 0; i < sizeof SSigned::m_szKeyId / 2; ++i) {
        id += "0123456789abcdef"[digest[i] >> 4U];
        id += "0123456789abcdef"[digest[i] & 15U];
    }
    return id;
}

// Both operations with a context that is set up for the key. Null: no memory.
using CInit = decltype(&EVP_DigestVerifyInit);

CDigestHandle newContext(EVP_PKEY* key, CInit init) {
    CDigestHandle context(EVP_MD_CTX_new());
    EVP_PKEY_CTX* options = nullptr; // the context's
    const EVP_MD* digest = isEd25519(key) ? nullptr : EVP_sha256();
    if (context == nullptr || init(context.get(), &options, digest, nullptr, key) != 1 ||
        (digest != nullptr && (EVP_PKEY_CTX_set_rsa_padding(options, RSA_PKCS1_PSS_PADDING) != 1 ||
                               EVP_PKEY_CTX_set_rsa_pss_saltlen(options, RSA_PSS_SALTLEN_DIGEST) != 1))) {
        throw std::bad_alloc();
    }
    return context;
}

bool isSignature(EVP_PKEY* key, const SListQuestion& question) {
    const CDigestHandle context = newContext(key, EVP_DigestVerifyInit);
    const auto* body = reinterpret_cast<const unsigned char*>(question.m_pBody);
    if (EVP_DigestVerify(context.get(), question.m_pSignature, question.m_nSignature, body,
                         question.m_nBody) == 1) {
        return true;
    }
    throwIfNoMemory();
    return false;
}

// Null: what is wrong is in `reason`. A file that is longer than its limit is never read whole.
CCertificateHandle readCertificate(int directory, const char* name, const char*& reason) {
    const CFileDescriptor file(::openat(directory, name, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    reason = nullptr;
    if (!file || ::fstat(file.get(), &status) != 0) {
        reason = errorText();
    } else if (!S_ISREG(status.st_mode)) {
        reason = szNotRegular;
    }
    std::string text(reason == nullptr ? nMaxCertificateFile + 1 : 0, '\0');
    size_t length = 0;
    for (ssize_t count = 1; reason == nullptr && count > 0 && length < text.size();) {
        count = ::read(file.get(), text.data() + length, text.size() - length);
        reason = count < 0 ? errorText() : nullptr;
        length += static_cast<size_t>(std::max<ssize_t>(count, 0));
    }
    if (reason == nullptr && length == text.size()) {
        reason = szTooLarge;
    }
    if (reason != nullptr) {
        return nullptr;
    }
    const CBioHandle memory(BIO_new_mem_buf(text.data(), static_cast<int>(length)));
    CCertificateHandle certificate;
    if (memory != nullptr) {
        certificate.reset(PEM_read_bio_X509(memory.get(), nullptr, refusePassphrase, nullptr));
    }
    if (certificate == nullptr) {
        throwIfNoMemory();
        reason = szNoCertificate;
    }
    return certificate;
}

bool isCertificateName(std::string_view name) {
    return !name.starts_with('.') && (name.ends_with(".crt") || name.ends_with(".pem"));
}

// Sorted, so that everybody finds the same one first. False: errno says why.
bool readNames(DIR* directory, std::vector<std::string>& names) {
    errno = 0;
    while (const dirent* entry = ::readdir(directory)) {
        if (isCertificateName(entry->d_name)) {
            names.emplace_back(entry->d_name);
        }
        errno = 0;
    }
    std::sort(names.begin(), names.end());
    return errno == 0;
}

STrust readTrust(const std::string& path) {
    STrust trust;
    const CDirectoryHandle directory(::opendir(path.c_str()));
    std::vector<std::string> names;
    if (directory == nullptr || !readNames(directory.get(), names)) {
        trust.m_sUnusable = std::string("cannot be read: ") + errorText();
    } else if (names.size() > nMaxTrusted) {
        trust.m_sUnusable = "holds more than " + std::to_string(nMaxTrusted) + " certificates";
    }
    for (size_t i = 0; i < names.size() && trust.m_sUnusable.empty(); ++i) {
        const char* reason = nullptr;
        STrusted trusted{path + "/" + names[i],
                         readCertificate(::dirfd(directory.get()), names[i].c_str(), reason),
                         nullptr,
                         {}};
        if (reason == nullptr) {
            trusted.m_pKey.reset(X509_get_pubkey(trusted.m_pCertificate.get()));
            reason = trusted.m_pKey != nullptr && isUsable(trusted.m_pKey.get()) ? nullptr : szNoKey;
            throwIfNoMemory();
        }
        if (reason == nullptr) {
            trusted.m_sKeyId = keyIdOf(trusted.m_pKey.get());
            trust.m_vTrusted.push_back(std::move(trusted));
        } else if (trust.m_sLeftOut.empty()) {
            trust.m_sLeftOut = trusted.m_sFile + ": " + reason;
        }
    }
    if (trust.m_vTrusted.empty() && trust.m_sUnusable.empty()) {
        trust.m_sUnusable = trust.m_sLeftOut.empty()
                                ? "holds no certificate (*.crt or *.pem)"
                                : "holds no certificate that can be used: " + trust.m_sLeftOut;
    }
    return trust;
}

// As "C=Tarsil, CN=Halyx"; control characters come escaped.
void tellSubject(const X509* certificate, SListAnswer& answer) {
    const CBioHandle memory(BIO_new(BIO_s_mem()));
    constexpr unsigned long nStyle =
        (ASN1_STRFLGS_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB)) | XN_FLAG_SEP_CPLUS_SPC |
        XN_FLAG_FN_SN;
    if (memory == nullptr ||
        X509_NAME_print_ex(memory.get(), X509_get_subject_name(certificate), 0, nStyle) < 0) {
        throw std::bad_alloc();
    }
    char* text = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &text);
    setText(answer.m_szSigner, {text, static_cast<size_t>(length)});
}

void tellTime(const ASN1_TIME* time, SListAnswer& answer) {
    std::tm parts{};
    if (ASN1_TIME_to_tm(time, &parts) == 1) {
        std::strftime(answer.m_szTime, sizeof answer.m_szTime, "%Y-%m-%d %H:%M:%S UTC", &parts);
    }
}

// What a certificate whose key has signed the bytes comes to.
EListVerdict judgeTime(const X509* certificate, int64_t now, SListAnswer& answer) {
    answer.m_szTime[0] = '\0';
    if (now < 0) {
        return lvGood;
    }
    const CTimeHandle moment = certificateTime(now);
    if (moment == nullptr) {
        throw std::bad_alloc();
    }
    if (!isAtOrBefore(X509_get0_notBefore(certificate), moment.get())) {
        tellTime(X509_get0_notBefore(certificate), answer);
        return lvNotYetValid;
    }
    if (!isAfter(X509_get0_notAfter(certificate), moment.get())) {
        tellTime(X509_get0_notAfter(certificate), answer);
        return lvExpired;
    }
    return lvGood;
}

// A key may have several certificates: one of them that is valid will do.
EListVerdict judge(const STrust& trust, const SListQuestion& question, SListAnswer& answer) {
    EListVerdict verdict = lvUnknownKey;
    for (const STrusted& trusted : trust.m_vTrusted) {
        if (trusted.m_sKeyId != question.m_szKeyId) {
            continue;
        }
        if (!isSignature(trusted.m_pKey.get(), question)) {
            verdict = verdict == lvUnknownKey ? lvChanged : verdict;
            continue;
        }
        verdict = judgeTime(trusted.m_pCertificate.get(), question.m_tNow, answer);
        tellSubject(trusted.m_pCertificate.get(), answer);
        setText(answer.m_szCertificate, trusted.m_sFile);
        if (verdict == lvGood) {
            break;
        }
    }
    return verdict;
}

// The key that is looked for may be in the one that was left out, so that is what has to be mended.
void verify(const SListQuestion& question, SListAnswer& answer) {
    const STrust trust = readTrust(question.m_szTrust);
    setText(answer.m_szLeftOut, trust.m_sUnusable.empty() ? trust.m_sLeftOut : trust.m_sUnusable);
    if (!trust.m_sUnusable.empty()) {
        answer.m_nVerdict = lvNoTrust;
        return;
    }
    const EListVerdict verdict = judge(trust, question, answer);
    answer.m_nVerdict = verdict == lvUnknownKey && !trust.m_sLeftOut.empty() ? lvNoTrust : verdict;
    if (answer.m_nVerdict == lvNoTrust) {
        setText(answer.m_szLeftOut,
                "holds no certificate of the key, or it is one that cannot be used: " + trust.m_sLeftOut);
    }
}

constexpr SKeyTexts oSigningTexts{"is no file that can be read", "is no file that can be read",
                                  "is no private key in PEM form, or is locked with a passphrase", nullptr,
                                  nullptr};

const char* sign(const char* keyFile, const char* body, size_t length, SSigned& result) {
    const SKeyInput input = readPrivateKey(keyFile, oSigningTexts);
    throwIfNoMemory();
    if (input.m_szFailure != nullptr) {
        return input.m_szFailure;
    }
    if (!isUsable(input.m_pKey.get())) {
        return szNoKey;
    }
    const CDigestHandle context = newContext(input.m_pKey.get(), EVP_DigestSignInit);
    size_t size = sizeof result.m_aSignature;
    setText(result.m_szKeyId, keyIdOf(input.m_pKey.get()));
    if (EVP_DigestSign(context.get(), result.m_aSignature, &size,
                       reinterpret_cast<const unsigned char*>(body), length) != 1) {
        throwIfNoMemory();
        return "does not sign";
    }
    result.m_nSignature = size;
    return nullptr;
}

} // namespace

void verifyList(const SListQuestion& question, SListAnswer& answer) noexcept {
    answer = {};
    answer.m_nVerdict = lvNoMemory;
    try {
        prepare();
        verify(question, answer);
    } catch (const std::exception&) {
        answer.m_nVerdict = lvNoMemory;
    }
    ERR_clear_error();
}

void signList(const char* keyFile, const char* body, size_t length, SSigned& result) noexcept {
    result = {};
    const char* failure = "out of memory";
    try {
        prepare();
        failure = sign(keyFile, body, length, result);
    } catch (const std::exception&) {
    }
    ERR_clear_error();
    if (failure != nullptr) {
        result.m_nSignature = 0;
        std::snprintf(result.m_szFailure, sizeof result.m_szFailure, "%.250s: %s", keyFile, failure);
    }
}
