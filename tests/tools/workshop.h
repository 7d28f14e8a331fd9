// A directory of its own for each test, with a key pair of ours in it: key, key.pub and key.crt.
#ifndef QEL_TESTS_TOOLS_WORKSHOP_H
#define QEL_TESTS_TOOLS_WORKSHOP_H

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <unistd.h>

inline std::string contents(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline void put(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

// The result of a tool, without its words on standard output.
template <typename FTool>
int quietly(FTool tool) {
    const int output = ::dup(STDOUT_FILENO);
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    std::fflush(stdout);
    ::dup2(nowhere, STDOUT_FILENO);
    const int result = tool();
    std::fflush(stdout);
    ::dup2(output, STDOUT_FILENO);
    ::close(output);
    ::close(nowhere);
    return result;
}

class CWorkshop : public testing::Test {
protected:
    void SetUp() override {
        std::string path = testing::TempDir() + "qel-tools-XXXXXX";
        ASSERT_NE(::mkdtemp(path.data()), nullptr);
        std::filesystem::current_path(path);
        ::setenv("qel", QEL_DAEMON, 1);
        ::setenv("openssl", QEL_OPENSSL, 1);
        run("$qel -newkey key");
    }
    void TearDown() override {
        const std::filesystem::path path = std::filesystem::current_path();
        std::filesystem::current_path("/");
        std::filesystem::remove_all(path);
    }

    // A line for the shell, in which $qel and $openssl are the tools. Returns its output, on either channel,
    // and a last line with its status.
    static std::string attempt(const std::string& line) {
        std::string output;
        FILE* pipe = ::popen(("exec 2>&1 </dev/null; (" + line + "); echo status $?").c_str(), "r");
        for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) {
            output += static_cast<char>(c);
        }
        ::pclose(pipe);
        return output;
    }
    // One that must succeed.
    static std::string run(const std::string& line) {
        const std::string output = attempt(line);
        const size_t end = output.rfind("status 0\n");
        EXPECT_NE(end, std::string::npos) << line << "\n" << output;
        return output.substr(0, end);
    }
};

#endif
