#include "CProcess.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>

namespace {

constexpr auto oGrace = std::chrono::seconds(2); // for a process that is asked to end before it is killed
constexpr auto oReapPause = std::chrono::milliseconds(10);

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// In the child, between fork and exec.
[[noreturn]] void become(std::vector<std::string>& command, const CEnvironment& environment, int output,
                         pid_t parent) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(127);
    }
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    for (const auto& [name, value] : environment) {
        setenv(name.c_str(), value.c_str(), 1);
    }
    std::vector<char*> arguments;
    for (std::string& argument : command) {
        arguments.push_back(argument.data());
    }
    arguments.push_back(nullptr);
    execv(arguments[0], arguments.data());
    _exit(127);
}

} // namespace

CProcess::CProcess(std::string name, std::vector<std::string> command, const CEnvironment& environment)
    : m_sName(std::move(name)) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        fail("pipe");
    }
    m_oOutput = CFileDescriptor(ends[0]);
    const CFileDescriptor input(ends[1]);
    fcntl(m_oOutput.get(), F_SETFL, O_NONBLOCK);
    const pid_t parent = getpid();
    m_nPid = fork();
    if (m_nPid < 0) {
        fail("fork");
    }
    if (m_nPid == 0) {
        become(command, environment, input.get(), parent);
    }
}

CProcess::~CProcess() {
    if (status()) {
        return;
    }
    send(SIGTERM);
    if (!wait(oGrace)) {
        send(SIGKILL);
        waitpid(m_nPid, nullptr, 0);
    }
}

std::vector<std::string> CProcess::takeLines() {
    char buffer[4096];
    ssize_t count = 0;
    while (m_oOutput && (count = read(m_oOutput.get(), buffer, sizeof buffer)) > 0) {
        m_sPartial.append(buffer, static_cast<size_t>(count));
    }
    if (m_oOutput && count == 0) {
        m_oOutput.close();
        m_sPartial += m_sPartial.empty() || m_sPartial.back() == '\n' ? "" : "\n";
    }
    std::vector<std::string> lines;
    size_t end = 0;
    while ((end = m_sPartial.find('\n')) != std::string::npos) {
        lines.push_back(m_sPartial.substr(0, end));
        m_sPartial.erase(0, end + 1);
    }
    return lines;
}

std::optional<int> CProcess::status() {
    int word = 0;
    if (!m_oStatus && waitpid(m_nPid, &word, WNOHANG) == m_nPid) {
        m_oStatus = WIFSIGNALED(word) ? 128 + WTERMSIG(word) : WEXITSTATUS(word);
    }
    return m_oStatus;
}

std::optional<int> CProcess::wait(std::chrono::milliseconds time) {
    const auto deadline = std::chrono::steady_clock::now() + time;
    while (!status() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(oReapPause);
    }
    return m_oStatus;
}

void CProcess::send(int signal) const {
    if (!m_oStatus) {
        kill(m_nPid, signal);
    }
}
