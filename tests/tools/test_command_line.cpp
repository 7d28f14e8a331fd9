#include "tools/CCrypto.h"
#include "workshop.h"

using CCommandLine = CWorkshop;

TEST_F(CCommandLine, TextOrStatusIsAnother) {
    struct SCase {
        const char* m_szArguments;
        int m_nStatus;
        const char* m_szText;
    };
    const SCase cases[] = {
        {"", 1, "Usage: qelserver -[newkey|run|check|signature|signverify] [...]\n"},
        {"-checks key crt", 0, ""},
        {"-check key", 0, "wrong parameters\n"},
        {"-check none crt", 1, "Failed to read file name none\n"},
        {"-check dir crt", 1, "Failed to load private key file dir\n"},
        {"-check crt crt", 1, "Failed to load private key file crt\n"},
        {"-check locked crt", 1, "Failed to load private key file locked\n"},
        {"-check locked1 crt", 1, "Failed to load private key file locked1\n"},
        {"-check locked2 crt", 1, "Failed to load private key file locked2\n"},
        {"-check eckey eccrt", 1, "Failed to get private key structure eckey\n"},
        {"-check key none", 1, "Failed to read file name none\n"},
        {"-check key key", 1, "Failed to get load certificate key\n"},
        {"-check key keyless", 1, "Failed to get public key keyless\n"},
        {"-check key eccrt", 1, "Failed to get public key structure eccrt\n"},
        {"-signature key data", 0, "Usage: qelserver -signature <private key> <data file> <signature>\n"},
        {"-signature none data s", 1, "Cannot open private key file (none)\n"},
        {"-signature locked data s", 1, "Cannot read private key file (locked)\n"},
        {"-signature eckey data s", 1, "Cannot read private key file (eckey)\n"},
        {"-signature key none s", 1, "Cannot open data file (none)\n"},
        {"-signature key dir s", 1, "Cannot open data file (dir)\n"},
        {"-signature key data none/s", 1, "Cannot open signature file (none/s)\n"},
        {"-signverify data", 0, "Usage: qelserver -signverify <data file> <signature>\n"},
        {"-signverify data sig", 1, "Cannot open public key file (/ov/etc/t31syscert1.pem)\n"},
        {"-signverify none data sig", 1, "Cannot open public key file (none)\n"},
        {"-signverify key data sig", 1, "Cannot read public certificate file (key)\n"},
        {"-signverify keyless data sig", 1, "Cannot read public key file (keyless)\n"},
        {"-signverify crt none none", 1, "Cannot open signature file (none)\n"},
        {"-signverify crt none sig", 1, "Cannot open data file (none)\n"},
        {"-signverify crt data data", 1, "Cannot verify: (data data) \n"},
        {"-signverify crt data sig", 0, "Verify pass: (data sig) \n"},
        {"-certverify", 0, "Usage: qelserver -certverify <certificate file>\n"},
        {"-certverify ''", 1, "Invalid parameter.\n"},
        {"-certverify none", 1, "Cannot open public key file (none)\n"},
        {"-certverify keyless", 1, "Cannot read public key file (keyless)\n"},
        {"-certverify crt", 0, ""},
    };
    run("mkdir dir; echo data >data; cp key.crt crt; $qel -signature key data sig");
    run("$openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=x -keyout eckey "
        "-out eccrt");
    run("$openssl pkey -in key -aes128 -passout pass:secret -out locked");
    run("$openssl rsa -in key -traditional -aes128 -passout pass:secret -out locked1");
    run("$openssl pkey -in key -aes128 -passout pass: -out locked2");
    // The key of a kind that nobody knows: the last byte of RSA's identifier is another.
    run("$openssl x509 -in crt -outform der | LC_ALL=C sed 's/\\x0d\\x01\\x01\\x01/\\x0d\\x01\\x01\\x7f/' "
        ">der");
    run("(echo -----BEGIN CERTIFICATE-----; base64 der; echo -----END CERTIFICATE-----) >keyless");
    for (const SCase& row : cases) {
        EXPECT_EQ(attempt(std::string("$qel ") + row.m_szArguments),
                  row.m_szText + ("status " + std::to_string(row.m_nStatus) + "\n"))
            << row.m_szArguments;
    }
    EXPECT_EQ(attempt("test -e s"), "status 1\n"); // nothing refused left a signature
}

TEST_F(CCommandLine, MissingNamesUsed) {
    EXPECT_EQ(
        CCrypto::generateRSA(nullptr) + CCrypto::verifyRSA(nullptr, "") + CCrypto::verifyRSA("", nullptr), 0);
    EXPECT_EQ(CCrypto::generateSignature("", "", nullptr) + CCrypto::verifySignature("", nullptr, ""), 0);
    EXPECT_EQ(CCrypto::verifyCert(nullptr), 0);
}
