#include "agent/CDesiredList.h"
#include "agent/CSecondLook.h"
#include "agent/agent_config.h"
#include "base/clock.h"
#include "support/files.h"

#include <gtest/gtest.h>
#include <sstream>
#include <thread>

namespace {

using namespace std::chrono_literals;

// "LINE: text" of each error, one below the other.
std::string errorsOf(const std::string& text) {
    std::ostringstream errors;
    for (const SListError& error : parseAgentConfig(text).m_vErrors) {
        errors << error.m_nLine << ": " << error.m_sText << '\n';
    }
    return errors.str();
}

TEST(AgentConfig, TakesWhatIsComplete) {
    const SAgentConfig config =
        parseAgentConfig("fleet = 'north'\n"
                         "[broker]\nhost = 'broker.example'\nuser = 'u'\npassword_file = '/p'\n"
                         "[tls]\nauthority = '/a'\ncertificate = '/c'\nkey = '/k'\n");
    EXPECT_TRUE(config.m_vErrors.empty());
    EXPECT_EQ(config.m_nPort, 8883U);
    EXPECT_TRUE(config.isEncrypted());
    EXPECT_EQ(parseAgentConfig("fleet='f'\n[broker]\nhost='127.0.0.1'\n").m_nPort, 1883U);
}

TEST(AgentConfig, TellsEachFaultWithItsLine) {
    EXPECT_EQ(
        errorsOf("fleet = 'no/rth'\nfleeet = 'x'\ngroups = ['a']\n"
                 "[broker]\nport = 65536\n[tls]\nauthority = 3\ncertificate = ''\n"),
        "1: 'fleet': 'no/rth' is no name: 1 to 64 letters, digits, '.', '-', '_', the first a letter or "
        "digit\n"
        "2: unknown key 'fleeet': did you mean 'fleet'?\n"
        "3: 'groups' stands in /etc/qel/appliance, for the daemon too: remove it here\n"
        "4: 'host' is missing\n"
        "5: 'port' must be from 1 to 65535\n"
        "6: 'key' is missing\n"
        "7: 'authority' must be a string, not integer\n"
        "8: 'certificate' is empty or has a control character\n");
    EXPECT_EQ(errorsOf("fleet = "),
              "1: not TOML: Error while parsing key-value pair: encountered end-of-file\n");
    EXPECT_EQ(errorsOf("fleet = 'f\xE4'"), "1: column 11: byte 0xE4 is no UTF-8\n");
    const std::string clear = "fleet='f'\n\n[broker]\nhost='127.example.com'\npassword_file='/p'\n";
    EXPECT_EQ(
        errorsOf(clear),
        "0: [tls] is missing: lists and passwords would travel to 127.example.com in the clear, which is "
        "for this host only\n3: 'password_file' without 'user'\n");
}

struct Desired : testing::Test {
    Desired() {
        config.m_sFleet = "f";
        config.m_sAppliance = "a";
        config.m_vGroups = {"g", "h"};
        list.emplace(config);
    }
    // What is to be in force, once it is quiet.
    std::string chosen() { return std::string(list->choose(now += CDesiredList::tQuiet).value_or("-")); }
    bool take(const char* of, const char* text) {
        return list->take(std::string("qel/1/f/desired/") + of, text, now);
    }

    SAgentConfig config;
    std::optional<CDesiredList> list;
    CDesiredList::CTime now{};
};

TEST_F(Desired, TheOwnListGoesBeforeThoseOfTheGroupsInTheirOrder) {
    take("group/h", "3");
    EXPECT_EQ(chosen(), "-") << "not everything is subscribed to yet";
    list->subscribed(now);
    EXPECT_FALSE(list->choose(now)) << "more may come";
    take("group/g", "2");
    take("group/h", "3 again");
    EXPECT_FALSE(list->choose(now + CDesiredList::tQuiet - 1ms));
    EXPECT_EQ(chosen(), "2");
    EXPECT_EQ(chosen(), "-") << "a choice is told once";
    take("appliance/a", "1");
    EXPECT_EQ(chosen(), "1");
    take("group/g", "2 again");
    EXPECT_EQ(chosen(), "-");
    EXPECT_FALSE(take("appliance/b", "x")) << "another appliance's";
    list->forget();
    EXPECT_EQ(chosen(), "-") << "a new connection knows nothing";
}

TEST_F(Desired, AListTakenAwayHasTheNextOneFetchedAnew) {
    list->subscribed(now);
    take("group/h", "3");
    take("appliance/a", "1");
    EXPECT_FALSE(list->wanted());
    take("appliance/a", "");
    EXPECT_EQ(list->wanted(), "qel/1/f/desired/group/h");
    EXPECT_FALSE(list->wanted()) << "asked for once";
    EXPECT_EQ(chosen(), "-");
    take("group/h", "3");
    EXPECT_FALSE(list->wanted());
    EXPECT_EQ(chosen(), "3");
    EXPECT_EQ(list->topic(), "qel/1/f/desired/group/h");
    take("group/h", "");
    EXPECT_EQ(chosen(), "-") << "without any list, what is in place stays";
    EXPECT_EQ(list->topic(), "");
}

timeval tTold{};

TEST(SecondLook, ComesWhenSomethingElseWouldBeSaid) {
    const SClock clock{nullptr, [] { return tTold; }};
    useClock(clock);
    const CTestDirectory trust;
    CSecondLook look(trust.path(), trust.path() + "-none");
    CSecondLook::CTime now{};
    const auto after = [&](std::chrono::milliseconds time) {
        now += time;
        tTold.tv_sec = std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count();
        return look.isDue(now);
    };
    const auto judge = [&](EPlaced placed) {
        look.begin(now);
        look.judged(placed, now);
    };
    EXPECT_FALSE(after(1h)) << "nothing was judged";
    for (const auto pause : {500ms, 1000ms, 2000ms}) {
        judge(EPlaced::failed);
        EXPECT_FALSE(after(pause - 1ms));
        EXPECT_TRUE(after(1ms));
    }
    judge(EPlaced::refused);
    EXPECT_FALSE(after(1h));
    std::this_thread::sleep_for(20ms); // a directory's times go by the kernel's ticks
    put(trust.file("new.crt"), "");
    EXPECT_TRUE(after(10s)) << "a certificate came";
    judge(EPlaced::refused);
    EXPECT_FALSE(after(10s));
    tTold.tv_sec += 3600;
    EXPECT_TRUE(look.isDue(now += 10s)) << "the clock was set";
    judge(EPlaced::inPlace);
    EXPECT_FALSE(after(1h));
    useClock(oSystemClock);
}

} // namespace
