// Files of the test's own, and what commands print.
#ifndef QEL_TESTS_SUPPORT_FILES_H
#define QEL_TESTS_SUPPORT_FILES_H

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>

// A directory that goes with its owner, and all that is in it.
class CTestDirectory {
public:
    CTestDirectory() { EXPECT_NE(mkdtemp(m_sPath.data()), nullptr); }
    ~CTestDirectory() { std::filesystem::remove_all(m_sPath); }

    const std::string& path() const { return m_sPath; }
    std::string file(const std::string& name) const { return m_sPath + "/" + name; }

private:
    std::string m_sPath = testing::TempDir() + "qel-XXXXXX";
};

inline std::string contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void put(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

// While this lives, no file can be opened; those that are open stay so.
class CNoDescriptors {
public:
    CNoDescriptors() {
        getrlimit(RLIMIT_NOFILE, &m_oBefore);
        const rlimit none{0, m_oBefore.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~CNoDescriptors() { setrlimit(RLIMIT_NOFILE, &m_oBefore); }
    CNoDescriptors(const CNoDescriptors&) = delete;
    CNoDescriptors& operator=(const CNoDescriptors&) = delete;

private:
    rlimit m_oBefore{};
};

// Runs a line of the shell. Returns what it prints, on either channel, and a last line with its status.
inline std::string attempt(const std::string& line) {
    std::string output;
    FILE* pipe = popen(("exec 2>&1 </dev/null; (" + line + "); echo status $?").c_str(), "r");
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) {
        output += static_cast<char>(c);
    }
    pclose(pipe);
    return output;
}

#endif
