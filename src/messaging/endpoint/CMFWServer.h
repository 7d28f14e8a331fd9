// The daemon's one endpoint on the platform's message framework.
#ifndef QEL_MESSAGING_CMFWSERVER_H
#define QEL_MESSAGING_CMFWSERVER_H

#include "platform/mfw.h"

#include <atomic>
#include <cstdint>
#include <span>

// All operations return 0 for success and the platform's error number otherwise. Sends and receives on the
// main loop's thread; clear() may come from the service manager's thread at any time.
class CMFWServer {
public:
    static constexpr int nErrorNoHandle = 6;  // a send to no handle
    static constexpr int nErrorNoMemory = 12; // ENOMEM

    // Created, and initialised, on first use; lives until the process ends.
    static CMFWServer* instance();
    // The endpoint if there is one, without creating it.
    static CMFWServer* existing();

    virtual ~CMFWServer();
    CMFWServer(const CMFWServer&) = delete;
    CMFWServer& operator=(const CMFWServer&) = delete;

    virtual int addCallback(uint32_t type, OvuMfwCallback callback);
    virtual int delCallback(uint32_t type);
    // The framework message type goes in the place of the user-defined id.
    virtual int sendMessage(uint32_t handle, uint32_t userDefinedId, sOvuMfwMessage* message,
                            uint32_t length);
    // Takes in one message at most, and has its callback run. OVU_MFW_NO_MESSAGE: none came within the time.
    virtual int recvMessage(uint32_t timeoutMs);

    int init();
    // Removes the default callback and closes the endpoint.
    void clear();

    // Puts a body, in one part or two, into a framework record and sends it as a message of the client protocol.
    int sendBody(uint32_t handle, std::span<const char> head, std::span<const char> tail = {});

private:
    CMFWServer();
    static void DefaultCallback(uint16_t type, uint32_t userDefinedId, const sOvuMfwMessage* message,
                                uint32_t length);
    static void cleanUp();

    static std::atomic<CMFWServer*> m_pInstance;

    uint32_t m_nProcessHandle = OVU_MFW_NO_HANDLE;
};

#endif
