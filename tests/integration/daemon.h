// The real daemon in a runtime directory of the test's own, and the messages that components send to it.
#ifndef QEL_TESTS_INTEGRATION_DAEMON_H
#define QEL_TESTS_INTEGRATION_DAEMON_H

#include "messaging/wire.h"
#include "platform/processes.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

inline constexpr int nPatience = 30000; // milliseconds; for what comes at once but under sanitizers

// Asks again and again; false where it did not come true in time.
bool eventually(const std::function<bool()>& isTrue, int milliseconds = nPatience);

// Whether a text is of a pattern as file names have them; '#' stands for a digit.
bool isLike(const std::string& text, std::string pattern);

// How each line of the text log begins.
inline constexpr char szStamp[] = "####-##-## ##:##:##.###: ";

// The daemon's executable, run with the test's environment. Killed and reaped with the object at the latest.
class CProgram {
public:
    CProgram(const std::vector<std::string>& arguments, std::string outputFile);
    ~CProgram();
    CProgram(const CProgram&) = delete;

    bool isRunning(); // reaps it where it has ended
    int wait();       // exit status, or 128 + signal; -1: it did not end
    void signal(int number) const;
    std::string output() const; // standard output and standard error

private:
    pid_t m_nPid = -1;
    int m_nStatus = -1;
    std::string m_sOutputFile;
};

// Bodies as components send them; answers go to `handle`, by default the calling process's.
std::string words(const std::vector<uint32_t>& values);
std::string nameMessage(uint32_t tag, const std::string& name, uint32_t pairCount = 0);
std::string request(uint32_t subType, uint32_t tag);
std::string reply(uint32_t subType, uint32_t tag, uint32_t status);
std::string oamRequest(uint32_t tag);
// As words in hexadecimal.
std::string inHex(const std::string& body);

class CDaemonTest : public CPlatformTest {
protected:
    void SetUp() override;
    void TearDown() override;

    std::unique_ptr<CProgram> run(const std::vector<std::string>& arguments);
    void startDaemon(); // and waits until it can be found
    void sendStop();    // until it has ended; one that comes before the daemon made its event is lost
    void stopDaemon();  // by its event; it must end well and have printed nothing

    void send(const std::string& body) const { EXPECT_EQ(sendText(m_nHandle, 6, body), 0); }
    // The next message, in hexadecimal; empty where none comes.
    static std::string receive(uint32_t milliseconds = nPatience);
    // Sends and returns the answer.
    std::string ask(const std::string& body) const { return send(body), receive(); }

    // The list in force as OAM sees it, code to data, without what is being withdrawn.
    std::map<uint32_t, uint32_t> featuresInForce() const;

    void writeList(const std::string& toml) const;
    std::string log() const;
    size_t countInLog(const std::string& text) const;

    std::unique_ptr<CProgram> m_pDaemon;
    uint32_t m_nHandle = 0; // of the daemon

private:
    int m_nPrograms = 0;
};

// One table of the list file.
std::string feature(uint32_t code, uint32_t data, const std::string& component, bool isSourced = false);

#endif
