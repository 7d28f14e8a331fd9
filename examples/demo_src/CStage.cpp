#include "CStage.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <optional>
#include <regex>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

constexpr auto oReapPause = std::chrono::milliseconds(10);
constexpr int nMaxReapPauses = 200;           // for a process that is asked to end before it is killed
constexpr int64_t nDay = 24 * 60 * 60 * 1000; // milliseconds

// What cannot be executed exits with 127.
pid_t launch(const std::string& command, const std::string& output) {
    std::ofstream(output).close(); // to be followed from its beginning
    const std::string script = "exec " + command + " </dev/null >>\"$0\" 2>&1";
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() == parent) {
            execl("/bin/sh", "sh", "-c", script.c_str(), output.c_str(), nullptr);
        }
        _exit(127);
    }
    return child;
}

std::string makeDirectory() {
    std::string path = std::filesystem::temp_directory_path() / "qel-demo.XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return path;
}

// In universal time, which the processes have as well.
int64_t timeOfDay() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count() % nDay;
}

// From one time of day to another, over midnight the short way.
int64_t difference(int64_t from, int64_t to) {
    return (to - from + nDay + nDay / 2) % nDay - nDay / 2;
}

// Takes "[date ]HH:MM:SS.mmm[:] " off the front of a line; where there is no such stamp, it is now.
int64_t takeTimeOfDay(std::string& line) {
    static const std::regex stamp(R"((?:[-\d]+ )?(\d+):(\d+):(\d+)\.(\d{3}):? )");
    std::smatch found;
    if (!std::regex_search(line, found, stamp, std::regex_constants::match_continuous)) {
        return timeOfDay();
    }
    const auto part = [&found](size_t i) { return std::stoll(found[i]); };
    const int64_t time = ((part(1) * 60 + part(2)) * 60 + part(3)) * 1000 + part(4);
    line = std::string(found.suffix());
    return time;
}

} // namespace

// Runs in a process group of its own, so that Ctrl-C at the terminal reaches only the demonstration, which
// then stops the rest in order; and dies with the demonstration, however that dies. The destructor leaves
// nothing running and nothing to be reaped.
struct CStage::SProcess {
    SProcess(const std::string& name, const std::string& command, const std::string& output, bool stays)
        : m_sName(name), m_bStays(stays), m_nPid(launch(command, output)), m_oOutput(output) {}
    ~SProcess() {
        for (int pauses = 0; !status(); ++pauses) {
            send(pauses == 0 ? SIGTERM : pauses < nMaxReapPauses ? 0 : SIGKILL);
            std::this_thread::sleep_for(oReapPause);
        }
    }

    void send(int signal) const { kill(m_nPid, signal); } // not to one that is reaped

    // 128 and the signal's number where one killed it, nothing while it runs.
    std::optional<int> status() {
        int word = 0;
        if (!m_oStatus && waitpid(m_nPid, &word, WNOHANG) == m_nPid) {
            m_oStatus = WIFSIGNALED(word) ? 128 + WTERMSIG(word) : WEXITSTATUS(word);
        }
        return m_oStatus;
    }

    // The next line; one that is being written stays for the next time.
    std::optional<std::string> takeLine() {
        const std::streampos begin = m_oOutput.tellg();
        std::string line;
        if (std::getline(m_oOutput, line) && !m_oOutput.eof()) {
            return line;
        }
        m_oOutput.clear();
        m_oOutput.seekg(begin);
        return std::nullopt;
    }

    const std::string m_sName;
    bool m_bStays;
    const pid_t m_nPid;
    std::ifstream m_oOutput;
    std::optional<int> m_oStatus;
};

CStage::CStage(CChronicle& chronicle, const std::string& descriptions)
    : m_oChronicle(chronicle), m_sDirectory(makeDirectory()), m_nBegin(timeOfDay()) {
    setenv("QEL_RUNTIME_DIR", m_sDirectory.c_str(), 1);
    setenv("QEL_FEATURE_LIST", listPath().c_str(), 1);
    setenv("QEL_LOG_FILE", file(sDaemon).c_str(), 1); // where its output goes, too
    setenv("QEL_DESCRIPTION", descriptions.c_str(), 1);
    setenv("QEL_DIAG", "off", 1);
    setenv("TZ", "UTC0", 1);
}

CStage::~CStage() {
    for (const auto& process : m_vProcesses) {
        process->send(SIGTERM); // all at once; the destructors wait for each
    }
    m_vProcesses.clear();
    std::error_code ignored;
    std::filesystem::remove_all(m_sDirectory, ignored);
}

void CStage::start(const std::string& name, const std::string& command, bool stays) {
    m_vProcesses.push_back(std::make_unique<SProcess>(name, command, file(name), stays));
    say(name, fmt::format("starts as process {}: {}", m_vProcesses.back()->m_nPid, command));
}

bool CStage::dismiss() {
    bool gone = true;
    for (const auto& process : m_vProcesses) {
        const bool component = process->m_sName != sDaemon;
        if (std::exchange(process->m_bStays, false) && component) {
            process->send(SIGINT);
        }
        gone = gone && !component;
    }
    return gone;
}

void CStage::listen() {
    std::erase_if(m_vProcesses, [this](const auto& process) {
        const std::optional<int> status = process->status(); // first, so that all its lines are there
        while (std::optional<std::string> line = process->takeLine()) {
            const int64_t time = takeTimeOfDay(*line);
            m_oChronicle.hear(difference(m_nBegin, time), process->m_sName, *line);
        }
        if (status) {
            say(process->m_sName,
                fmt::format("ended{}, status {}", process->m_bStays ? " before its time" : "", *status));
        }
        return status.has_value();
    });
}

int64_t CStage::now() const {
    return difference(m_nBegin, timeOfDay());
}
