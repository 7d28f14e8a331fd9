// Signed lists: keys and certificates of ours and of the stock command, and what becomes of a list that
// somebody has changed. Each test in a directory of its own: ed, rsa and old (keys), trust/ed.crt,
// trust/rsa.pem.
#include "source/list/list_signature.h"
#include "support/files.h"
#include "support/scarce_memory.h"
#include "tools/list_signing.h"

#include <ctime>
#include <random>

namespace {

std::string run(const std::string& line) {
    std::string output = attempt(line);
    EXPECT_TRUE(output.ends_with("status 0\n")) << line << "\n" << output;
    return output;
}

std::string signedText(const std::string& body, const char* key) {
    SSigned result;
    signList(key, body.data(), body.size(), result);
    EXPECT_NE(result.m_nSignature, 0u) << result.m_szFailure;
    return body + writeSignature(result.m_szKeyId,
                                 {reinterpret_cast<const char*>(result.m_aSignature), result.m_nSignature});
}

class CListsTest : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::current_path(m_oDirectory.path());
        ::setenv("qel", QEL_DAEMON, 1);
        ::setenv("openssl", QEL_OPENSSL, 1);
        run("mkdir trust; $openssl genpkey -algorithm ed25519 -out ed; $qel -newkey rsa; mv rsa.crt "
            "trust/rsa.pem;"
            "$openssl req -x509 -new -key ed -days 30 -subj '/O=a b/CN=Sch\xC3\xB6n' -utf8 -out "
            "trust/ed.crt");
    }
    void TearDown() override { std::filesystem::current_path("/"); }

    // As the daemon asks: the line first, and the keys only if there is one.
    EListVerdict verdict(std::string_view text, int64_t now = std::time(nullptr)) {
        const SListSignature signature = readSignature(text);
        if (!signature.m_sFault.empty()) {
            return lvChanged;
        }
        const SListQuestion question{"trust",
                                     signature.m_sBody.data(),
                                     signature.m_sBody.size(),
                                     signature.m_sKeyId.c_str(),
                                     reinterpret_cast<const unsigned char*>(signature.m_sBytes.data()),
                                     signature.m_sBytes.size(),
                                     now};
        verifyList(question, m_oAnswer);
        return static_cast<EListVerdict>(m_oAnswer.m_nVerdict);
    }

    const CTestDirectory m_oDirectory;
    const std::string m_sBody = "serial = 7\n[[feature]]\ncode = 1\ndata = 2\ncomponents = ['Voice']\n";
    SListAnswer m_oAnswer{};
};

// What the stock command signs and verifies is the same thing, to the last parameter.
TEST_F(CListsTest, TheStockCommandTakesEitherSide) {
    const std::string pss = " -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest ";
    const struct {
        std::string m_sKey, m_sVerify, m_sSign;
    } aKinds[] = {
        {"ed", "$openssl pkeyutl -verify -inkey ed -rawin -in body -sigfile sig",
         "$openssl pkeyutl -sign -inkey ed -rawin -in body -out sig"},
        {"rsa", "$openssl dgst -sha256" + pss + "-prverify rsa -signature sig body",
         "$openssl dgst -sha256" + pss + "-sign rsa -out sig body"},
    };
    put("body", m_sBody);
    for (const auto& kind : aKinds) {
        const std::string text = signedText(m_sBody, kind.m_sKey.c_str());
        EXPECT_EQ(verdict(text), lvGood);
        const SListSignature ours = readSignature(text);
        put("sig", ours.m_sBytes);
        run(kind.m_sVerify);
        run(kind.m_sSign);
        EXPECT_EQ(verdict(m_sBody + writeSignature(ours.m_sKeyId, contents("sig"))), lvGood) << kind.m_sKey;
    }
    EXPECT_STREQ(m_oAnswer.m_szSigner, "C=Tarsil, CN=Halyx, O=Dorna, OU=Platforms");
    EXPECT_EQ(verdict(signedText(m_sBody, "ed")), lvGood);
    EXPECT_STREQ(m_oAnswer.m_szSigner, "O=a b, CN=Sch\xC3\xB6n");
    EXPECT_STREQ(m_oAnswer.m_szCertificate, "trust/ed.crt");
    // Signed by a key that is trusted, but in another way.
    run("$openssl dgst -sha256 -sign rsa -out pkcs body; $openssl dgst -sha1" + pss +
        "-sign rsa -out sha1 body");
    const std::string id = readSignature(signedText(m_sBody, "rsa")).m_sKeyId;
    for (const char* file : {"pkcs", "sha1"}) {
        EXPECT_EQ(verdict(m_sBody + writeSignature(id, contents(file))), lvChanged) << file;
    }
}

TEST_F(CListsTest, WhatIsNotTrustedIsToldApart) {
    const std::string list = signedText(m_sBody, "ed");
    const int64_t day = 86400, now = std::time(nullptr);
    EXPECT_EQ(verdict(list, now - day), lvNotYetValid);
    EXPECT_EQ(verdict(list, now + 31 * day), lvExpired);
    EXPECT_EQ(verdict(list, -1), lvGood) << "a list that was in force before";
    run("$openssl genpkey -algorithm ed25519 -out other");
    EXPECT_EQ(verdict(signedText(m_sBody, "other")), lvUnknownKey);
    // A second certificate of a key, while the first is out of its time; and the change of keys.
    run("$openssl req -x509 -new -key ed -days 90 -subj /CN=new -out trust/zz.crt");
    EXPECT_EQ(verdict(list, now + 31 * day), lvGood);
    run("rm trust/ed.crt trust/zz.crt");
    EXPECT_EQ(verdict(list), lvUnknownKey);
    EXPECT_EQ(verdict(signedText(m_sBody, "rsa")), lvGood);
    // What cannot be used is left out, and told; it lets nobody in.
    run("$openssl req -x509 -newkey rsa:1024 -nodes -subj /CN=x -keyout small -out trust/a.crt");
    EXPECT_EQ(verdict(signedText(m_sBody, "rsa")), lvGood);
    EXPECT_TRUE(std::string(m_oAnswer.m_szLeftOut).starts_with("trust/a.crt: has a key that cannot be used"));
    EXPECT_EQ(verdict(list), lvNoTrust);
    const std::pair<const char*, const char*> aObstacles[] = {
        {"head -c 70000 /dev/zero >trust/a.crt", "trust/a.crt: is too large"},
        {"head -c 200 trust/rsa.pem >trust/a.crt", "trust/a.crt: is no certificate"},
        {"rm trust/a.crt; mkfifo trust/a.crt", "trust/a.crt: is no regular file"},
        {"rm trust/*; touch trust/.crt.crt trust/b.crt~", "holds no certificate (*.crt"},
        {"for i in $(seq 65); do touch trust/$i.crt; done", "holds more than 64"},
        {"rm -r trust", "cannot be read: No such file"},
        {"touch trust", "cannot be read: Not a directory"},
    };
    for (const auto& [obstacle, told] : aObstacles) {
        run(obstacle);
        EXPECT_EQ(verdict(list), lvNoTrust) << obstacle;
        EXPECT_NE(std::string(m_oAnswer.m_szLeftOut).find(told), std::string::npos) << m_oAnswer.m_szLeftOut;
    }
    SSigned result;
    run("$openssl pkey -in rsa -aes128 -passout pass:x -out locked");
    for (const char* key : {"small", "locked", "none", "/"}) {
        signList(key, "x", 1, result);
        EXPECT_EQ(result.m_nSignature, 0u) << key;
        EXPECT_STRNE(result.m_szFailure, "") << key;
    }
}

// Of one list of each kind every byte is changed, removed and doubled, and the file cut behind it; then as
// many are changed at random places as QEL_TEST_ROUNDS in the environment says.
TEST_F(CListsTest, NoChangedAndNoCutListIsAccepted) {
    const char* wanted = std::getenv("QEL_TEST_ROUNDS");
    const unsigned long rounds = wanted != nullptr ? std::strtoul(wanted, nullptr, 10) : 200;
    const std::string lists[] = {signedText(m_sBody, "ed"), signedText(m_sBody, "rsa")};
    size_t tried = 0;
    const auto expectRefused = [&](const std::string& text, const std::string& list) {
        ASSERT_TRUE(text == list || verdict(text) != lvGood) << text;
        tried += text == list ? 0 : 1;
    };
    for (const std::string& list : lists) {
        for (size_t at = 0; at < list.size(); ++at) {
            for (const int bit : {1, 32, 128}) {
                std::string text = list;
                text[at] = static_cast<char>(text[at] ^ bit);
                expectRefused(text, list);
            }
            expectRefused(list.substr(0, at), list);
            expectRefused(list.substr(0, at) + list.substr(at + 1), list);
            expectRefused(list.substr(0, at) + list[at] + list.substr(at), list);
        }
        for (const std::string& tail : {std::string("\n"), list.substr(m_sBody.size())}) {
            expectRefused(list + tail, list);
        }
    }
    std::mt19937 random(20261123);
    for (unsigned long round = 0; round < rounds; ++round) {
        const std::string& list = lists[round % 2];
        std::string text = list;
        const size_t at = random() % text.size();
        if (round % 4 < 2) {
            text[at] = static_cast<char>(random());
        } else {
            text.replace(at, random() % 40, list.substr(random() % list.size(), random() % 40));
            text.resize(random() % 4 == 0 ? random() % (text.size() + 1) : text.size());
        }
        expectRefused(text, list);
    }
    EXPECT_GT(tried, rounds / 2);
    std::printf("%zu changed and cut lists, none accepted\n", tried);
}

// Wherever it runs out: it is told as that, and no list is taken for another's sake.
TEST_F(CListsTest, ExhaustedMemoryIsNoYes) {
    const std::string list = signedText(m_sBody, "rsa");
    SSigned result;
    size_t nth = 1;
    for (bool hasFailed = true; hasFailed; ++nth) {
        SListSignature signature = readSignature(list);
        {
            const CScarceMemory memory(nth);
            verifyList({"trust", signature.m_sBody.data(), signature.m_sBody.size(),
                        signature.m_sKeyId.c_str(),
                        reinterpret_cast<const unsigned char*>(signature.m_sBytes.data()),
                        signature.m_sBytes.size(), -1},
                       m_oAnswer);
            hasFailed = CScarceMemory::hasFailed();
        }
        ASSERT_EQ(m_oAnswer.m_nVerdict, uint32_t{hasFailed ? lvNoMemory : lvGood}) << nth;
        {
            const CScarceMemory memory(nth);
            signList("rsa", m_sBody.data(), m_sBody.size(), result);
            ASSERT_EQ(result.m_nSignature == 0, CScarceMemory::hasFailed()) << nth;
        }
    }
    EXPECT_GT(nth, 5u);
}

} // namespace
