#include "processes.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

std::vector<SReceived>& oReceived = *new std::vector<SReceived>;

void CLine::tell(char word) const {
    send(m_nFd, &word, 1, MSG_NOSIGNAL);
}

char CLine::hear() const {
    char word = '\0';
    return recv(m_nFd, &word, 1, 0) == 1 ? word : '\0';
}

CChild::CChild(const std::function<int(const CLine&)>& body) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        ADD_FAILURE() << "socketpair: " << std::strerror(errno);
        return;
    }
    m_nPid = fork();
    if (m_nPid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(ends[0]);
        _exit(body(CLine(ends[1])));
    }
    close(ends[1]);
    m_nFd = ends[0];
}

CChild::~CChild() {
    if (m_nPid > 0) {
        killHard();
    }
    if (m_nFd >= 0) {
        close(m_nFd);
    }
}

int CChild::wait() {
    int status = 0;
    waitpid(std::exchange(m_nPid, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void CChild::killHard() {
    kill(m_nPid, SIGKILL);
    wait();
}

CChild startPeer(const std::string& name, const std::function<int(const CLine&)>& body) {
    CChild child([&](const CLine& line) {
        setenv("QEL_PROCESS_NAME", name.c_str(), 1);
        OvuMfwRegisterCallback(0, keep);
        if (OvuMfwInitialize() != 0) {
            return 99;
        }
        line.tell('o');
        return body(line);
    });
    EXPECT_EQ(child.hear(), 'o');
    return child;
}

int hang(const CLine& line) {
    line.hear();
    return 0;
}

void keep(uint16_t type, uint32_t userId, const sOvuMfwMessage* message, uint32_t length) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(message);
    const auto* body = bytes + OVU_MFW_DATA_OFFSET;
    const uint8_t* s = message->sender;
    const uint32_t sender = static_cast<uint32_t>(s[0] << 24 | s[1] << 16 | s[2] << 8 | s[3]);
    oReceived.push_back(
        {type, userId, sender, {body, body + std::max<uint32_t>(length, OVU_MFW_MIN_DATA)}, length});
}

std::string receiveText() {
    const size_t before = oReceived.size();
    const int result = OvuMfwProcessNextMessage(10000);
    return result == 0 && oReceived.size() == before + 1 ? oReceived.back().text() : "none";
}

int sendText(uint32_t handle, uint16_t type, const std::string& text, uint32_t userId) {
    std::vector<uint8_t> record(OVU_MFW_DATA_OFFSET + text.size(), 0xFF); // what stands first must not matter
    std::copy(text.begin(), text.end(), record.begin() + OVU_MFW_DATA_OFFSET);
    const void* start = record.data();
    return OvuMfwSendMessage(handle, type, userId, static_cast<const sOvuMfwMessage*>(start),
                             static_cast<uint32_t>(text.size()));
}

void CPlatformTest::SetUp() {
    m_sDirectory = ::testing::TempDir() + "qel-platform-XXXXXX";
    ASSERT_NE(mkdtemp(m_sDirectory.data()), nullptr);
    setenv("QEL_RUNTIME_DIR", m_sDirectory.c_str(), 1);
    oReceived.clear();
}

void CPlatformTest::TearDown() {
    OvuMfwCleanup();
    std::filesystem::remove_all(m_sDirectory);
}

void CPlatformTest::openEndpoint(const std::string& name) {
    setenv("QEL_PROCESS_NAME", name.c_str(), 1);
    ASSERT_EQ(OvuMfwInitialize(), 0);
    ASSERT_EQ(OvuMfwRegisterCallback(0, keep), 0);
}

bool CPlatformTest::exists(const std::string& file) const {
    return std::filesystem::exists(m_sDirectory + "/" + file);
}
