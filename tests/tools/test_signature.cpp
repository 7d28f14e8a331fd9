#include "tools/CCrypto.h"
#include "tools/handles.h"
#include "workshop.h"

#include <algorithm>
#include <openssl/pem.h>
#include <random>

class CSignature : public CWorkshop {
protected:
    static int verify(const char* certificate, const char* signature) {
        return quietly([&] { return CCrypto::verifySignature(certificate, "data", signature); });
    }

    size_t below(size_t limit) { return m_oRandom() % limit; }

    std::string changed(std::string bytes) {
        for (size_t changes = 1 + below(4); changes > 0; --changes) {
            const size_t at = below(bytes.size());
            if (below(4) == 0) {
                bytes.replace(at, below(3), below(3), static_cast<char>(below(256)));
            } else {
                bytes[at] = static_cast<char>(bytes[at] ^ (1 << below(8)));
            }
        }
        return bytes;
    }

    std::mt19937 m_oRandom{20};
    // Random changes of either kind; more by QEL_TEST_CHANGES.
    const int m_nRounds = std::getenv("QEL_TEST_CHANGES") ? std::atoi(std::getenv("QEL_TEST_CHANGES")) : 1000;
};

TEST_F(CSignature, OtherThanTheStockCommandsForSomeSize) {
    for (const size_t size : {0u, 1u, 1023u, 1024u, 1025u, 2048u, 1000000u}) {
        std::string data(size, '\0');
        std::generate(data.begin(), data.end(), [this] { return static_cast<char>(below(256)); });
        put("data", data);
        run("$qel -signature key data ours && $openssl dgst -sha1 -verify key.pub -signature ours data");
        EXPECT_EQ(
            run("$openssl dgst -sha1 -sign key -out theirs data && $qel -signverify key.crt data theirs"),
            "Verify pass: (data theirs) \n");
        put("data", data + "x");
        EXPECT_EQ(attempt("$qel -signverify key.crt data ours"), "Cannot verify: (data ours) \nstatus 1\n");
    }
}

TEST_F(CSignature, HalfOfOneLeft) {
    EXPECT_EQ(
        attempt("touch s; trap '' XFSZ; ulimit -f 0; $qel -signature key key.pub s; ls s").substr(0, 40),
        "Cannot write to signature file (s)\nls: c");
    EXPECT_EQ(attempt("$qel -signature key key.pub /dev/full; test -c /dev/full"),
              "Cannot write to signature file (/dev/full)\nstatus 0\n");
}

TEST_F(CSignature, ChangedOneAccepted) {
    put("data", "data");
    run("$qel -signature key data s && $openssl dgst -sha256 -sign key -out sha256 data");
    const std::string good = contents("s");
    ASSERT_EQ(verify("key.crt", "s"), 1);
    for (const std::string& bad : {std::string(), good + '\0', '\0' + good, good.substr(1), good + good,
                                   std::string(256, '\0'), std::string(5000, '\xFF'), contents("sha256")}) {
        put("s", bad);
        EXPECT_EQ(verify("key.crt", "s"), 0) << bad.size();
    }
    for (int round = 0; round < m_nRounds; ++round) {
        const std::string signature = changed(good);
        put("s", signature);
        ASSERT_EQ(verify("key.crt", "s"), signature == good) << round;
    }
}

// A change beside the key (name, date, the certificate's own signature) leaves the one that signed. A changed
// key is worth nothing.
TEST_F(CSignature, AcceptedByAChangedKey) {
    put("data", "data");
    run("$qel -signature key data s");
    const std::string good = contents("key.crt");
    FILE* keyFile = std::fopen("key.pub", "r");
    const CKeyHandle key(PEM_read_PUBKEY(keyFile, nullptr, nullptr, nullptr));
    std::fclose(keyFile);
    int refused = 0;
    for (int round = 0; round < m_nRounds; ++round) {
        const std::string text = changed(good);
        put("c", text);
        const CBioHandle in(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
        const CCertificateHandle certificate(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr));
        const bool isSame = certificate && EVP_PKEY_eq(X509_get0_pubkey(certificate.get()), key.get()) == 1;
        ASSERT_EQ(verify("c", "s"), isSame) << round << "\n" << text;
        quietly([] { return CCrypto::verifyCert("c") + CCrypto::verifyRSA("key", "c"); });
        refused += certificate && !isSame ? 1 : 0;
    }
    EXPECT_GT(refused, m_nRounds / 20); // well-formed, but for another key
}
