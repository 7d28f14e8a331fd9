#include "base/clock.h"
#include "tools/CCrypto.h"
#include "workshop.h"

using CKeyPair = CWorkshop;

TEST_F(CKeyPair, NotWhatTheStockCommandTakesForOne) {
    const std::string name = "C=Tarsil,CN=Halyx,O=Dorna,OU=Platforms\n";
    EXPECT_EQ(run("$openssl x509 -in key.crt -noout -subject -issuer | tr -d ' '"),
              "subject=" + name + "issuer=" + name);
    const std::string text = run("$openssl x509 -in key.crt -noout -text");
    for (const char* part : {"Version: 3 (0x2)", "sha1WithRSAEncryption", "(2048 bit)", "65537 (0x10001)"}) {
        EXPECT_NE(text.find(part), std::string::npos) << part << text;
    }
    run("$openssl pkey -in key -check -noout && $openssl pkey -in key -pubout | cmp - key.pub");
    run("$openssl x509 -in key.crt -noout -pubkey | cmp - key.pub");
    run("$openssl verify -auth_level 0 -check_ss_sig -CAfile key.crt key.crt && $qel -check key key.crt");
}

TEST_F(CKeyPair, StockKeyOfSomeSizeRefusedOrMixedUp) {
    for (const char* bits : {"1024", "1032", "2048", "4096"}) {
        run(std::string("$openssl req -x509 -nodes -subj /CN=x -keyout k -out c -newkey rsa:") + bits);
        run("$openssl rsa -in k -traditional -out t && $qel -check k c && $qel -check t c");
        EXPECT_EQ(attempt("$qel -check key c"), "Invalid key pair (key, c)\nstatus 1\n") << bits;
        EXPECT_EQ(attempt("$qel -check k key.crt"), "Invalid key pair (k, key.crt)\nstatus 1\n") << bits;
        run("$qel -signature k c s && $qel -signverify c c s && $qel -certverify c");
        EXPECT_EQ(attempt("$qel -signverify key.crt c s"), "Cannot verify: (c s) \nstatus 1\n") << bits;
    }
}

TEST_F(CKeyPair, PrivateKeyOpenToOthers) {
    put("old", "old"); // somebody holds the file open that the key replaces
    run("chmod 644 old && ln old new && umask 0 && $qel -newkey new && cat old && $qel -check new new.crt");
    EXPECT_EQ(contents("old"), "old");
    EXPECT_EQ(run("stat -c %a new new.pub new.crt"), "600\n666\n666\n");
    EXPECT_EQ(run("umask 777; $qel -newkey new && stat -c %a new new.crt"), "600\n0\n");
}

TEST_F(CKeyPair, HalfAKeyLeftWhereItCannotBeWritten) {
    // A private key is longer than a file may become here.
    EXPECT_EQ(run("mkdir d; trap '' XFSZ; ulimit -f 1; $qel -newkey d/k"), "Cannot write file (d/k)\n");
    EXPECT_EQ(run("$qel -newkey none/k"), "Cannot write file (none/k)\n");
    EXPECT_EQ(run("mkdir d/k.crt; $qel -newkey d/k"), "Cannot write file (d/k.crt)\n");
    EXPECT_EQ(run("mknod d/p p; $qel -newkey d/p"), "Cannot write file (d/p)\n");
    EXPECT_EQ(run("ls d"), "k.crt\np\n");
}

TEST_F(CKeyPair, LongestNameRefusedOrLongerOneTaken) {
    const std::string longest(244, 'x');
    EXPECT_EQ(run("$qel -newkey " + longest + "; $qel -check " + longest + " " + longest + ".crt"), "");
    EXPECT_EQ(run("$qel -newkey " + longest + "x"), "Invalid file name " + longest + "x\n");
}

class CValidity : public CWorkshop {
protected:
    CValidity() {
        static const SClock clock{[] { return nNow; }, oSystemClock.m_fnTimeOfDay};
        useClock(clock);
    }
    ~CValidity() override { useClock(oSystemClock); }
    static int verifyAt(int64_t seconds) {
        nNow = static_cast<uint32_t>(seconds);
        return quietly([] { return CCrypto::verifyCert("at"); });
    }
    static inline uint32_t nNow = 0;
};

TEST_F(CValidity, OffByASecondOrByAnEra) {
    for (const int64_t begin :
         {1000000000LL, 2208988800LL, 3979607295LL, 4294967295LL}) { // 2001, 2040, 2096, 2106
        const int64_t end = begin + 315360000;
        nNow = static_cast<uint32_t>(begin);
        ASSERT_EQ(CCrypto::generateRSA("new") + std::rename("new.crt", "at"), 1);
        EXPECT_EQ(run("$openssl x509 -in at -noout -dates"),
                  run("export LC_ALL=C; date -u -d @" + std::to_string(begin) +
                      " '+notBefore=%b %e %T %Y GMT';" + "date -u -d @" + std::to_string(end) +
                      " '+notAfter=%b %e %T %Y GMT'"));
        EXPECT_EQ(verifyAt(begin - 1), 0) << begin;
        EXPECT_EQ(verifyAt(begin), 1) << begin;
        EXPECT_EQ(verifyAt(end <= UINT32_MAX ? end - 1 : begin), 1)
            << begin; // the clock's own end comes first
        EXPECT_EQ(verifyAt(end <= UINT32_MAX ? end : 0), 0) << begin;
    }
}

TEST_F(CValidity, MalformedTimeTakenForOne) {
    // Both take the place of two of 13 characters. The signature is not looked at.
    const char* cases[][3] = {
        {"200101000000Z", "490101000000Z", "status 0\n"},
        {"490101000000Z", "200101000000Z", "Certificate not yet valid (at)\nstatus 1\n"},
        {"209901000000Z", "490101000000Z", "Certificate not yet valid (at)\nstatus 1\n"},
        {"2001010000Z", "20490101000000Z", "Certificate not yet valid (at)\nstatus 1\n"},
        {"20200101000000Z", "4901010000Z", "Certificate has expired (at)\nstatus 1\n"},
        {"200101000000Z", "200102000000Z", "Certificate has expired (at)\nstatus 1\n"}};
    const auto encoded = [](const std::string& text) {
        return std::string{text.size() == 15 ? '\x18' : '\x17', static_cast<char>(text.size())} + text;
    };
    run("$openssl x509 -in key.crt -outform der -out der");
    for (const auto& row : cases) {
        std::string der = contents("der");
        put("changed", der.replace(der.find("\x17\x0d"), 30, encoded(row[0]) + encoded(row[1])));
        run("(echo -----BEGIN CERTIFICATE-----; base64 changed; echo -----END CERTIFICATE-----) >at");
        EXPECT_EQ(attempt("$qel -certverify at"), row[2]) << row[0] << " " << row[1];
    }
}
