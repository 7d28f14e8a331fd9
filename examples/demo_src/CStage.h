// Where the demonstration plays: a private runtime directory, the processes in it, and all that they say.
#ifndef QEL_DEMO_CSTAGE_H
#define QEL_DEMO_CSTAGE_H

#include "CProcess.h"
#include "events.h"

#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

// However the object goes, its processes are reaped and its directory is removed. One thread.
class CStage {
public:
    // Directory of the programs, and the file with the features' names. Throws std::system_error.
    CStage(std::string programs, const std::string& descriptions);
    ~CStage();
    CStage(const CStage&) = delete;
    CStage& operator=(const CStage&) = delete;

    // Starts a program that stays. What it prints is read by pump(); a component's is taken as such.
    CProcess& startDaemon();
    CProcess& startComponent(const std::string& name, std::vector<std::string> command);
    // Runs a program that ends by itself, within 15 seconds or it is killed. Its lines, and its exit status.
    std::pair<std::vector<std::string>, int> call(std::vector<std::string> command);

    // Reads what is there, waiting for at most 50 ms, and hands what happened to the listener: in the order
    // of its time, whoever told it, and therefore a little later than it came.
    void pump(const std::function<void(const SEvent&)>& listener, bool all = false); // all: without the delay
    // The first process that is gone though nobody asked it to go, null if there is none.
    CProcess* findDead();

    // The path of everything that was said, kept when the directory goes; "" where it cannot be kept.
    std::string keepTranscript();

    int64_t now() const; // milliseconds since the beginning
    std::string program(const std::string& name) const { return m_sPrograms + "/" + name; }
    std::string listPath() const { return m_sDirectory + "/features.toml"; }

private:
    struct SHeard {
        SEvent m_oEvent;
        int64_t m_nHeard = 0; // milliseconds since the beginning
    };

    void readLog();
    void readComponents();
    void hear(const std::string& who, std::string_view line,
              const std::function<SEvent(std::string_view)>& parse);

    std::string m_sPrograms;
    std::string m_sDirectory;
    CEnvironment m_oEnvironment;
    int64_t m_nBegin; // milliseconds since midnight
    std::ofstream m_oTranscript;
    std::ifstream m_oLog;
    std::string m_sPartialLog; // a line that is being written
    std::vector<std::unique_ptr<CProcess>> m_vProcesses;
    std::map<std::string, CComponentParser> m_oParsers; // by component
    std::vector<SHeard> m_vHeard;                       // not told yet, as it came
};

#endif
