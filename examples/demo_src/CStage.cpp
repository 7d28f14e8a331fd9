#include "CStage.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <poll.h>
#include <system_error>

namespace {

constexpr int nPumpTime = 50;      // milliseconds
constexpr int64_t nSortTime = 150; // milliseconds in which what happened is put in order
constexpr auto oCallTime = std::chrono::seconds(15);
constexpr int64_t nDay = 24 * 60 * 60 * 1000; // milliseconds
constexpr char sTranscript[] = "transcript";

int64_t timeOfDay() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    return ((local.tm_hour * 60 + local.tm_min) * 60 + local.tm_sec) * int64_t{1000} + now.tv_nsec / 1000000;
}

// From one time of day to another, over midnight the short way.
int64_t difference(int64_t from, int64_t to) {
    return (to - from + nDay + nDay / 2) % nDay - nDay / 2;
}

std::string makeDirectory() {
    const char* base = std::getenv("TMPDIR");
    std::string path = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/qel-demo.XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return path;
}

} // namespace

CStage::CStage(std::string programs, const std::string& descriptions)
    : m_sPrograms(std::move(programs)), m_sDirectory(makeDirectory()), m_nBegin(timeOfDay()),
      m_oTranscript(m_sDirectory + "/" + sTranscript) {
    m_oEnvironment = {{"QEL_RUNTIME_DIR", m_sDirectory},
                      {"QEL_FEATURE_LIST", listPath()},
                      {"QEL_LOG_FILE", m_sDirectory + "/qelserver.log"},
                      {"QEL_DESCRIPTION", descriptions},
                      {"QEL_DIAG", "off"}};
}

CStage::~CStage() {
    for (const auto& process : m_vProcesses) {
        process->send(SIGTERM); // all at once; the destructors wait for each
    }
    m_vProcesses.clear();
    std::error_code ignored;
    std::filesystem::remove_all(m_sDirectory, ignored);
}

CProcess& CStage::startDaemon() {
    std::ofstream(m_sDirectory +
                  "/qelserver.log"); // so that there is a log to be followed from the beginning
    m_oLog.open(m_sDirectory + "/qelserver.log");
    m_vProcesses.push_back(std::make_unique<CProcess>(
        "daemon", std::vector<std::string>{program("qelserver"), "-run"}, m_oEnvironment));
    return *m_vProcesses.back();
}

CProcess& CStage::startComponent(const std::string& name, std::vector<std::string> command) {
    m_oParsers.emplace(name, CComponentParser(name));
    m_vProcesses.push_back(std::make_unique<CProcess>(name, std::move(command), m_oEnvironment));
    return *m_vProcesses.back();
}

std::pair<std::vector<std::string>, int> CStage::call(std::vector<std::string> command) {
    CProcess process("call", std::move(command), m_oEnvironment);
    std::vector<std::string> lines;
    const auto deadline = std::chrono::steady_clock::now() + oCallTime;
    while (!process.wait(std::chrono::milliseconds(20)) && std::chrono::steady_clock::now() < deadline) {
        std::ranges::move(process.takeLines(), std::back_inserter(lines));
    }
    std::ranges::move(process.takeLines(), std::back_inserter(lines));
    return {lines, process.status().value_or(-1)};
}

void CStage::pump(const std::function<void(const SEvent&)>& listener, bool all) {
    std::vector<pollfd> outputs;
    for (const auto& process : m_vProcesses) {
        outputs.push_back({process->output(), POLLIN, 0});
    }
    poll(outputs.data(), outputs.size(), nPumpTime);
    readLog();
    readComponents();
    std::ranges::stable_sort(m_vHeard, {}, [](const SHeard& heard) { return heard.m_oEvent.m_nTime; });
    const int64_t before = now() - nSortTime;
    std::vector<SHeard> later;
    for (SHeard& heard : m_vHeard) {
        if (all || heard.m_nHeard < before) {
            listener(heard.m_oEvent);
        } else {
            later.push_back(std::move(heard));
        }
    }
    m_vHeard = std::move(later);
}

void CStage::readLog() {
    std::string line;
    while (std::getline(m_oLog, line)) {
        m_sPartialLog += line;
        if (m_oLog.eof()) {
            break;
        }
        hear("daemon", m_sPartialLog, parseDaemonLine);
        m_sPartialLog.clear();
    }
    m_oLog.clear();
}

void CStage::readComponents() {
    for (const auto& process : m_vProcesses) {
        const auto parser = m_oParsers.find(process->name());
        for (const std::string& line : process->takeLines()) {
            hear(process->name(), line, [&](std::string_view text) {
                return parser != m_oParsers.end() ? parser->second.parse(text) : SEvent();
            });
        }
    }
}

void CStage::hear(const std::string& who, std::string_view line,
                  const std::function<SEvent(std::string_view)>& parse) {
    m_oTranscript << who << ": " << line << '\n';
    const int64_t heard = now();
    const std::optional<int64_t> time = takeTimeOfDay(line);
    SEvent event = parse(line);
    event.m_nTime = time ? difference(m_nBegin, *time) : heard;
    if (event.m_eKind != evOther) {
        m_vHeard.push_back({std::move(event), heard});
    }
}

CProcess* CStage::findDead() {
    const auto dead =
        std::ranges::find_if(m_vProcesses, [](const auto& process) { return process->status().has_value(); });
    return dead != m_vProcesses.end() ? dead->get() : nullptr;
}

std::string CStage::keepTranscript() {
    m_oTranscript.flush();
    const std::string kept = m_sDirectory + ".log";
    std::error_code error;
    std::filesystem::rename(m_sDirectory + "/" + sTranscript, kept, error);
    return error ? std::string() : kept;
}

int64_t CStage::now() const {
    return difference(m_nBegin, timeOfDay());
}
