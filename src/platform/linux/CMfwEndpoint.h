// This process's endpoint of the message framework: its listening socket, its connections and its inbox.
//
// One mutex guards all of it; it is never held while a callback runs or while somebody waits. The endpoint is
// shared by the threads that are inside its operations: closed by one, it is destroyed by the last that
// leaves, so that nobody waits on a descriptor whose number means something else by now. There is no thread
// of its own: connections are let in, read and forgotten while somebody receives.
//
// The runtime directory may be removed and made anew while the process runs, as systemd does at each stop of
// a service that has one. The endpoint notices that when it receives, within a second, or when a peer is
// not found, and moves to the new directory: under its name and handle, and with its connections.
#ifndef QEL_PLATFORM_LINUX_CMFWENDPOINT_H
#define QEL_PLATFORM_LINUX_CMFWENDPOINT_H

#include "platform/linux/CDeadline.h"
#include "platform/linux/CMfwConnection.h"
#include "platform/linux/CMfwInbox.h"
#include "platform/linux/CMfwNameWatch.h"
#include "platform/linux/mfw_names.h"

#include <chrono>
#include <map>
#include <mutex>
#include <optional>

class CMfwEndpoint {
public:
    explicit CMfwEndpoint(uint32_t handle) : m_nHandle(handle), m_oInbox(getpid()) {}
    ~CMfwEndpoint() { close(); }
    CMfwEndpoint(const CMfwEndpoint&) = delete;
    CMfwEndpoint& operator=(const CMfwEndpoint&) = delete;

    // Called once, before the endpoint is shared. On failure nothing is left behind. EADDRINUSE: another
    // process has the handle.
    [[nodiscard]] int open(const std::string& processName);

    // Closes the connections and takes the name back. Wakes who waits in receive().
    void close();

    // Sends to a process, or to this one. Does not block.
    [[nodiscard]] int send(uint32_t handle, uint16_t type, uint32_t userId, const uint8_t* body,
                           uint32_t length);

    // Waits for a message. 0: it is in `message`, and `record` has room for it. OVU_MFW_NO_MESSAGE: the time
    // is up, or the endpoint was closed. ENOMEM: memory is exhausted. What has arrived stays for the next
    // call, and only a message for whose record there is no memory twice is lost, so that it cannot stand in
    // the way for ever.
    [[nodiscard]] int receive(const CDeadline& deadline, SMfwMessage& message, CMfwRecord& record);

    // As OvuMfwGetDescriptor() and OvuMfwWatchProcess().
    int descriptor() const { return m_oEpoll.get(); }
    [[nodiscard]] int watchProcess(const char* processName, uint32_t& changes);

private:
    using CConnections = std::map<uint64_t, CMfwConnection>; // by their ids, which count up

    [[nodiscard]] int openDescriptors();
    [[nodiscard]] int settle();
    void leave();
    bool follow();
    void followWhenDue();
    [[nodiscard]] int watch(int fd, uint64_t id) const;
    void wake() const;

    [[nodiscard]] int sendToSelf(uint16_t type, uint32_t userId, const uint8_t* body, uint32_t length);
    [[nodiscard]] int sendConnected(uint32_t handle, const CMfwOutgoingFrame& frame);
    [[nodiscard]] int sendToPeer(uint32_t handle, const CMfwOutgoingFrame& frame);
    [[nodiscard]] int connectionTo(uint32_t handle, CMfwConnection*& connection);

    [[nodiscard]] bool prepareToReceive();
    [[nodiscard]] int takeOut(SMfwMessage& message, CMfwRecord& record);
    void takeInHeld();
    void takeIn(uint64_t id);
    void letIn();
    [[nodiscard]] int letInNext();
    [[nodiscard]] bool mayJoin(const CMfwConnection& connection) const;
    void setListening(bool listening);
    void read(uint64_t id);
    [[nodiscard]] bool readSome(CMfwConnection& connection);

    const uint32_t m_nHandle;

    // Open until the destruction, for a receiver waits on them without the mutex.
    CFileDescriptor m_oEpoll;
    CFileDescriptor m_oWakeup; // eventfd

    std::mutex m_oMutex; // of all below
    bool m_bOpen = false;
    std::string m_sProcessName;
    CRuntimeDirectory m_oDirectory;
    std::chrono::steady_clock::time_point m_tNextLook{};
    CMfwHandles m_oHandles;
    CMfwNameClaim m_oName;
    CFileDescriptor m_oListener;
    bool m_bListening = false;
    CConnections m_oConnections;
    uint64_t m_nNextId;
    CMfwInbox m_oInbox;
    CMfwFrameReader m_oReader;
    std::optional<SMfwMessage> m_oHeld; // has arrived, and found no memory in the inbox
    CMfwNameWatch m_oNameWatch;
    uint32_t m_nChanges = 0; // connections that ended, and times that the name watched for may have come
};

#endif
