// The server object: the control, the message-framework endpoint and the stop event bound together by the
// main loop; and the log.
#ifndef QEL_SERVER_CQELSERVER_H
#define QEL_SERVER_CQELSERVER_H

#include "platform/mfw.h"
#include "platform/os.h"

#include <atomic>
#include <cstdint>

class CQelControl;

// Set once, before any thread is started, by "-run -debug": log lines go to standard output.
extern bool bQelServerDebugFlag;

// One for each process. init() and run() belong to the main loop's thread. clear() may come from the service
// manager's thread at any moment, while the main loop runs; it takes no lock.
class CQelServer {
public:
    // Created on first use, lives until the process ends. Null only where memory is exhausted.
    static CQelServer* instance();

    CQelServer() = default;
    ~CQelServer();
    CQelServer(const CQelServer&) = delete;
    CQelServer& operator=(const CQelServer&) = delete;

    // Opens everything that the loop needs. 1, or 0 with the reason in the log.
    int init();
    // Releases the stop event and the endpoint; callable any number of times.
    void clear();
    // The main loop; returns when the stop event has come.
    int run();

    // One step each of the loop: 1 for success, 0 for failure.
    int processMessages();
    int checkSignal();

    // Sends the stop event to this daemon itself. All ones where it holds no event, else the platform's
    // result.
    uint32_t stop();

    // How long the loop waits for the stop event after a turn that took `elapsed` milliseconds.
    static uint32_t waitAfter(uint32_t elapsed);

    // Logs one line: to the diagnostics log, where a module can be registered there, else to the text log.
    // From any thread, without a lock; a line that cannot be written is dropped. Severity: 1 error, 2
    // warning, 4 information.
    static int LogFile(uint16_t severity, uint32_t event, const char* text);
    // Writes one line with its time to the text log or, when debugging, to standard output. Returns 1, or 0
    // for a line that was dropped.
    static int LogFile(const char* text);

    // The request dispatcher: handles one message of the client protocol.
    static void cbQelServer(uint16_t type, uint32_t id, const sOvuMfwMessage* message, uint32_t length);

private:
    bool initEndpoint();
    bool initEvent();

    static std::atomic<CQelServer*> m_pInstance;
    static std::atomic<uint32_t> m_nOvuDiagHandler; // 0: not registered

    std::atomic<uint32_t> m_nEvent = OS_EVENT_NONE;
    std::atomic<CQelControl*> m_pControl = nullptr; // not owned
};

#endif
