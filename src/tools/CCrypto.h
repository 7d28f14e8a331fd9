// The signing tools: key pairs with their certificates, signatures over files, checks of certificates.
#ifndef QEL_TOOLS_CCRYPTO_H
#define QEL_TOOLS_CCRYPTO_H

// Each operation returns 1 for success and 0 for failure, and prints the reason for a failure as one line on
// standard output. Key and certificate files are PEM. Only RSA keys are accepted, except by verifyCert(): a
// key of another kind, or one that needs a passphrase, counts as unreadable, since the tools run in scripts
// where nobody could type one. Signatures are SHA-1 with RSA (RSASSA-PKCS1-v1_5 of RFC 8017), stored raw,
// without any encoding.
//
// Nothing is kept between calls. Threads may call the operations at the same time, except generateRSA() and
// generateSignature(), which use the process's umask, the former also its random sequence (srand(3)).
class CCrypto {
public:
    // Makes a private key of 2048 bits in the file `path`, its public key in `path`.pub, and a self-signed
    // certificate in `path`.crt, valid for 3650 days from now. The path has at most 244 characters.
    //
    // Nobody but the owner can read and write the private key (mode 0600 at most), whatever the umask and
    // whatever the mode of a file that it replaces. Files that are replaced keep their owner and, within that
    // limit, their mode. All three appear under their names once they are written whole, or none of them; but
    // see COutputFile for where an old file has to be written over, and for what is never replaced.
    //
    // A certificate that cannot be made is the one failure that prints nothing.
    [[nodiscard]] static int generateRSA(const char* path);

    // Whether the private key belongs to the certificate: transforms bytes with the private key, and back
    // with the certificate's.
    [[nodiscard]] static int verifyRSA(const char* privateKeyFile, const char* certificateFile);

    // Signs the data file. If the signature cannot be written whole, an older file stays as it was. A link is
    // followed; a device or a pipe is written to.
    [[nodiscard]] static int generateSignature(const char* privateKeyFile, const char* dataFile,
                                               const char* signatureFile);

    // Whether the signature was made over the data file with the private key of the certificate; prints the
    // answer either way. Only the first 4096 bytes of the signature file count. The certificate's validity
    // and issuer are not checked: ask verifyCert() for the one, and keep the certificate where only trusted
    // users can write for the other.
    [[nodiscard]] static int verifySignature(const char* certificateFile, const char* dataFile,
                                             const char* signatureFile);

    // Whether the certificate is valid now: from not-before on, and before not-after. Its key may be of any
    // kind that libcrypto knows. Its signature is not checked.
    [[nodiscard]] static int verifyCert(const char* certificateFile);
};

#endif
