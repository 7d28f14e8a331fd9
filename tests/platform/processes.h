// What the platform's tests share: a runtime directory of their own, real processes to play with, and the
// messages that came in.
#ifndef QEL_TESTS_PLATFORM_PROCESSES_H
#define QEL_TESTS_PLATFORM_PROCESSES_H

#include "platform/mfw.h"
#include "platform/os.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/types.h>
#include <vector>

// One end of a line between two processes, on which they tell each other single words.
class CLine {
public:
    explicit CLine(int fd) : m_nFd(fd) {}
    void tell(char word) const;
    char hear() const; // '\0' where the other process is gone

private:
    int m_nFd;
};

// A process that runs `body` and exits with its result; killed with the test at the latest. To be started
// while the test has no endpoint and no further thread.
class CChild {
public:
    explicit CChild(const std::function<int(const CLine&)>& body);
    ~CChild();
    CChild(const CChild&) = delete;
    CChild(CChild&& other) noexcept
        : m_nPid(std::exchange(other.m_nPid, -1)), m_nFd(std::exchange(other.m_nFd, -1)) {}

    uint32_t handle() const { return static_cast<uint32_t>(m_nPid); }
    pid_t pid() const { return m_nPid; }
    void tell(char word) const { CLine(m_nFd).tell(word); }
    char hear() const { return CLine(m_nFd).hear(); }
    int wait();      // for its end; its exit status, or 128 + signal
    void killHard(); // as the kernel would, with no chance to clean up

private:
    pid_t m_nPid = -1;
    int m_nFd = -1;
};

// A child with an endpoint called `name`, heard to be open, that then runs `body`.
CChild startPeer(const std::string& name, const std::function<int(const CLine&)>& body);

// Does nothing more, least of all reading, until it is told to go.
int hang(const CLine& line);

struct SReceived {
    uint16_t m_nType;
    uint32_t m_nUserId;
    uint32_t m_nSender;
    std::vector<uint8_t> m_oRecord; // the body, and what must be readable behind it
    uint32_t m_nLength;
    std::string text() const { return {m_oRecord.begin(), m_oRecord.begin() + m_nLength}; }
};

extern std::vector<SReceived>& oReceived; // never destroyed: a test ends its process in the middle of traffic
void keep(uint16_t type, uint32_t userId, const sOvuMfwMessage* message, uint32_t length); // into oReceived

// Takes in one message and returns its text; "none" where none came for ten seconds.
std::string receiveText();

int sendText(uint32_t handle, uint16_t type, const std::string& text, uint32_t userId = 0);

class CPlatformTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Opens an endpoint whose messages all go to keep().
    void openEndpoint(const std::string& name = "tested");
    bool exists(const std::string& file) const;

    std::string m_sDirectory;
};

#endif
