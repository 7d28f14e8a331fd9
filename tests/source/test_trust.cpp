// Lists where only signed ones are taken: what is refused, with which words, and what stays in force.
#include "base/clock.h"
#include "features/world.h"
#include "source/CFeatureSource.h"
#include "source/list/list_signature.h"
#include "source/short_memory.h"
#include "support/files.h"
#include "tools/module/load_module.h"
#include "tools/sign_module.h"

#include <fmt/format.h>

namespace {

using namespace std::chrono_literals;

class CTrustTest : public CHeartTest {
protected:
    CTrustTest() {
        for (const auto& [name, file] : {std::pair{"QEL_TRUST_DIR", "trust"}, {"QEL_APPLIANCE", "who"}}) {
            setenv(name, m_oDirectory.file(file).c_str(), 1);
        }
        put(m_oDirectory.file("who"), "# who this is\nberlin-07\n\tberlin # first\n");
        shell("mkdir trust; for key in ours new; do " QEL_OPENSSL
              " genpkey -algorithm ed25519 -out $key; " QEL_OPENSSL
              " req -x509 -new -key $key -days 30 -subj /CN=$key -out $key.crt; done; cp ours.crt trust");
        platform().advance(static_cast<uint32_t>(std::time(nullptr)) - nowSeconds());
        start();
    }
    ~CTrustTest() override {
        unsetenv("QEL_TRUST_DIR");
        unsetenv("QEL_APPLIANCE");
    }

    void shell(const std::string& line) const {
        const std::string told = attempt("cd " + m_oDirectory.path() + "; " + line);
        ASSERT_TRUE(told.ends_with("status 0\n")) << told;
    }
    static std::string body(uint32_t serial, uint32_t data, const std::string& more = "") {
        return fmt::format("{}{}[[feature]]\ncode = 1\ndata = {}\ncomponents = []\n",
                           serial != 0 ? fmt::format("serial = {}\n", serial) : "", more, data);
    }
    std::string sign(const std::string& text, const std::string& key = "ours") const {
        SSigned result;
        const SModuleEntry entry = moduleEntry(sSignListEntry);
        EXPECT_NE(entry.m_pFunction, nullptr) << entry.m_szReason;
        reinterpret_cast<decltype(&qelSignList)>(entry.m_pFunction)(m_oDirectory.file(key).c_str(),
                                                                    text.data(), text.size(), &result);
        return text + writeSignature(result.m_szKeyId, {reinterpret_cast<const char*>(result.m_aSignature),
                                                        result.m_nSignature});
    }

    void start() { m_oSource.emplace(m_oDirectory.file("list"), m_oDirectory.file("state"), 5ms); }
    // A new daemon. Whether it has a list.
    bool restart() {
        start();
        return m_oSource->supply(control());
    }
    // The first line about the list, from one that has the words on; empty: none came.
    std::string lineWith(const std::string& words) {
        for (int turn = 0; turn < 100; ++turn) {
            m_oSource->turn();
            m_oSource->takeMail();
            for (const SLogged& line : platform().takeLog()) {
                if (line.m_sText.find(words) != std::string::npos) {
                    return line.m_sText;
                }
            }
        }
        return "";
    }
    // The serial in force and whose it is.
    std::string inForce() const {
        const SListSeal& seal = m_oSource->state().m_oInForce.m_oSeal;
        return fmt::format("{} {}", seal.m_nSerial, fieldText(seal.m_szSigner));
    }

    const CTestDirectory m_oDirectory;
    const std::string m_sList = m_oDirectory.file("list");
    std::optional<CFeatureSource> m_oSource;
};

TEST_F(CTrustTest, WhatIsNotToBeTakenIsToldAndWhatIsInForceStays) {
    put(m_sList, sign(body(5, 1)));
    ASSERT_TRUE(restart());
    const std::string good = sign(body(6, 2));
    const std::pair<std::string, const char*> aLists[] = {
        {body(6, 2), "is not signed"},
        {"]" + good, "was changed after key"}, // and is no TOML: nobody parses it
        {good + good, "has a second #qel-signature, in line 6"},
        {good.substr(0, good.size() - 1), "malformed"},
        {sign(body(6, 2), "new"), "signed by another key"},
        {sign(body(4, 2)), "its serial 4 is lower than 5, which is in force"},
        {sign(body(5, 2)), "its serial 5 is that of another list"},
        {sign(body(0, 2)), "has no 'serial'"},
        {sign(body(6, 2, "scope = ['paris', 'berlin-08']\n")),
         "is for paris, berlin-08, not for this appliance, berlin-07 (groups berlin)"},
    };
    for (const auto& [text, words] : aLists) {
        put(m_sList, text);
        EXPECT_NE(lineWith(words), "") << words;
        EXPECT_EQ(m_oSource->state().m_oLatest.m_eResult, lrRefused);
        EXPECT_TRUE(restart());
        EXPECT_NE(lineWith("the one taken last is used instead"), "") << words;
        EXPECT_EQ(inForce(), "5 CN=ours");
        EXPECT_NE(control().findFeatureByCodeData(1, 1), nullptr) << words;
    }
    put(m_sList, sign(body(6, 2, "scope = ['paris', 'berlin']\nissued = 2026-11-23T00:00:00Z\n")));
    EXPECT_NE(lineWith("handed over"), "");
    // The same features, and another number: it counts at once, and after a restart.
    put(m_sList, sign(body(9, 2)));
    EXPECT_NE(lineWith("unchanged"), "");
    EXPECT_EQ(inForce(), "9 CN=ours");
    put(m_sList, sign(body(8, 2)));
    EXPECT_TRUE(restart());
    EXPECT_EQ(inForce(), "9 CN=ours");
    put(m_oDirectory.file("who"), "berlin 07");
    put(m_sList, sign(body(10, 2, "scope = ['berlin']\n")));
    EXPECT_NE(lineWith("it cannot be told which appliance this is: "), "");
}

TEST_F(CTrustTest, WhatCannotBeVerifiedIsRefusedUntilItCan) {
    const uint32_t today = nowSeconds();
    platform().m_nMicroseconds = 0; // a host without a clock of its own
    put(m_sList, sign(body(5, 1)));
    EXPECT_FALSE(restart());
    platform().advance(today);
    EXPECT_NE(lineWith("handed over"), "");
    put(m_sList, sign(body(6, 1), "new"));
    EXPECT_NE(lineWith("signed by another key"), "");
    shell("cp new.crt trust");
    EXPECT_NE(lineWith("unchanged"), "") << "a certificate came, and the list stayed";
    EXPECT_EQ(inForce(), "6 CN=new");
    shell("mv trust trust2");
    put(m_sList, sign(body(7, 2)));
    EXPECT_NE(lineWith("cannot be verified: the trust directory "), "");
    EXPECT_EQ(inForce(), "6 CN=new");
    EXPECT_FALSE(restart()) << "nor is the kept list verified";
    put(m_sList, sign(body(5, 2)));
    shell("mv trust2 trust");
    EXPECT_NE(lineWith("its serial 5 is lower than 6"), "")
        << "of the list that could not be read at the start";
    shell("echo x >x.crt; mv x.crt trust");
    EXPECT_TRUE(
        lineWith("a certificate is left out: ").ends_with("trust/x.crt: is no certificate in PEM form"));
    put(m_sList, sign(body(7, 2)));
    EXPECT_NE(lineWith("handed over"), "");
    platform().advance(31 * 86400);
    EXPECT_TRUE(restart()) << "it was in time when it was taken";
    EXPECT_EQ(inForce(), "7 CN=ours");
    put(m_sList, sign(body(8, 2)));
    EXPECT_NE(lineWith("/trust/ours.crt was valid until 2"), "");
}

TEST_F(CTrustTest, TrustComesWithTheDirectoryAndDoesNotGoWithIt) {
    const std::string directory = m_oDirectory.file("later");
    CListTrust trust({directory, false}), named({directory, true}), unclear({m_sList + "/x/y", false});
    put(m_sList, "no directory");
    EXPECT_FALSE(trust.isOn());
    EXPECT_TRUE(named.isOn());
    EXPECT_TRUE(unclear.isOn());
    std::filesystem::create_directory(directory);
    EXPECT_TRUE(trust.isOn());
    std::filesystem::remove(directory);
    EXPECT_TRUE(trust.isOn());
    std::filesystem::create_directory_symlink(directory, m_oDirectory.file("link"));
    EXPECT_TRUE(CListTrust({m_oDirectory.file("link"), false}).isOn()) << "where it leads is not there yet";
}

TEST_F(CTrustTest, AListThatDidNotFitIntoMemoryIsNotTaken) {
    put(m_sList, sign(body(5, 1)));
    ASSERT_TRUE(restart()); // and is kept: the next one is compared with it
    put(m_sList, sign(body(6, 2, "scope = ['berlin']\n")));
    expectTakenOnceThereIsMemory(
        [&] { return CFeatureLoader(m_sList, m_oDirectory.file("state/features.toml")); });
}

} // namespace
