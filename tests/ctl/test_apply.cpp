// qelctl apply and undo, as an operator uses them.
#include "base/CFileDescriptor.h"
#include "support/files.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <set>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

std::string feature(uint32_t code, uint32_t data, const std::string& more = "components = ['Voice']") {
    return fmt::format("[[feature]]\ncode = {}\ndata = {}\n{}\n", code, data, more);
}

// Features 1:`data` to 5:`data`.
std::string five(uint32_t data) {
    std::string list;
    for (uint32_t code = 1; code <= 5; ++code) {
        list += feature(code, data);
    }
    return list;
}

class CApply : public testing::Test {
protected:
    CApply() {
        setenv("QEL_FEATURE_LIST", m_sList.c_str(), 1);
        setenv("QEL_STATE_DIR", m_oDirectory.file("state").c_str(), 1);
        unsetenv("QEL_DESCRIPTION");
    }
    // What it prints, without the status 0, and the directory's name cut out of it.
    std::string run(const std::string& arguments, const std::string& before = "") const {
        std::string output = ::attempt(before + QEL_CTL " " + arguments);
        for (const std::string& part : {m_oDirectory.path() + "/", std::string("status 0\n")}) {
            for (size_t at = output.find(part); at != output.npos; at = output.find(part)) {
                output.erase(at, part.size());
            }
        }
        return output;
    }
    std::string apply(const std::string& list, const std::string& options = "",
                      const char* before = "") const {
        put(m_oDirectory.file("new"), list);
        return run("apply --no-wait " + m_oDirectory.file("new") + " " + options, before);
    }
    std::string kept(int number) const { return m_sList + "." + std::to_string(number); }
    size_t filesLeft() const { // lists, the new one and that in place included
        return static_cast<size_t>(
            std::distance(std::filesystem::directory_iterator(m_oDirectory.path()), {}));
    }

    const CTestDirectory m_oDirectory;
    const std::string m_sList = m_oDirectory.file("list");
};

TEST_F(CApply, TellsWhatChangesForWhom) {
    const std::string kept = "components = ['Voice', 'Gateway']\nsourced = true";
    const std::string before = feature(1, 1) + feature(2, 5, kept) + feature(3, 1, kept) + feature(4, 1) +
                               feature(4, 2) + feature(5, 1) + feature(6, 1) + feature(7, 1);
    const std::string after = feature(2, 6, kept) + feature(3, 1, "components = ['Voice', 'Door']") +
                              feature(4, 2) + feature(4, 3) + feature(5, 0) + feature(6, 1) +
                              feature(7, 1, "components = ['Voice']\nsourced = true") + feature(8, 1, kept);
    put(m_sList, before);
    EXPECT_EQ(
        apply(after, "--dry-run --force"),
        "~ 2: 5 -> 6 (Voice, Gateway)\n~ 3:1 (+Door, -Gateway), no longer sourced\n+ 4:3 (Voice)\n"
        "~ 5: 1 -> 0 (Voice)\n~ 7:1, now sourced\n+ 8:1 (Voice, Gateway)\n- 1:1 (Voice)\n- 4:1 (Voice)\n"
        "2 added, 2 withdrawn, 4 changed: 3 components told of 7 features; "
        "3 without 'sourced' told again\nnothing was changed (--dry-run)\n");
    EXPECT_EQ(apply(feature(4, 9), "--dry-run --force").substr(0, 41),
              "~ 4: 1 -> 9 (Voice)\n- 1:1 (Voice)\n- 2:5 (");
    EXPECT_EQ(apply(before + "# a comment", "--dry-run"),
              "no feature changes\nnothing was changed (--dry-run)\n");
    EXPECT_EQ(contents(m_sList), before);
    EXPECT_EQ(filesLeft(), 2u);
}

TEST_F(CApply, KeepsFiveListsAndGoesBackOneByOne) {
    EXPECT_EQ(run("undo"), "qelctl: no list before list is kept\nstatus 1\n");
    EXPECT_PRED_FORMAT2(testing::IsSubstring, "list is in place\n", apply(five(1)));
    EXPECT_EQ(filesLeft(), 2u) << "there was nothing to keep";
    ASSERT_EQ(chmod(m_sList.c_str(), 0640), 0);
    static_cast<void>(chown(m_sList.c_str(), 1234, 1234)); // where the test may
    struct stat mine {};
    ASSERT_EQ(stat(m_sList.c_str(), &mine), 0);
    for (uint32_t data = 2; data <= 8; ++data) {
        EXPECT_EQ(apply(five(data), "-q"), "");
    }
    EXPECT_EQ(apply(five(8), "-q"), "") << "the same again, which is not kept";
    EXPECT_EQ(filesLeft(), 7u);
    std::filesystem::remove(kept(3)); // 5:5
    for (uint32_t data : {7U, 6U, 4U, 3U}) {
        struct stat now {};
        ASSERT_EQ(stat(m_sList.c_str(), &now), 0);
        EXPECT_EQ(now.st_mode, mine.st_mode);
        EXPECT_EQ(now.st_uid, mine.st_uid);
        EXPECT_EQ(now.st_gid, mine.st_gid);
        EXPECT_EQ(run("undo -q --no-wait"), "");
        EXPECT_EQ(contents(m_sList), five(data));
    }
    EXPECT_EQ(run("undo -q --no-wait"), "qelctl: no list before list is kept\nstatus 1\n");
    EXPECT_EQ(filesLeft(), 2u);
}

TEST_F(CApply, WhatIsBadOrNotMeantIsToldAndChangesNothing) {
    put(m_sList, five(1));
    const std::string told = apply("[[feature]]\ncode = -1\ndata = 1\ncomponents = []\nname = 5\n");
    EXPECT_TRUE(told.starts_with("new:2: ")) << told;
    EXPECT_TRUE(told.ends_with("status 1\n")) << told;
    EXPECT_EQ(told, run("check " + m_oDirectory.file("new")));
    EXPECT_PRED_FORMAT2(testing::IsSubstring,
                        "other: cannot be read: ", run("apply " + m_oDirectory.file("other")));
    const std::string three = feature(1, 1) + feature(2, 1) + feature(3, 1);
    EXPECT_EQ(apply(three, "-q"), "qelctl: 2 of 5 features would be withdrawn, more than a fifth: nothing "
                                  "was changed (--force does it)\nstatus 1\n");
    EXPECT_PRED_FORMAT2(testing::IsSubstring, "\"result\": \"refused\"", apply(three, "--json --dry-run"));
    EXPECT_EQ(contents(m_sList), five(1));
    EXPECT_EQ(apply(three + feature(4, 1), "-q"), "") << "a fifth, and not more";
    put(m_sList, feature(1, 5, "components = []\nsourced = true"));
    EXPECT_EQ(
        apply(feature(1, 0, "components = []\nsourced = true"), "-q"),
        "new:1: the data of sourced feature 1 cannot change from 5 to 0: withdraw it with one list, bring "
        "it back with the next\nstatus 1\n");
    put(m_sList, "[[feature]");
    std::filesystem::create_directory(m_oDirectory.file("state"));
    put(m_oDirectory.file("state/features.toml"), five(1));
    EXPECT_PRED_FORMAT2(
        testing::IsSubstring,
        "list is faulty: compared with the list taken last, state/features.toml\nqelctl: 2 of 5 ",
        apply(three, "-q --dry-run"));
    std::filesystem::remove_all(m_oDirectory.file("state"));
    EXPECT_PRED_FORMAT2(testing::IsSubstring, "list is faulty: there is nothing to compare with",
                        apply(five(2)));
    put(kept(1), "no list");
    EXPECT_PRED_FORMAT2(testing::IsSubstring, "refuse list.1; to go further back", run("undo"));
    EXPECT_EQ(contents(m_sList), five(2));
}

TEST_F(CApply, AStepThatFailsLeavesTheListInPlaceAndIsNamed) {
    const std::string full = "trap '' XFSZ; ulimit -f 1; ";
    const struct {
        std::string m_sObstacle, m_sBefore, m_sTelling;
    } aCases[] = {
        {"", full, "cannot write .list.partial: "},
        {".list.partial", "", "cannot create .list.partial: "},
        {".list.1.partial", "", "cannot create .list.1.partial: "},
        {"list.5", "", "cannot move to list.5 what is list.4: Is a directory"},
    };
    const std::string before = five(1) + "#" + std::string(2000, '#');
    for (const auto& one : aCases) {
        SCOPED_TRACE(one.m_sTelling);
        std::filesystem::remove_all(m_oDirectory.path());
        std::filesystem::create_directories(m_oDirectory.file(one.m_sObstacle + "/in the way"));
        put(m_sList, before);
        for (int number = 1; number <= 4; ++number) {
            put(kept(number), five(100 + static_cast<uint32_t>(number)));
        }
        const std::string told = apply(five(2) + before.substr(five(1).size()), "-q", one.m_sBefore.c_str());
        EXPECT_PRED_FORMAT2(testing::IsSubstring, one.m_sTelling, told);
        EXPECT_EQ(contents(m_sList), before);
        EXPECT_FALSE(std::filesystem::is_regular_file(m_oDirectory.file(".list.partial")));
    }
}

// Whoever looks meanwhile finds a whole list, and in the end every list is kept once.
TEST_F(CApply, SeveralAtATimeDoNotMix) {
    put(m_sList, five(100));
    std::filesystem::create_symlink("list", m_oDirectory.file("link"));
    std::string line;
    for (uint32_t data = 1; data <= 5; ++data) {
        const std::string file = m_oDirectory.file("new" + std::to_string(data));
        put(file, five(data));
        line += fmt::format("{} apply -q --no-wait {} {} & ", QEL_CTL, file,
                            data % 2 == 0 ? "--list " + m_oDirectory.file("link") : "");
    }
    std::string told;
    std::thread appliers([&] { told = ::attempt(line + "wait"); });
    for (std::string list = contents(m_sList); list == five(100); list = contents(m_sList)) {
    }
    for (int look = 0; look < 1000; ++look) {
        ASSERT_EQ(contents(m_sList).size(), five(1).size());
    }
    appliers.join();
    EXPECT_EQ(told, "status 0\n");
    EXPECT_TRUE(std::filesystem::is_symlink(m_oDirectory.file("link")));
    std::set<std::string> lists = {contents(m_sList)};
    for (int number = 1; number <= 5; ++number) {
        lists.insert(contents(kept(number)));
    }
    EXPECT_EQ(lists.size(), 6u);
    EXPECT_EQ(contents(kept(5)), five(100));
}

// A lock that somebody else holds, as anybody may who can read the directory, ends the command and not the
// patience.
TEST_F(CApply, DoesNotWaitForeverForALock) {
    put(m_sList, five(1));
    const CFileDescriptor directory(::open(m_oDirectory.path().c_str(), O_RDONLY | O_DIRECTORY));
    ASSERT_EQ(::flock(directory.get(), LOCK_SH), 0);
    EXPECT_EQ(apply(five(2), "-q"), "qelctl: another process holds the lock on " + m_oDirectory.path() +
                                        " (lslocks tells which)\nstatus 1\n");
    EXPECT_EQ(contents(m_sList), five(1));
}

// Root changes nothing for whoever can put a link in the list's place.
TEST_F(CApply, FollowsNoLinkOfAnotherUser) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can make one";
    }
    put(m_oDirectory.file("precious"), five(1));
    std::filesystem::create_symlink("precious", m_oDirectory.file("theirs"));
    ASSERT_EQ(lchown(m_oDirectory.file("theirs").c_str(), 1, 1), 0);
    std::filesystem::create_symlink("theirs", m_sList);
    EXPECT_EQ(apply(five(2), "-q"),
              "qelctl: theirs is a link that another user has made, and is not followed\nstatus 1\n");
    EXPECT_EQ(contents(m_oDirectory.file("precious")), five(1));
}

// Where lists must be signed, each command takes and leaves what the daemon would take and leave.
TEST_F(CApply, SignsOnTheWayAndGoesBackWithAHigherSerial) {
    setenv("QEL_TRUST_DIR", m_oDirectory.file("trust").c_str(), 1);
    const std::string made =
        ::attempt("cd " + m_oDirectory.path() +
                  " && mkdir trust && " QEL_OPENSSL " genpkey -algorithm ed25519 -out key && " QEL_OPENSSL
                  " req -x509 -new -key key -days 9 -subj /CN=site -out trust/c.crt && " QEL_OPENSSL
                  " genpkey -algorithm "
                  "ed25519 -out other && " QEL_OPENSSL
                  " req -x509 -new -key other -days 9 -subj /CN=new -out later.crt");
    ASSERT_TRUE(made.ends_with("status 0\n")) << made;
    const std::string key = " --key " + m_oDirectory.file("key"), file = m_oDirectory.file("new");
    const auto expectSaid = [](const std::string& part, const std::string& told) {
        EXPECT_PRED_FORMAT2(testing::IsSubstring, part, told);
    };
    expectSaid("new: is not signed", apply(five(1)));
    put(file, "[[feature]]\ncode = -1");
    expectSaid("new:2: 'code' must be", run("check " + file));
    put(file, five(1));
    expectSaid("has no 'serial'", run("sign " + file + key));
    expectSaid(", serial 41", run("sign --serial 41 " + file + key));
    expectSaid("good, signed by CN=site (key ", run("verify " + file));
    expectSaid("; serial 41, signed by CN=site", run("check " + file));
    EXPECT_EQ(run("apply -q --no-wait " + file), "");
    EXPECT_EQ(contents(m_sList), contents(file));
    put(file, "serial = 41\n" + five(2));
    EXPECT_EQ(run("sign -q " + file + key), "");
    expectSaid("serial 41 is that of another list", run("apply -q " + file));
    EXPECT_EQ(run("sign -q --serial next " + file + " --key " + m_oDirectory.file("other")), "");
    expectSaid("signed by another key", run("verify " + file));
    expectSaid(", serial 42\n", apply(five(2), key));         // an older list's serial is raised
    expectSaid("has no 'serial'", run("sign " + file + key)); // the file itself stays as it is
    expectSaid("undo --key KEY signs list.1 anew", run("undo --no-wait"));
    expectSaid(", serial 43\n", run("undo --no-wait" + key));
    EXPECT_EQ(contents(m_sList).substr(0, 12), "serial = 43\n");
    std::filesystem::create_directory(m_oDirectory.file("state"));
    std::filesystem::copy(m_sList, m_oDirectory.file("state/features.toml"));
    EXPECT_EQ(run("sign -q --serial 42 " + file + key), "");
    expectSaid("its serial 42 is lower than 43", run("check " + file));
    expectSaid("list is like that already", run("apply --no-wait " + m_sList + key));
    expectSaid("good, signed by CN=site", run("verify " + m_sList));
    std::filesystem::rename(m_oDirectory.file("later.crt"), m_oDirectory.file("trust/later.crt"));
    expectSaid(", serial 43\n", run("apply --no-wait " + m_sList + " --key " + m_oDirectory.file("other")));
    expectSaid("good, signed by CN=new",
               run("verify " + m_sList)); // a change of keys leaves nothing signed by the old
    put(m_sList, contents(m_sList).replace(0, 11, "serial = 44"));
    expectSaid("was changed after key", run("verify " + m_sList));
    expectSaid("none cannot be read: No such file",
               run("verify --trust " + m_oDirectory.file("none") + " " + m_sList));
    unsetenv("QEL_TRUST_DIR");
}

// In the daemon's own time: the next audit tells what has changed.
TEST_F(CApply, WaitsUntilEverythingIsDeliveredOrRefused) {
    for (const char* name : {"QEL_RUNTIME_DIR", "QEL_LOG_FILE"}) {
        setenv(name, m_oDirectory.file(name).c_str(), 1);
    }
    setenv("QEL_DIAG", "off", 1);
    put(m_sList, five(1));
    put(m_oDirectory.file("new"), five(2));
    EXPECT_EQ(run("apply -q " + m_oDirectory.file("new")), "qelctl: the daemon is not running\nstatus 2\n");
    EXPECT_EQ(contents(m_sList), five(2));
    const std::string silent = " >" + m_oDirectory.file("output") + " 2>&1 & ";
    const std::string told = run(
        "undo", "timeout 60 " QEL_DAEMON " -run" + silent +
                    QEL_CTL " component Voice --wait --fetch --monitor --refuse 3 --for 30" + silent +
                    "for try in 1 2 3 4 5 6 7 8 9; do sleep .2; " QEL_CTL " wait -q Voice && break; done; ");
    EXPECT_PRED_FORMAT2(testing::IsSubstring, "\n4 of 5 delivered, 1 problem after ", told);
    EXPECT_PRED_FORMAT2(testing::IsSubstring, "status 3", told);
    EXPECT_PRED_FORMAT2(testing::IsSubstring, "status 0", ::attempt(QEL_DAEMON " -stop"));
}

} // namespace
