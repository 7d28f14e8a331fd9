// The real daemon in a runtime directory of the test's own, and the messages that components send to it.
#ifndef QEL_TESTS_INTEGRATION_DAEMON_H
#define QEL_TESTS_INTEGRATION_DAEMON_H

#include "base/big_endian.h"
#include "platform/processes.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fnmatch.h>
#include <map>
#include <optional>

// How each line of the text log begins.
inline const std::string sStamp = "*-*-* *:*:*.*: ";

// Asks again and again; false where it did not come true in time.
inline bool eventually(const std::function<bool()>& isTrue) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(nPatience);
    bool isSo = isTrue();
    for (; !isSo && std::chrono::steady_clock::now() < end; isSo = isTrue()) {
        usleep(2000);
    }
    return isSo;
}

// Whether a text is of a pattern as file names have them.
inline testing::AssertionResult isLike(const std::string& text, const std::string& pattern) {
    const bool isMatch = fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
    return (isMatch ? testing::AssertionSuccess() : testing::AssertionFailure()) << text;
}

inline std::string words(const std::vector<CBigEndian32>& values) {
    return {reinterpret_cast<const char*>(values.data()), 4 * values.size()};
}

// Bodies as components send them. Answers go to the calling process, which gives its handle for its process
// id as well.
enum : uint32_t { nGetFeature = 2, nStartMonitor = 3, nWriteReply = 5, nShutdown = 6 };

inline std::string nameMessage(uint32_t tag, std::string name, uint32_t pairCount = 0) {
    name.resize(20);
    return words({0, 0, 0, 0, tag, ownHandle(), ownHandle()}) + name + words({pairCount});
}
inline std::string request(uint32_t subType, uint32_t tag) {
    return words({0, 0, 0, subType, tag, ownHandle(), 0, 0, 0, 0, 0, 0, 0});
}
inline std::string reply(uint32_t subType, uint32_t tag, uint32_t status) {
    return words({0, 0, 1, subType, tag, ownHandle(), 0, status, 0});
}
inline std::string oamRequest(uint32_t tag) {
    return words({0, 0, 11, 0, tag, ownHandle()});
}

// One table of the list file.
inline std::string feature(uint32_t code, uint32_t data, const char* component, const char* more = "") {
    return fmt::format("[[feature]]\ncode = {}\ndata = {}\ncomponents = [\"{}\"]\n{}\n", code, data,
                       component, more);
}

// The daemon of this build tree, or that of another processor's.
inline std::string daemonProgram() {
    const char* other = std::getenv("QEL_TEST_DAEMON");
    return other != nullptr ? other : QEL_DAEMON;
}

class CDaemonTest : public CPlatformTest {
protected:
    using Features = std::map<uint32_t, uint32_t>; // code to data

    void SetUp() override {
        CPlatformTest::SetUp();
        setenv("QEL_DIAG", "off", 1);
        setenv("QEL_LOG_FILE", file("log").c_str(), 1);
        setenv("QEL_FEATURE_LIST", file("features.toml").c_str(), 1);
        writeList(feature(1, 1, "Nobody"));
    }

    // Runs the daemon's executable to its end.
    static std::string attempt(const std::string& arguments) {
        return ::attempt("timeout 60 " + daemonProgram() + " " + arguments);
    }
    // A daemon that hangs is ended by SIGALRM after four times the patience.
    void launchDaemon(const char* option = nullptr) {
        m_oDaemon.emplace([&](const CLine&) {
            alarm(4U * nPatience / 1000);
            unsetenv("QEL_PROCESS_NAME");
            for (const int signal : {SIGHUP, SIGPIPE, SIGXFSZ}) { // whatever started the test may ignore them
                std::signal(signal, SIG_DFL);
            }
            const int output = open(file("output").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(output, STDOUT_FILENO);
            dup2(output, STDERR_FILENO);
            const std::string program = daemonProgram();
            return execl(program.c_str(), program.c_str(), "-run", option, nullptr);
        });
    }
    // Waits until it answers, and leaves the test with an endpoint.
    void startDaemon(const char* option = nullptr) {
        OvuMfwCleanup();
        launchDaemon(option);
        ASSERT_TRUE(eventually([this] { return findDaemon(); })); // it reads its list first
        openEndpoint();
        ASSERT_NE(ask(oamRequest(0)), "none");
    }
    void stopDaemon(bool isSilent = true) { // by its event; it must end well
        EXPECT_TRUE(isLike(attempt("-stop"), "Sending stop event (0x*)\nstatus 0\n"));
        EXPECT_EQ(m_oDaemon->end(), 0);
        EXPECT_EQ(contents(file("output")).empty(), isSilent) << contents(file("output"));
    }

    bool findDaemon() { return OvuMfwGetProcessHandle("qelserver", &m_nHandle) == 0; }
    void send(const std::string& body) const { EXPECT_EQ(sendText(m_nHandle, 6, body), 0); }
    std::string ask(const std::string& body) const { return send(body), receiveText(); }

    // The list in force as OAM sees it, without what is being withdrawn.
    Features featuresInForce() const {
        Features features;
        const std::string answer = ask(oamRequest(1));
        for (size_t at = 28; at + 16 <= answer.size(); at += 16) { // behind the header and the count
            CBigEndian32 record[3];                                // status, code, data
            answer.copy(reinterpret_cast<char*>(record), sizeof record, at);
            if (record[0] != 3) {
                features[record[1]] = record[2];
            }
        }
        return features;
    }

    void writeList(const std::string& toml) const { put(file("features.toml"), toml); }
    std::string log() const { return contents(file("log")); }
    size_t countInLog(const std::string& text) const {
        const std::string all = log();
        size_t count = 0;
        for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) {
            ++count;
        }
        return count;
    }

    std::optional<CChild> m_oDaemon;
    uint32_t m_nHandle = 0; // of the daemon
};

#endif
