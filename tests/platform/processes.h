// What the platform's tests share: real processes in a runtime directory of their own, and what came in.
#ifndef QEL_TESTS_PLATFORM_PROCESSES_H
#define QEL_TESTS_PLATFORM_PROCESSES_H

#include "base/CFileDescriptor.h"
#include "platform/mfw.h"
#include "platform/os.h"
#include "support/files.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <functional>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

// One end of a line between two processes, on which they tell each other single words.
class CLine {
public:
    explicit CLine(int fd) : m_oSocket(fd) {}
    void tell(char word) const { send(m_oSocket.get(), &word, 1, MSG_NOSIGNAL); }
    char hear() const { // '\0' where the other process is gone
        char word = '\0';
        return recv(m_oSocket.get(), &word, 1, 0) == 1 ? word : '\0';
    }

protected:
    CFileDescriptor m_oSocket;
};

// Runs `body` and exits with its result. To be started while the test has no endpoint and no further thread.
class CChild : public CLine {
public:
    explicit CChild(const std::function<int(const CLine&)>& body) : CLine(-1) {
        int ends[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        m_nPid = fork();
        if (m_nPid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(ends[0]);
            _exit(body(CLine(ends[1])));
        }
        close(ends[1]);
        m_oSocket = CFileDescriptor(ends[0]);
    }
    CChild(CChild&& other) noexcept
        : CLine(std::move(other)), m_nPid(std::exchange(other.m_nPid, -1)), m_nHandle(other.m_nHandle) {}
    ~CChild() { end(SIGKILL); }

    pid_t process() const { return m_nPid; }
    uint32_t handle() const { return m_nHandle; }
    void hearHandle() {
        for (int i = 0; i < 4; ++i) {
            m_nHandle = m_nHandle << 8 | static_cast<uint8_t>(hear());
        }
    }
    int end(int signal = 0) { // sends the signal, if any; exit status, or 128 + what it died of
        int status = 0;
        if (m_nPid > 0) {
            kill(m_nPid, signal);
            waitpid(std::exchange(m_nPid, -1), &status, 0);
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t m_nPid = -1;
    uint32_t m_nHandle = 0;
};

struct SReceived {
    uint16_t m_nType;
    uint32_t m_nUserId;
    uint32_t m_nSender;
    std::string m_sRecord; // the body, and what must be readable behind it
    uint32_t m_nLength;
    std::string text() const { return m_sRecord.substr(0, m_nLength); }
};

inline std::vector<SReceived> oReceived;

inline void keep(uint16_t type, uint32_t userId, const sOvuMfwMessage* message, uint32_t length) {
    const uint8_t* s = message->sender;
    const uint32_t sender = static_cast<uint32_t>(s[0] << 24 | s[1] << 16 | s[2] << 8 | s[3]);
    const char* body = reinterpret_cast<const char*>(message) + OVU_MFW_DATA_OFFSET;
    oReceived.push_back({type, userId, sender, {body, std::max<size_t>(length, OVU_MFW_MIN_DATA)}, length});
}

inline constexpr int nPatience = 60000; // milliseconds; for what comes at once but under sanitizers

// Takes in one message and returns its text; "none" where none comes.
inline std::string receiveText() {
    const size_t before = oReceived.size();
    const int result = OvuMfwProcessNextMessage(nPatience);
    return result == 0 && oReceived.size() == before + 1 ? oReceived.back().text() : "none";
}

// What stands in the record before the text must not matter.
inline int sendText(uint32_t handle, uint16_t type, const std::string& text, uint32_t userId = 0) {
    const std::string record = std::string(OVU_MFW_DATA_OFFSET, '\xFF') + text;
    return OvuMfwSendMessage(handle, type, userId, reinterpret_cast<const sOvuMfwMessage*>(record.data()),
                             static_cast<uint32_t>(text.size()));
}

inline uint32_t ownHandle() {
    uint32_t handle = 0;
    EXPECT_EQ(OvuMfwGetProcessHandle(nullptr, &handle), 0);
    return handle;
}

// A child with an endpoint called `name`, heard to be open, that then runs `body`.
inline CChild startPeer(const std::string& name, const std::function<int(const CLine&)>& body) {
    CChild child([&](const CLine& line) {
        setenv("QEL_PROCESS_NAME", name.c_str(), 1);
        OvuMfwRegisterCallback(0, keep);
        line.tell(OvuMfwInitialize() == 0 ? 'o' : '?');
        for (const int shift : {24, 16, 8, 0}) {
            line.tell(static_cast<char>(ownHandle() >> shift));
        }
        return body(line);
    });
    EXPECT_EQ(child.hear(), 'o');
    child.hearHandle();
    return child;
}

// Does nothing more, least of all reading, until it is told to go.
inline const auto hang = [](const CLine& line) { return line.hear() == 'g' ? 0 : 1; };

// A socket that the test plays a peer with, attached to `path` by bind or connect; "@..." has no file.
inline CFileDescriptor socketAt(const std::string& path, int type, decltype(&connect) attach) {
    CFileDescriptor opened(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    std::replace(address.sun_path, address.sun_path + 1, '@', '\0');
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    EXPECT_EQ(attach(opened.get(), reinterpret_cast<const sockaddr*>(&address), length), 0) << path;
    return opened;
}

// What has come to such a socket; "none" where nothing has.
inline std::string datagram(const CFileDescriptor& socket) {
    char text[4096];
    const ssize_t size = recv(socket.get(), text, sizeof text, MSG_DONTWAIT);
    return size > 0 ? std::string(text, static_cast<size_t>(size)) : "none";
}

class CPlatformTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("QEL_RUNTIME_DIR", m_oDirectory.path().c_str(), 1);
        oReceived.clear();
    }
    void TearDown() override { OvuMfwCleanup(); }

    void openEndpoint() { // called "tested"; its messages all go to keep()
        setenv("QEL_PROCESS_NAME", "tested", 1);
        ASSERT_EQ(OvuMfwInitialize(), 0);
        ASSERT_EQ(OvuMfwRegisterCallback(0, keep), 0);
    }
    std::string file(const std::string& name) const { return m_oDirectory.file(name); }
    bool exists(const std::string& name) const { return std::filesystem::exists(file(name)); }

    const uint32_t m_nOwn = ownHandle();
    const CTestDirectory m_oDirectory;
};

#endif
