// Components that keep the daemon busy with deliveries, and with nothing else meanwhile.
//
//     pace_components COMPONENTS FEATURES
//
// Each is a process that announces itself as Pace0, Pace1, ..., monitors, and keeps back its reply to the
// first notification until a line comes in on standard input; "ready" on standard output asks for that. Then
// each replies at once to whatever comes. "done": the daemon has answered FEATURES replies of each.
#include "messaging/wire/wire.h"
#include "platform/mfw.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

int aTold[2] = {-1, -1}; // a byte from each component when it has something to reply, another when it is done
int aGo[2] = {-1, -1};   // closed by the parent: reply

uint32_t nOwn = nNoHandle;
uint32_t nDaemon = nNoHandle;
bool bGoing = false;
int nAnswers = 0; // of the daemon, to this component

void tellParent() {
    const char word = 1;
    if (write(aTold[1], &word, 1) != 1) {
        _exit(1);
    }
}

void waitForParent() {
    char word = 0;
    if (read(aGo[0], &word, 1) != 0) {
        _exit(1);
    }
}

template <typename Message>
void sendToDaemon(Message message, uint32_t type, uint32_t subType, size_t length) {
    message.m_oHeader.m_nType = type;
    message.m_oHeader.m_nSubType = subType;
    message.m_oHeader.m_nHandle = nOwn;
    message.m_oHeader.m_nLength = static_cast<uint32_t>(length);
    sOvuMfwMessage record = {};
    std::memcpy(record.data, &message, length);
    if (OvuMfwSendMessage(nDaemon, nQelServerMfwMsgId, 0, &record, static_cast<uint32_t>(length)) != 0) {
        _exit(1);
    }
}

void sendRequest(uint32_t subType, const std::string& name) {
    CQelNameMessage message;
    message.m_nProcessId = static_cast<uint32_t>(getpid());
    name.copy(message.m_szName, nMaxNameLength);
    sendToDaemon(message, nQelClientRequestMsgType, subType, sizeof message);
}

void sendReply(uint32_t subType) {
    CQelReplyMessage message;
    message.m_nStatus = nReplyOk;
    sendToDaemon(message, nQelClientReplyMsgType, subType, offsetof(CQelReplyMessage, m_szText) + 1);
}

void cbMessage(uint16_t, uint32_t, const sOvuMfwMessage* record, uint32_t length) {
    if (readBody<CQelMessageHeader>(record->data, length).m_nType == nQelServerReplyMsgType) {
        ++nAnswers;
        return;
    }
    if (!bGoing) {
        bGoing = true;
        tellParent();
        waitForParent();
    }
    sendReply(WriteReplyMsgType);
}

void awaitAnswers(int count) {
    for (nAnswers = 0; nAnswers < count;) {
        OvuMfwProcessNextMessage(1000);
    }
}

int runComponent(int number, int features) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(aGo[1]);
    const std::string name = "Pace" + std::to_string(number);
    if (OvuMfwInitialize() != 0 || OvuMfwRegisterCallback(0, cbMessage) != 0 ||
        OvuMfwGetProcessHandle(nullptr, &nOwn) != 0 || OvuMfwGetProcessHandle("qelserver", &nDaemon) != 0) {
        return 1;
    }
    sendRequest(CompNameMsgType, name);
    awaitAnswers(1);
    sendRequest(nQelClientStartMonitorMsgType, name);
    awaitAnswers(1);
    awaitAnswers(features);
    tellParent();
    sendReply(ShutdownMsgType);
    return OvuMfwCleanup();
}

bool isToldByAll(int components) {
    char word = 0;
    int told = 0;
    while (told < components && read(aTold[0], &word, 1) == 1) {
        ++told;
    }
    return told == components;
}

int runAll(int components, int features) {
    if (pipe(aTold) != 0 || pipe(aGo) != 0) {
        return 1;
    }
    for (int number = 0; number < components; ++number) {
        if (fork() == 0) {
            _exit(runComponent(number, features));
        }
    }
    close(aTold[1]);
    if (!isToldByAll(components)) {
        return 1;
    }
    std::puts("ready");
    std::getchar();
    close(aGo[1]);
    if (!isToldByAll(components)) {
        return 1;
    }
    std::puts("done");
    while (wait(nullptr) > 0) {
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: pace_components COMPONENTS FEATURES\n", stderr);
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    return runAll(std::atoi(argv[1]), std::atoi(argv[2]));
}
