// A process of the demonstration, and the lines that it prints.
#ifndef QEL_DEMO_CPROCESS_H
#define QEL_DEMO_CPROCESS_H

#include "base/CFileDescriptor.h"

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

using CEnvironment = std::vector<std::pair<std::string, std::string>>; // what is added to our own

// Runs in a process group of its own, so that Ctrl-C at the terminal reaches only the demonstration, which
// then stops the rest in order; and dies with the demonstration, however that dies. The destructor leaves
// nothing running and nothing to be reaped.
class CProcess {
public:
    // Throws std::system_error where the process cannot be made; a program that cannot be executed exits with
    // 127.
    CProcess(std::string name, std::vector<std::string> command, const CEnvironment& environment);
    ~CProcess();
    CProcess(const CProcess&) = delete;
    CProcess& operator=(const CProcess&) = delete;

    // The lines that are there, without waiting. After the end also a last one that was not ended.
    std::vector<std::string> takeLines();
    // Its exit status, 128 and the signal's number where one killed it, nothing while it runs.
    std::optional<int> status();
    // Reaps it, or gives up when the time is over.
    std::optional<int> wait(std::chrono::milliseconds time);
    void send(int signal) const;

    const std::string& name() const { return m_sName; }
    pid_t pid() const { return m_nPid; }
    int output() const {
        return m_oOutput.get();
    } // readable when there is something to take; -1 after its end

private:
    std::string m_sName;
    pid_t m_nPid = -1;
    CFileDescriptor m_oOutput; // standard output and standard error
    std::string m_sPartial;
    std::optional<int> m_oStatus;
};

#endif
