// The signing tools: key pairs with their certificates, signatures over files, checks of certificates.
#ifndef QEL_TOOLS_CCRYPTO_H
#define QEL_TOOLS_CCRYPTO_H

// Each operation returns 1 for success and 0 for failure, and tells a failure in one line on standard output.
// Files are PEM, but for data and signatures. Keys are RSA; a key of another kind, and one that asks for a
// passphrase, count as unreadable, and nobody is asked. Signatures are SHA-1 with RSA (PKCS #1 v1.5), raw.
//
// Nothing is kept between calls. Operations may run side by side, but for generateRSA(), which uses the
// process's umask and its random sequence (srand(3)).
class CCrypto {
public:
    // Makes a private key of 2048 bits in the file `path`, its public key in `path`.pub, and a certificate
    // signed with itself, valid for 3650 days from nowSeconds(), in `path`.crt. The path has at most 244
    // characters.
    //
    // The private key is its owner's alone (0600), whatever the umask, and regardless of who may read a file
    // that it replaces. The three take their places only once all of them are written whole; a file that is
    // there is replaced, but nothing else is (a directory, a device).
    //
    // A certificate that cannot be made is the one failure that is not told.
    [[nodiscard]] static int generateRSA(const char* path);

    // Whether the private key belongs to the certificate: transforms bytes with the one and back with the
    // other.
    [[nodiscard]] static int verifyRSA(const char* privateKeyFile, const char* certificateFile);

    // Signs the data file. A signature that cannot be written whole is removed again.
    [[nodiscard]] static int generateSignature(const char* privateKeyFile, const char* dataFile,
                                               const char* signatureFile);

    // Whether the signature is that of the data file by the certificate's key, and tells either way. Only the
    // first 4096 bytes of the signature file count. Validity and issuer of the certificate are not looked at.
    [[nodiscard]] static int verifySignature(const char* certificateFile, const char* dataFile,
                                             const char* signatureFile);

    // Whether nowSeconds() is in the certificate's validity: from not-before on, and before not-after. Its
    // signature is not looked at.
    [[nodiscard]] static int verifyCert(const char* certificateFile);
};

#endif
