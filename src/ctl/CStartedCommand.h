// A process that qelctl starts from a command line, and whose end it sees.
#ifndef QEL_CTL_CSTARTEDCOMMAND_H
#define QEL_CTL_CSTARTEDCOMMAND_H

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

// Its standard output goes to our standard error, which leaves ours to our own. It gets SIGTERM when we die.
class CStartedCommand {
public:
    explicit CStartedCommand(std::vector<std::string> words) : m_vWords(std::move(words)) {}
    ~CStartedCommand();
    CStartedCommand(const CStartedCommand&) = delete;
    CStartedCommand& operator=(const CStartedCommand&) = delete;

    bool isGiven() const { return !m_vWords.empty(); }
    // False where there is no process to be had. A program that cannot be executed ends with 127.
    [[nodiscard]] bool start();
    bool isRunning(); // looks
    void signal(int number);
    // Exit status, or 128 and the number of the signal that ended it. Nothing before its first end, nor while
    // it runs.
    std::optional<int> status() const { return m_oStatus; }

private:
    const std::vector<std::string> m_vWords;
    pid_t m_nPid = -1;
    std::optional<int> m_oStatus;
};

#endif
