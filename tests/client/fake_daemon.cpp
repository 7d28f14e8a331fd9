#include "fake_daemon.h"

#include "platform/mfw.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fmt/format.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr uint32_t nPatience = 5000; // milliseconds that a script waits for a message

std::deque<CBytes> oReceived; // in the daemon's process

void cbReceive(uint16_t, uint32_t, const sOvuMfwMessage* message, uint32_t length) {
    oReceived.emplace_back(message->data, message->data + length);
}

uint32_t client() {
    return static_cast<uint32_t>(getppid());
}

} // namespace

void CDaemonScript::require(bool condition, const std::string& what) {
    if (!condition) {
        fmt::print(stderr, "fake daemon: {}\n", what);
        _exit(1);
    }
}

CBytes CDaemonScript::next(uint32_t waitMs) {
    if (oReceived.empty()) {
        OvuMfwProcessNextMessage(waitMs);
    }
    if (oReceived.empty()) {
        return {};
    }
    CBytes body = oReceived.front();
    oReceived.pop_front();
    m_nTag = readBody<CQelMessageHeader>(body.data(), body.size()).m_nTag;
    return body;
}

CBytes CDaemonScript::expect(uint32_t messageClass, uint32_t subType) {
    CBytes body = next(nPatience);
    auto header = readBody<CQelMessageHeader>(body.data(), body.size());
    require(body.size() >= sizeof header && header.m_nType == messageClass && header.m_nSubType == subType,
            fmt::format("expected {}/{}, got {}/{} of {} bytes", messageClass, subType,
                        uint32_t{header.m_nType}, uint32_t{header.m_nSubType}, body.size()));
    return body;
}

void CDaemonScript::expectHex(const std::string& hex, const std::string& what) {
    std::string expected;
    for (char c : hex) {
        expected += c == 'H' ? fmt::format("{:08x}", client()) : c == ' ' ? "" : std::string(1, c);
    }
    std::string got;
    for (uint8_t byte : next(nPatience)) {
        got += fmt::format("{:02x}", byte);
    }
    require(got == expected, fmt::format("{}:\n  got      {}\n  expected {}", what, got, expected));
}

void CDaemonScript::expectReply(uint32_t status) {
    CBytes body = expect(nQelClientReplyMsgType, WriteReplyMsgType);
    auto message = readBody<CQelReplyMessage>(body.data(), body.size());
    require(message.m_nStatus == status, fmt::format("reply with status {}", uint32_t{message.m_nStatus}));
}

void CDaemonScript::expectSilence(uint32_t ms) {
    require(next(ms).empty(), "a message where none is due");
}

void CDaemonScript::send(uint32_t type, SFeature feature, uint32_t newData, uint32_t tag) {
    CQelServerMessage message;
    message.m_oHeader.m_nLength = sizeof message;
    message.m_oHeader.m_nType = type;
    message.m_oHeader.m_nTag = tag ? tag : m_nTag;
    message.m_nCode = feature.m_nCode;
    message.m_nData = feature.m_nData;
    message.m_nExtra = newData;
    CBytes body(sizeof message);
    std::memcpy(body.data(), &message, sizeof message);
    sendBytes(body);
}

void CDaemonScript::sendBytes(const CBytes& body) {
    sOvuMfwMessage message = {};
    std::copy(body.begin(), body.end(), message.data);
    int rc = OvuMfwSendMessage(client(), nQelServerMfwMsgId, 0, &message, static_cast<uint32_t>(body.size()));
    require(rc == 0, fmt::format("send failed: {}", rc));
}

void CDaemonScript::serve(uint32_t subType, SFeature feature, uint32_t messageClass) {
    expect(messageClass, subType);
    answer(feature);
}

void CDaemonScript::serveList(uint32_t pairs, const std::vector<SFeature>& list) {
    CBytes body = expect(nQelClientRequestMsgType, CompNameMsgType);
    auto message = readBody<CQelNameMessage>(body.data(), body.size());
    require(message.m_nPairCount == pairs && body.size() == sizeof message + pairs * sizeof(CQelPair),
            fmt::format("{} pairs announced in {} bytes", uint32_t{message.m_nPairCount}, body.size()));
    answer();
    serve(InitListMsgType);
    for (const SFeature& feature : list) {
        serve(nQelClientGetFeatureMsgType, feature);
    }
    serve(nQelClientGetFeatureMsgType);
}

void CDaemonScript::serveUp(uint32_t pairs, const std::vector<SFeature>& list) {
    serveList(pairs, list);
    serve(nQelClientStartMonitorMsgType);
}

CFakeDaemon::CFakeDaemon(const std::function<void(CDaemonScript&)>& script, const char* processName) {
    int line[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, line) != 0) {
        std::abort();
    }
    m_nPid = fork();
    m_nLine = line[m_nPid == 0];
    close(line[m_nPid != 0]);
    if (m_nPid != 0) {
        return;
    }
    char word = 0;
    if (read(m_nLine, &word, 1) != 1) {
        _exit(2);
    }
    setenv("QEL_PROCESS_NAME", processName, 1);
    OvuMfwInitialize();
    OvuMfwRegisterCallback(nQelServerMfwMsgId, cbReceive);
    bool told = write(m_nLine, &word, 1) == 1;
    CDaemonScript conversation;
    script(conversation);
    OvuMfwCleanup();
    _exit(told ? 0 : 2);
}

CFakeDaemon::~CFakeDaemon() {
    if (m_nPid > 0) {
        kill(m_nPid, SIGKILL);
        waitpid(m_nPid, nullptr, 0);
    }
    close(m_nLine);
}

void CFakeDaemon::start() {
    char word = 'g';
    ASSERT_EQ(write(m_nLine, &word, 1), 1);
    ASSERT_EQ(read(m_nLine, &word, 1), 1);
}

bool CFakeDaemon::finish() {
    int status = -1;
    waitpid(std::exchange(m_nPid, -1), &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

CClientTest::CClientTest() {
    char directory[] = "/tmp/qel-client-XXXXXX";
    m_sDirectory = mkdtemp(directory);
    setenv("QEL_RUNTIME_DIR", directory, 1);
    setenv("QEL_PROCESS_NAME", "test_client", 1);
}

CClientTest::~CClientTest() {
    qel_close(m_pClient);
    std::filesystem::remove_all(m_sDirectory);
}

void CClientTest::open(const qel_options& options) {
    qel_options complete = options;
    complete.notify = cbNotify;
    complete.user = this;
    ASSERT_EQ(qel_open("Voice", &complete, &m_pClient), 0);
}

int CClientTest::cbNotify(void* user, const qel_notification* n, char* text) {
    static const char* const aKinds[] = {"", "enable", "modify", "disable", "overdue"};
    auto& self = *static_cast<CClientTest*>(user);
    std::string told = fmt::format("{} {}:{}", aKinds[n->kind], n->code, n->data);
    self.m_vTold.push_back(n->kind == QEL_MODIFY ? fmt::format("{}>{}", told, n->new_data) : told);
    return self.m_fnAnswer ? self.m_fnAnswer(*n, text) : QEL_OK;
}
