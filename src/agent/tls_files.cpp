#include "agent/tls_files.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <unistd.h>

namespace {

struct SFreeContext {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};

// Some builds of the library have numbers only.
std::string latestReason() {
    const unsigned long error = ERR_peek_last_error();
    const char* reason = ERR_reason_error_string(error);
    ERR_clear_error();
    return reason != nullptr ? reason : fmt::format("error {:08X}", error);
}

// A key with a passphrase is one that cannot be read: nobody is there to ask.
int noPassphrase(char*, int, int, void*) {
    return -1;
}

} // namespace

// The key comes first: a certificate of another key does not keep it from being read.
std::string checkTlsFiles(const SAgentConfig& config) {
    for (const std::string& path : {config.m_sAuthority, config.m_sCertificate, config.m_sKey}) {
        if (access(path.c_str(), R_OK) != 0) {
            return fmt::format("{}: {}", path, std::strerror(errno));
        }
    }
    ERR_clear_error();
    const std::unique_ptr<SSL_CTX, SFreeContext> context(SSL_CTX_new(TLS_client_method()));
    if (!context) {
        return "TLS: " + latestReason();
    }
    SSL_CTX_set_default_passwd_cb(context.get(), noPassphrase);
    if (SSL_CTX_load_verify_file(context.get(), config.m_sAuthority.c_str()) != 1) {
        return fmt::format("{}: holds no certificate (PEM) to trust: {}", config.m_sAuthority,
                           latestReason());
    }
    if (SSL_CTX_use_PrivateKey_file(context.get(), config.m_sKey.c_str(), SSL_FILETYPE_PEM) != 1) {
        return fmt::format("{}: holds no private key (PEM, without a passphrase): {}", config.m_sKey,
                           latestReason());
    }
    if (SSL_CTX_use_certificate_chain_file(context.get(), config.m_sCertificate.c_str()) != 1) {
        return fmt::format("{}: holds no certificate (PEM): {}", config.m_sCertificate, latestReason());
    }
    if (SSL_CTX_check_private_key(context.get()) != 1) {
        ERR_clear_error();
        return fmt::format("{}: is not the key of the certificate {}", config.m_sKey, config.m_sCertificate);
    }
    return "";
}
