#include "integration/daemon.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fnmatch.h>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string textOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

uint32_t ownHandle() {
    uint32_t handle = 0;
    EXPECT_EQ(OvuMfwGetProcessHandle(nullptr, &handle), 0);
    return handle;
}

} // namespace

bool eventually(const std::function<bool()>& isTrue, int milliseconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!isTrue()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        usleep(2000);
    }
    return true;
}

bool isLike(const std::string& text, std::string pattern) {
    for (size_t at = 0; (at = pattern.find('#', at)) != std::string::npos;) {
        pattern.replace(at, 1, "[0-9]");
    }
    return fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
}

CProgram::CProgram(const std::vector<std::string>& arguments, std::string outputFile)
    : m_sOutputFile(std::move(outputFile)) {
    std::vector<char*> words{const_cast<char*>(QEL_DAEMON)};
    for (const std::string& argument : arguments) {
        words.push_back(const_cast<char*>(argument.c_str()));
    }
    words.push_back(nullptr);
    m_nPid = fork();
    if (m_nPid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        unsetenv("QEL_PROCESS_NAME");
        const int file = open(m_sOutputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(file, STDOUT_FILENO);
        dup2(file, STDERR_FILENO);
        execv(QEL_DAEMON, words.data());
        _exit(127);
    }
}

CProgram::~CProgram() {
    if (isRunning()) {
        signal(SIGKILL);
        waitpid(m_nPid, nullptr, 0);
    }
}

bool CProgram::isRunning() {
    int status = 0;
    if (m_nPid > 0 && waitpid(m_nPid, &status, WNOHANG) == m_nPid) {
        m_nStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        m_nPid = -1;
    }
    return m_nPid > 0;
}

int CProgram::wait() {
    eventually([this] { return !isRunning(); });
    return m_nStatus;
}

void CProgram::signal(int number) const {
    kill(m_nPid, number);
}

std::string CProgram::output() const {
    return textOf(m_sOutputFile);
}

std::string words(const std::vector<uint32_t>& values) {
    std::string body;
    for (const uint32_t value : values) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            body += static_cast<char>(value >> shift & 0xFF);
        }
    }
    return body;
}

std::string nameMessage(uint32_t tag, const std::string& name, uint32_t pairCount) {
    std::string field = name;
    field.resize(20);
    return words({0, 0, 0, 0, tag, ownHandle(), static_cast<uint32_t>(getpid())}) + field +
           words({pairCount});
}

std::string request(uint32_t subType, uint32_t tag) {
    return words({0, 0, 0, subType, tag, ownHandle(), 0, 0, 0, 0, 0, 0, 0});
}

std::string reply(uint32_t subType, uint32_t tag, uint32_t status) {
    return words({0, 0, 1, subType, tag, ownHandle(), 0, status, 0});
}

std::string oamRequest(uint32_t tag) {
    return words({0, 0, 11, 0, tag, ownHandle()});
}

std::string inHex(const std::string& body) {
    std::ostringstream hex;
    for (size_t i = 0; i < body.size(); ++i) {
        hex << (i > 0 && i % 4 == 0 ? " " : "") << std::hex << std::setw(2) << std::setfill('0')
            << int{static_cast<uint8_t>(body[i])};
    }
    return hex.str();
}

std::string feature(uint32_t code, uint32_t data, const std::string& component, bool isSourced) {
    return "[[feature]]\ncode = " + std::to_string(code) + "\ndata = " + std::to_string(data) +
           "\ncomponents = [\"" + component + "\"]\n" + (isSourced ? "sourced = true\n" : "");
}

void CDaemonTest::SetUp() {
    CPlatformTest::SetUp();
    setenv("QEL_DIAG", "off", 1);
    setenv("QEL_LOG_FILE", (m_sDirectory + "/log").c_str(), 1);
    setenv("QEL_FEATURE_LIST", (m_sDirectory + "/features.toml").c_str(), 1);
    writeList(feature(1, 1, "Nobody"));
}

void CDaemonTest::TearDown() {
    m_pDaemon.reset();
    CPlatformTest::TearDown();
}

std::unique_ptr<CProgram> CDaemonTest::run(const std::vector<std::string>& arguments) {
    return std::make_unique<CProgram>(arguments, m_sDirectory + "/output." + std::to_string(++m_nPrograms));
}

void CDaemonTest::startDaemon() {
    m_pDaemon = run({"-run"});
    const auto isFound = [this] { return OvuMfwGetProcessHandle("qelserver", &m_nHandle) == 0; };
    ASSERT_TRUE(eventually(isFound, 4 * nPatience)); // it reads its list first
}

void CDaemonTest::sendStop() {
    for (int i = 0; i < 10 && m_pDaemon->isRunning(); ++i) {
        EXPECT_EQ(run({"-stop"})->wait(), 0);
        eventually([this] { return !m_pDaemon->isRunning(); }, 3000);
    }
}

void CDaemonTest::stopDaemon() {
    sendStop();
    EXPECT_EQ(m_pDaemon->wait(), 0);
    EXPECT_EQ(m_pDaemon->output(), "");
}

std::string CDaemonTest::receive(uint32_t milliseconds) {
    const size_t before = oReceived.size();
    OvuMfwProcessNextMessage(milliseconds);
    return oReceived.size() > before ? inHex(oReceived.back().text()) : "";
}

std::map<uint32_t, uint32_t> CDaemonTest::featuresInForce() const {
    std::map<uint32_t, uint32_t> features;
    std::istringstream answer(ask(oamRequest(1)));
    std::vector<uint32_t> all;
    for (uint32_t word = 0; answer >> std::hex >> word;) {
        all.push_back(word);
    }
    for (size_t i = 7; i + 3 < all.size(); i += 4) { // header, count; then status, code, data, text length
        if (all[i] != 3) {
            features[all[i + 1]] = all[i + 2];
        }
    }
    return features;
}

void CDaemonTest::writeList(const std::string& toml) const {
    std::ofstream(m_sDirectory + "/features.toml") << toml;
}

std::string CDaemonTest::log() const {
    return textOf(m_sDirectory + "/log");
}

size_t CDaemonTest::countInLog(const std::string& text) const {
    const std::string all = log();
    size_t count = 0;
    for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) {
        ++count;
    }
    return count;
}
