// A daemon that does what a test tells it, in a process of its own; and the client under test.
#ifndef QEL_TESTS_CLIENT_FAKE_DAEMON_H
#define QEL_TESTS_CLIENT_FAKE_DAEMON_H

#include "client/CFeatureTable.h"
#include "client/qelclient.h"
#include "messaging/wire.h"

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

using CBytes = std::vector<uint8_t>;

// The daemon's side of a conversation. What is not as the script says ends its process with a failure.
class CDaemonScript {
public:
    // The next message from the client, which must be of that class and sub-type.
    CBytes expect(uint32_t messageClass, uint32_t subType);
    void expectHex(const std::string& hex, const std::string& what); // H: the client's handle, and process id
    void expectReply(uint32_t status);
    void expectSilence(uint32_t ms);

    // Messages to the client; `tag` 0: that of the latest message from it.
    void send(uint32_t type, SFeature feature, uint32_t newData = 0, uint32_t tag = 0);
    void answer(SFeature feature = {}) { send(nQelServerReplyMsgType, feature); }
    void sendBytes(const CBytes& body);

    // Expects a request and answers it with a feature.
    void serve(uint32_t subType, SFeature feature = {}, uint32_t messageClass = nQelClientRequestMsgType);
    // From an announcement, which must tell of so many pairs, to the end of the list.
    void serveList(uint32_t pairs, const std::vector<SFeature>& list);
    // The same, and the request to start monitoring.
    void serveUp(uint32_t pairs, const std::vector<SFeature>& list);

    uint32_t latestTag() const { return m_nTag; }
    void require(bool condition, const std::string& what);

private:
    CBytes next(uint32_t waitMs);

    uint32_t m_nTag = 0;
};

// Its process is forked at once, and so before the client opens, but is no daemon before start().
class CFakeDaemon {
public:
    explicit CFakeDaemon(const std::function<void(CDaemonScript&)>& script,
                         const char* processName = "qelserver");
    ~CFakeDaemon();
    CFakeDaemon(const CFakeDaemon&) = delete;

    void start();  // returns when the client can find it
    bool finish(); // waits for the script's end; whether all went as it says

private:
    pid_t m_nPid = -1;
    int m_nLine = -1;
};

// A private runtime directory, and a client whose callbacks are written down.
class CClientTest : public ::testing::Test {
protected:
    CClientTest();
    ~CClientTest() override;

    void open(const qel_options& options = {});

    static int cbNotify(void* user, const qel_notification* notification, char* text);

    qel_client* m_pClient = nullptr;
    std::string m_sDirectory;
    std::vector<std::string> m_vTold; // "enable 1:2", "modify 1:2>3", "disable 1:3", "overdue 1:3"
    std::function<int(const qel_notification&, char*)> m_fnAnswer;
};

#endif
