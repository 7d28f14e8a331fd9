// The daemon's one endpoint on the platform's message framework.
#ifndef QEL_MESSAGING_CMFWSERVER_H
#define QEL_MESSAGING_CMFWSERVER_H

#include "platform/mfw.h"

#include <atomic>
#include <cstdint>
#include <span>

// A thin layer over platform/mfw.h, which adds the lines of the log and the record that a body travels in.
// All operations return 0 for success and the platform's error number otherwise; none throws, blocks (but for
// recvMessage) or tries again.
//
// Sending and receiving belong to the main loop's thread. clear() may come from the service manager's thread
// at any time; the object outlives it, and sends and receives fail from then on until init() succeeds.
class CMFWServer {
public:
    static constexpr int nErrorNoHandle = 6;  // a send to no handle
    static constexpr int nErrorNoMemory = 12; // ENOMEM

    // Created and initialised on first use; lives until the process ends. Null only where memory is
    // exhausted. If the initialisation failed, the log says why, and init() may be tried again.
    static CMFWServer* instance();
    // The endpoint if it was created already, else null.
    static CMFWServer* existing();

    virtual ~CMFWServer();
    CMFWServer(const CMFWServer&) = delete;
    CMFWServer& operator=(const CMFWServer&) = delete;

    // Only the low 16 bits of a message type count. A second callback for a type replaces the first.
    virtual int addCallback(uint32_t type, OvuMfwCallback callback);
    virtual int delCallback(uint32_t type);
    // `userDefinedId` is the framework message type to send with; the framework's own user-defined id is
    // always 0. `length` counts the bytes of the body. A success means that the message is in the peer's
    // queue, not that the peer will read it.
    virtual int sendMessage(uint32_t handle, uint32_t userDefinedId, sOvuMfwMessage* message,
                            uint32_t length);
    // Takes in one message at most and runs its callback before it returns. OVU_MFW_NO_MESSAGE: none came
    // within `timeoutMs` milliseconds.
    virtual int recvMessage(uint32_t timeoutMs);

    // Opens the endpoint and catches messages of unknown types. Harmless on an open endpoint.
    int init();
    // Removes the default callback and closes the endpoint; what lies in its queue is lost.
    void clear();

    // Copies a body, given in one part or two, into a framework record and sends it as a message of the
    // client protocol. The caller's bytes are not needed after the call. nErrorNoMemory if there is no memory
    // for the record.
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
