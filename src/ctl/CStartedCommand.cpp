#include "ctl/CStartedCommand.h"

#include "ctl/terminal.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr std::chrono::milliseconds tLook{10};
constexpr std::chrono::seconds tToEnd{5}; // what it has for an orderly end

[[noreturn]] void execute(const std::vector<std::string>& words) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    execvp(arguments[0], arguments.data());
    complain(fmt::format("{}: {}", words[0], std::strerror(errno)));
    _exit(127);
}

} // namespace

CStartedCommand::~CStartedCommand() {
    signal(SIGTERM);
    for (const auto end = std::chrono::steady_clock::now() + tToEnd;
         isRunning() && std::chrono::steady_clock::now() < end;) {
        std::this_thread::sleep_for(tLook);
    }
    signal(SIGKILL);
    while (isRunning()) {
        std::this_thread::sleep_for(tLook);
    }
}

bool CStartedCommand::start() {
    std::fflush(nullptr); // or both would write what is still buffered
    m_nPid = fork();
    if (m_nPid == 0) {
        execute(m_vWords);
    }
    m_oStatus.reset();
    return m_nPid > 0;
}

bool CStartedCommand::isRunning() {
    int status = 0;
    if (m_nPid > 0 && waitpid(m_nPid, &status, WNOHANG) == m_nPid) {
        m_nPid = -1;
        m_oStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return m_nPid > 0;
}

// Before its end was seen, its process id is nobody else's.
void CStartedCommand::signal(int number) {
    if (m_nPid > 0) {
        kill(m_nPid, number);
    }
}
