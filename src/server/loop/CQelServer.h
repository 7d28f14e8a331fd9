// The server object: binds the control, the message endpoint and the stop event together in the main loop.
#ifndef QEL_SERVER_LOOP_CQELSERVER_H
#define QEL_SERVER_LOOP_CQELSERVER_H

#include "platform/mfw.h"
#include "platform/os.h"

#include <atomic>
#include <cstdint>

class CFeatureSupply;
class CQelControl;

// There is one for each process. Order of calls: setSupply(), init(), run(), clear(); init() may follow a
// clear().
//
// init() and run() belong to the main loop's thread. The service manager's thread may call clear() at any
// moment while the loop runs. That is safe without a lock: the two members that it changes are atomic, the
// platform's functions may be called from any thread, and instance() never destroys what it made. Until the
// process ends, the loop finds no event and no endpoint any more; the platform's waits then fail only after
// their time is up, so it does not spin.
class CQelServer {
public:
    // Created on first use, lives until the process ends. Null only where memory is exhausted.
    static CQelServer* instance();

    CQelServer() = default;
    ~CQelServer();
    CQelServer(const CQelServer&) = delete;
    CQelServer& operator=(const CQelServer&) = delete;

    // Names the supplier of the feature list. Not owned: it must live as long as the
    // process. Call it before init().
    static void setSupply(CFeatureSupply& supply);

    // Takes in the first feature list and opens everything that the loop needs. 1, or 0 with the reason in
    // the log. A list that is missing or refused is logged but is no failure: the daemon then serves an empty
    // table until the supplier hands over a usable list. The stop event is the last to be opened; one that is
    // sent before, while the list is read, is lost.
    int init();
    // Releases the stop event and the endpoint. May be called any number of times, from any thread.
    void clear();
    // The main loop. Returns when the stop event has come; without an event it runs until the service
    // manager's notice ends the process. The result is that of the last line of the log
    // and has no other meaning.
    int run();

    // The steps of the loop. 1 for success, 0 for a failure, which is logged and does not end the loop.
    int processMessages(); // receives one message at most, waiting up to nReceiveTimeout
    int checkSignal();     // the periodic passes: audit, then timeout

    // Sends the stop event to this daemon itself. All ones where it holds no
    // event, else the platform's result.
    uint32_t stop();

    // How long the loop waits for the stop event after a turn that took `elapsed`: 5 to 35. In milliseconds.
    static uint32_t waitAfter(uint32_t elapsed);

    // The log under the server's name; see server/log/log.h. Severity: 1 error, 2 warning, 4 information.
    static int LogFile(uint16_t severity, uint32_t event, const char* text);
    static int LogFile(const char* text);

    // The framework's callback for the client protocol: hands one message to the request dispatcher. Runs
    // inside processMessages(), on the main loop's thread.
    static void cbQelServer(uint16_t type, uint32_t id, const sOvuMfwMessage* message, uint32_t length);

private:
    bool initEndpoint();
    bool initEvent();

    static std::atomic<CQelServer*> m_pInstance;
    static CFeatureSupply* m_pSupply; // not owned; null: none was named

    std::atomic<uint32_t> m_nEvent = OS_EVENT_NONE;
    std::atomic<CQelControl*> m_pControl = nullptr; // not owned
};

#endif
