// The signing tools against the stock command, each test in a directory of its own with a key pair of ours in
// it: key, key.pub and key.crt.
#include "base/clock.h"
#include "support/files.h"
#include "tools/CCrypto.h"
#include "tools/COutputFile.h"
#include "tools/handles.h"

#include <algorithm>
#include <openssl/pem.h>
#include <random>
#include <span>

namespace {

// A line for the shell that must succeed, in which $qel and $openssl are the tools.
std::string run(const std::string& line) {
    const std::string output = attempt(line);
    const size_t end = output.rfind("status 0\n");
    EXPECT_NE(end, std::string::npos) << line << "\n" << output;
    return output.substr(0, end);
}

class CToolsTest : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::current_path(m_oDirectory.path());
        ::setenv("qel", QEL_DAEMON, 1);
        ::setenv("openssl", QEL_OPENSSL, 1);
        run("$qel -newkey key; echo data >data");
    }
    void TearDown() override { std::filesystem::current_path("/"); }

    const CTestDirectory m_oDirectory;
};

TEST_F(CToolsTest, EachCommandLineHasItsTextAndStatus) {
    const char* cases[][2] = {
        {"", "Usage: qelserver -[newkey|run|check|signature|signverify] [...]\nstatus 1\n"},
        {"-ru", "status 0\n"},
        {"-Stop", "status 0\n"},
        {"''", "status 0\n"},
        {"-debug -run", "status 0\n"},
        {"-check key", "wrong parameters\nstatus 0\n"},
        {"-check locked crt", "Failed to load private key file locked\nstatus 1\n"},
        {"-check locked2 crt", "Failed to load private key file locked2\nstatus 1\n"},
        {"-check eckey eccrt", "Failed to get private key structure eckey\nstatus 1\n"},
        {"-check key none", "Failed to read file name none\nstatus 1\n"},
        {"-check key key", "Failed to get load certificate key\nstatus 1\n"},
        {"-check key keyless", "Failed to get public key keyless\nstatus 1\n"},
        {"-check key eccrt", "Failed to get public key structure eccrt\nstatus 1\n"},
        {"-signature key data",
         "Usage: qelserver -signature <private key> <data file> <signature>\nstatus 0\n"},
        {"-signature none data s", "Cannot open private key file (none)\nstatus 1\n"},
        {"-signature eckey data s", "Cannot read private key file (eckey)\nstatus 1\n"},
        {"-signature key dir s", "Cannot open data file (dir)\nstatus 1\n"},
        {"-signature key data none/s", "Cannot open signature file (none/s)\nstatus 1\n"},
        {"-signverify data", "Usage: qelserver -signverify <data file> <signature>\nstatus 0\n"},
        {"-signverify data sig", "Cannot open public key file (/ov/etc/t31syscert1.pem)\nstatus 1\n"},
        {"-signverify key data sig", "Cannot read public certificate file (key)\nstatus 1\n"},
        {"-signverify keyless data sig", "Cannot read public key file (keyless)\nstatus 1\n"},
        {"-signverify crt none none", "Cannot open signature file (none)\nstatus 1\n"},
        {"-signverify crt none sig", "Cannot open data file (none)\nstatus 1\n"},
        {"-signverify crt data data", "Cannot verify: (data data) \nstatus 1\n"},
        {"-signverify crt data longer", "Cannot verify: (data longer) \nstatus 1\n"},
        {"-signverify crt data endless", "Cannot verify: (data endless) \nstatus 1\n"},
        {"-signverify crt data sha256", "Cannot verify: (data sha256) \nstatus 1\n"},
        {"-signverify crt data sig", "Verify pass: (data sig) \nstatus 0\n"},
        {"-certverify", "Usage: qelserver -certverify <certificate file>\nstatus 0\n"},
        {"-certverify ''", "Invalid parameter.\nstatus 1\n"},
        {"-certverify none", "Cannot open public key file (none)\nstatus 1\n"},
        {"-certverify keyless", "Cannot read public key file (keyless)\nstatus 1\n"},
        {"-certverify crt", "status 0\n"},
        {"-certverify eccrt", "status 0\n"},
        {"-certverify pss", "status 0\n"},
        {"-signverify eccrt data sig", "Cannot read public key file (eccrt)\nstatus 1\n"},
    };
    run("mkdir dir; cp key.crt crt; $qel -signature key data sig; $openssl dgst -sha256 -sign key -out "
        "sha256 data");
    run("(cat sig; echo) >longer; (cat sig; cat key key key) >endless");
    run("$openssl req -x509 -newkey ec -pkeyopt group:P-256 -nodes -subj /CN=x -keyout eckey -out eccrt");
    run("$openssl req -x509 -newkey rsa-pss -nodes -subj /CN=x -keyout psskey -out pss");
    run("$openssl pkey -in key -aes128 -passout pass:secret -out locked");
    run("$openssl pkey -in key -aes128 -passout pass: -out locked2");
    // The key of a kind that nobody knows: the last byte of RSA's identifier is another.
    run("$openssl x509 -in crt -outform der | LC_ALL=C sed 's/\\x0d\\x01\\x01\\x01/\\x0d\\x01\\x01\\x7f/' "
        ">der");
    run("(echo -----BEGIN CERTIFICATE-----; base64 der; echo -----END CERTIFICATE-----) >keyless");
    for (const auto& [arguments, outcome] : cases) {
        EXPECT_EQ(attempt(std::string("$qel ") + arguments), outcome) << arguments;
    }
    EXPECT_EQ(attempt("test -e s"), "status 1\n"); // nothing refused left a signature
}

// Files that are no libraries stand in the way of the module and of libcrypto. (Of the sanitizers' daemon
// they cannot: its run path comes before the environment's.)
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(CToolsTest, AMissingModuleIsToldAndHindersNoOtherMode) {
    put("libqelsign.so", "");
    put("libcrypto.so.3", "");
    EXPECT_EQ(attempt("LD_LIBRARY_PATH=. $qel -ru"), "status 0\n");
    for (const char* mode : {"-newkey", "-check", "-signature", "-signverify", "-certverify"}) {
        EXPECT_EQ(attempt(std::string("LD_LIBRARY_PATH=. $qel ") + mode + " 2>told"), "status 1\n") << mode;
        const std::string told = contents("told");
        EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 1) << told;
        EXPECT_EQ(told.find("qelserver: the signing tools cannot be loaded: ./libqelsign.so: "), 0) << told;
        EXPECT_NE(told.find("../lib/qel"), std::string::npos) << told;
    }
}
#endif

TEST_F(CToolsTest, AKeyPairIsOneToTheStockCommand) {
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

TEST_F(CToolsTest, StockKeysOfAnySizeAreTakenAndToldApart) {
    for (const char* bits : {"1024", "1032", "4096"}) {
        run(std::string("$openssl req -x509 -nodes -subj /CN=x -keyout k -out c -newkey rsa:") + bits);
        run("$openssl rsa -in k -traditional -out t && $qel -check k c && $qel -check t c");
        EXPECT_EQ(attempt("$qel -check key c"), "Invalid key pair (key, c)\nstatus 1\n") << bits;
        EXPECT_EQ(attempt("$qel -check k key.crt"), "Invalid key pair (k, key.crt)\nstatus 1\n") << bits;
        run("$qel -signature k c s && $qel -signverify c c s && $qel -certverify c");
        EXPECT_EQ(attempt("$qel -signverify key.crt c s"), "Cannot verify: (c s) \nstatus 1\n") << bits;
    }
}

TEST_F(CToolsTest, APrivateKeyIsItsOwnersAndNoHalfOfAFileIsLeft) {
    put("old", "old"); // somebody holds the file open that the key replaces
    run("chmod 644 old && ln old new && umask 0 && $qel -newkey new && $qel -check new new.crt");
    EXPECT_EQ(contents("old"), "old");
    EXPECT_EQ(run("stat -c %a new new.pub new.crt"), "600\n666\n666\n");

    // A private key is longer than a file may become here.
    EXPECT_EQ(run("mkdir d; trap '' XFSZ; ulimit -f 1; $qel -newkey d/k"), "Cannot write file (d/k)\n");
    EXPECT_EQ(run("mkdir d/k.crt; $qel -newkey d/k"), "Cannot write file (d/k.crt)\n");
    EXPECT_EQ(run("mknod d/p p; $qel -newkey d/p"), "Cannot write file (d/p)\n");
    EXPECT_EQ(run("ls d"), "k.crt\np\n");
    EXPECT_EQ(run("rmdir d/k.crt; (ulimit -f 1; $qel -newkey d/k; true) 2>/dev/null; ls -A d"),
              "Cannot write file (d/k)\np\n"); // the signal is taken once nothing is left
    const std::string longest(244, 'x');
    EXPECT_EQ(run("$qel -newkey " + longest + "; $qel -check " + longest + " " + longest + ".crt"), "");
    EXPECT_EQ(run("$qel -newkey " + longest + "x"), "Invalid file name " + longest + "x\n");
}

// As root the test acts as another user here, who may not write everywhere.
TEST_F(CToolsTest, WhereOnlyTheFilesAreWritableTheyAreWrittenInPlace) {
    const uid_t user = ::geteuid() == 0 ? 65534 : ::geteuid();
    run("mkdir d && cp key d/k && cp key.pub d/k.pub && cp key.crt d/k.crt && cat key >>d/k && chmod 644 "
        "d/k*");
    run("chmod 755 . && chmod 555 d && chown " + std::to_string(user) + " d/k*");
    ASSERT_EQ(::seteuid(user), 0);
    EXPECT_EQ(CCrypto::generateRSA("d/k"), 1);
    EXPECT_EQ(CCrypto::generateRSA("d/none"), 0);
    ASSERT_EQ(::seteuid(::getuid()), 0);
    EXPECT_EQ(run("$qel -check d/k d/k.crt; stat -c %a d/k d/k.crt; ls d; grep -c BEGIN d/k"),
              "600\n644\nk\nk.crt\nk.pub\n1\n");
    EXPECT_EQ(attempt("cmp -s d/k key"), "status 1\n");
    run("chmod 755 d");
}

TEST_F(CToolsTest, ANewKeyKeepsOwnerAndModeUnlessAStrangerMayHavePlantedTheFile) {
    run("mkdir d && touch d/k d/k.pub d/k.crt && chmod 640 d/k* && chmod 400 d/k");
    const bool isRoot = ::geteuid() == 0;
    run(isRoot ? "chown 1234:1235 d/k*" : "true");
    const std::string stat = "stat -c '%u %g %a' d/k d/k.pub d/k.crt";
    const std::string before = run(stat);
    run("$qel -newkey d/k && $qel -check d/k d/k.crt");
    EXPECT_EQ(run(stat), before);
    EXPECT_EQ(run("chmod 1777 d; $qel -newkey d/k"), isRoot ? "Cannot write file (d/k)\n" : "");
    EXPECT_EQ(run("cd d; $qel -newkey k; $qel -newkey ../d/k"),
              isRoot ? "Cannot write file (k)\nCannot write file (../d/k)\n" : "");
    EXPECT_EQ(run(stat + "; $qel -check d/k d/k.crt"), before);
    run("$qel -signature key data d/k.pub && $qel -signverify key.crt data d/k.pub");
}

TEST_F(CToolsTest, AllOrNoneOfTheNewFilesAppear) {
    run("mkdir d && echo old >d/a");
    const auto publish = [](const char* meanwhile) {
        COutputFile files[] = {
            {"d/a", COutputFile::acUmask}, {"d/b", COutputFile::acUmask}, {"d/c", COutputFile::acUmask}};
        for (COutputFile& file : files) {
            EXPECT_TRUE(file.open());
            EXPECT_TRUE(file.fill("new\n"));
        }
        run(meanwhile);
        const COutputFile* failed = COutputFile::publishAll(files);
        return failed != nullptr ? failed - files : -1;
    };
    EXPECT_EQ(publish("mkdir d/c"), 2);
    EXPECT_EQ(run("cd d; cat a; ls -A; rmdir c"), "old\na\nc\n");
    EXPECT_EQ(publish("true"), -1);
    EXPECT_EQ(run("cd d; cat a b c; ls -A"), "new\nnew\nnew\na\nb\nc\n");
}

TEST_F(CToolsTest, ASignatureTakesTheOldOnesPlaceOnlyWhole) {
    run("$qel -signature key data s && cp s good && ln -s s link && echo more >more");
    EXPECT_EQ(run("(trap '' XFSZ; ulimit -f 0; $qel -signature key more s); cmp s good && ls s*"),
              "Cannot write to signature file (s)\ns\n");
    run("$qel -signature key more link && test -L link && $qel -signverify key.crt more s");
    run("$qel -signature key data /dev/stdout | cmp - good && ln -s new dangling && "
        "$qel -signature key data dangling && cmp new good");
}

TEST_F(CToolsTest, ValidityIsExactToTheSecondInAnyEra) {
    static int64_t nNow = 0;
    const SClock clock{[] { return static_cast<uint32_t>(nNow); },
                       [] {
                           return timeval{static_cast<time_t>(nNow), 0};
                       }};
    useClock(clock);
    const auto verifyAt = [](int64_t seconds) {
        nNow = seconds;
        return CCrypto::verifyCert("new.crt");
    };
    for (const int64_t begin : {1000000000LL, 2208988800LL, 4294967295LL}) { // 2001, 2040, 2106
        const int64_t end = begin + 315360000;
        nNow = begin;
        EXPECT_EQ(CCrypto::generateRSA("new"), 1);
        for (const auto& [moment, isValid] :
             {std::pair(begin - 1, 0), {begin, 1}, {begin + 1, 1}, {end - 1, 1}, {end, 0}}) {
            EXPECT_EQ(verifyAt(moment), isValid) << moment;
        }
        EXPECT_EQ(verifyAt(begin - (int64_t{1} << 32)), 0) << "32 bits do not tell them apart";
    }
    useClock(oSystemClock);
}

TEST_F(CToolsTest, AMalformedTimeIsNotTakenForOne) {
    // Both take the place of two of 13 characters. The signature is not looked at.
    const char* cases[][3] = {
        {"200101000000Z", "490101000000Z", "status 0\n"},
        {"209901000000Z", "490101000000Z", "Certificate not yet valid (at)\nstatus 1\n"},
        {"2001010000Z", "20490101000000Z", "Certificate not yet valid (at)\nstatus 1\n"},
        {"20200101000000Z", "4901010000Z", "Certificate has expired (at)\nstatus 1\n"}};
    const auto encoded = [](const std::string& text) {
        return std::string{text.size() == 15 ? '\x18' : '\x17', static_cast<char>(text.size())} + text;
    };
    run("$openssl x509 -in key.crt -outform der -out der");
    for (const auto& [begin, end, outcome] : cases) {
        std::string der = contents("der");
        put("changed", der.replace(der.find("\x17\x0d"), 30, encoded(begin) + encoded(end)));
        run("(echo -----BEGIN CERTIFICATE-----; base64 changed; echo -----END CERTIFICATE-----) >at");
        EXPECT_EQ(attempt("$qel -certverify at"), outcome) << begin << " " << end;
    }
}

TEST_F(CToolsTest, SignaturesOfAnySizeAreTheStockCommands) {
    for (const size_t size : {0u, 1u, 1023u, 1024u, 1025u, 2048u, 1000000u}) {
        std::string data(size, '\0');
        std::generate(data.begin(), data.end(), std::mt19937{20});
        put("data", data);
        run("$qel -signature key data ours && $openssl dgst -sha1 -verify key.pub -signature ours data");
        EXPECT_EQ(
            run("$openssl dgst -sha1 -sign key -out theirs data && $qel -signverify key.crt data theirs"),
            "Verify pass: (data theirs) \n");
        put("data", data + "x");
        EXPECT_EQ(attempt("$qel -signverify key.crt data ours"), "Cannot verify: (data ours) \nstatus 1\n");
    }
}

// A change beside the certificate's key (name, date, its own signature) leaves the one that signed. A changed
// key is worth nothing. QEL_TEST_CHANGES in the environment: how many random changes, 1000 by default.
TEST_F(CToolsTest, AChangedSignatureOrKeyIsRefused) {
    run("$qel -signature key data s && $openssl dgst -sha256 -sign key -out sha256 data");
    const std::string good = contents("s");
    const auto isAccepted = [](const char* certificate, const std::string& signature) {
        put("changed", signature);
        return CCrypto::verifySignature(certificate, "data", "changed") == 1;
    };
    for (const std::string& bad : {std::string(), good + '\0', '\0' + good, good.substr(1),
                                   std::string(5000, '\xFF'), contents("sha256")}) {
        EXPECT_FALSE(isAccepted("key.crt", bad)) << bad.size();
    }
    std::mt19937 random(20);
    const auto changed = [&random](std::string bytes) {
        char& byte = bytes[random() % bytes.size()];
        byte = static_cast<char>(byte ^ 1 << random() % 8);
        return random() % 4 == 0 ? bytes.erase(random() % bytes.size(), 1) : bytes;
    };
    const std::string goodCertificate = contents("key.crt");
    const auto parsed = [](const std::string& text) {
        const CBioHandle in(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
        return CCertificateHandle(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr));
    };
    const CCertificateHandle original = parsed(goodCertificate);
    const char* changes = std::getenv("QEL_TEST_CHANGES");
    int refused = 0;
    for (int round = changes != nullptr ? std::atoi(changes) : 1000; round > 0; --round) {
        ASSERT_FALSE(isAccepted("key.crt", changed(good))) << round;
        const std::string text = changed(goodCertificate);
        put("c", text);
        const CCertificateHandle now = parsed(text);
        const bool isSame =
            now && EVP_PKEY_eq(X509_get0_pubkey(now.get()), X509_get0_pubkey(original.get())) == 1;
        ASSERT_EQ(isAccepted("c", good), isSame) << round << "\n" << text;
        refused += now && !isSame ? 1 : 0;
    }
    EXPECT_GT(refused, 50); // well-formed, but for another key
}

} // namespace
