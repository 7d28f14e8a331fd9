#include "messaging/endpoint/CMFWServer.h"

#include "base/big_endian.h"
#include "messaging/wire/wire.h"
#include "server/log/log.h"
#include "server/log/singleton.h"

#include <algorithm>
#include <memory>
#include <new>

constinit std::atomic<CMFWServer*> CMFWServer::m_pInstance = nullptr;

[[gnu::hot]] CMFWServer* CMFWServer::instance() {
    return singleton(m_pInstance, [] { return new (std::nothrow) CMFWServer; });
}

CMFWServer* CMFWServer::existing() {
    return m_pInstance.load();
}

// A failure stays in the log; CQelServer calls init() once more and ends the start if that fails, too.
CMFWServer::CMFWServer() {
    CMFWServer::init();
}

CMFWServer::~CMFWServer() {
    cleanUp();
}

// What has been opened stays open when a later step fails: the caller decides whether to clear() or to try
// again, and OvuMfwInitialize() accepts an endpoint that is open.
int CMFWServer::init() {
    if (const int error = OvuMfwInitialize()) {
        logEvent(svError, 31146, "MFW server init failed rc=%d", error);
        return error;
    }
    if (const int error = OvuMfwGetProcessHandle(nullptr, &m_nProcessHandle)) {
        logEvent(svError, 31147, "MFW server init OvuMfwGetProcessHandle rc=%d", error);
        return error;
    }
    // Type 0 also receives every type that has no callback, so a stray message leaves a line in the log.
    if (const int error = addCallback(0, DefaultCallback)) {
        logEvent(svError, 31148, "MFW server init failed to addCallback rc=%d", error);
        return error;
    }
    return 0;
}

// A callback that is gone already, as in a second clear(), is logged and otherwise ignored. The clean-up does
// not wait for a callback that the main loop runs meanwhile; the next send of that one fails.
void CMFWServer::clear() {
    if (delCallback(0) != 0) {
        logEvent(svError, 31149, "enter MFW server init failed to delCallback.");
    }
    cleanUp();
}

void CMFWServer::cleanUp() {
    if (const int error = OvuMfwCleanup()) {
        logEvent(svError, 31145, "OvuMfwCleanup rc = %d", error);
    }
}

int CMFWServer::addCallback(uint32_t type, OvuMfwCallback callback) {
    const int error = OvuMfwRegisterCallback(static_cast<uint16_t>(type & 0xFFFF), callback);
    if (error != 0) {
        logEvent(svError, 31151, "register callback failed rc = %d", error);
    }
    return error;
}

int CMFWServer::delCallback(uint32_t type) {
    const int error = OvuMfwDeregisterCallback(static_cast<uint16_t>(type & 0xFFFF));
    if (error != 0) {
        logEvent(svWarning, 31152, "deregister callback failed rc = %d", error);
    }
    return error;
}

int CMFWServer::sendMessage(uint32_t handle, uint32_t userDefinedId, sOvuMfwMessage* message,
                            uint32_t length) {
    // The address is only a trace; its low 32 bits print alike on every host.
    logEvent(svInfo, 31153, "enter MFW server sendMessage (0x%x, %d, 0x%x %d)", handle, userDefinedId,
             static_cast<uint32_t>(reinterpret_cast<uintptr_t>(message)), length);
    // All ones is no process's handle; a component may still have written it into its header.
    if (handle == OVU_MFW_NO_HANDLE) {
        logEvent(svInfo, 31154, "sendMessage invalid handle");
        return nErrorNoHandle;
    }
    // Never blocks: a full queue or a dead peer is an error here and now, and nothing is queued. An enable
    // that is lost in this way becomes overdue, and the audits send it again; a lost disable or modification
    // does not come again.
    const int error =
        OvuMfwSendMessage(handle, static_cast<uint16_t>(userDefinedId & 0xFFFF), 0, message, length);
    if (error != 0) {
        logEvent(svError, 31155, "OvuMfwSendMessage error = %ld", long{error});
    }
    return error;
}

[[gnu::hot]] int CMFWServer::recvMessage(uint32_t timeoutMs) {
    const int result = OvuMfwProcessNextMessage(timeoutMs);
    if (result != 0 && result != OVU_MFW_NO_MESSAGE) {
        logEvent(svError, 31156, "OvuMfwProcessNextMessage error = %ld", long{result});
    }
    return result;
}

void CMFWServer::DefaultCallback(uint16_t type, uint32_t userDefinedId, const sOvuMfwMessage* message,
                                 uint32_t length) {
    if (message == nullptr) {
        return;
    }
    const auto sender = readBody<CBigEndian32>(message->sender, sizeof message->sender);
    logEvent(svInfo, 31157,
             "DefaultCallback received a message from %lX:Type = %X, userDefinedId = %d, data[ 0 ] = %X, "
             "dataLength = %d",
             static_cast<unsigned long>(sender), type, userDefinedId, message->data[0], length);
}

// The usual body fits into a record as it is declared; a longer one, which is a list for OAM, takes memory.
// Either is zeroed first: what the framework keeps for itself must be zero in what is sent. Two parts,
// because the list for OAM is a header in front of megabytes that are packed elsewhere.
int CMFWServer::sendBody(uint32_t handle, std::span<const char> head, std::span<const char> tail) {
    const size_t length = head.size() + tail.size();
    sOvuMfwMessage usual = {};
    sOvuMfwMessage* record = &usual;
    std::unique_ptr<char[]> large;
    if (length > sizeof usual.data) {
        large.reset(new (std::nothrow) char[OVU_MFW_DATA_OFFSET + length]());
        if (large == nullptr) {
            logEvent(svError, 31124, "failed to new obj");
            return nErrorNoMemory;
        }
        record = reinterpret_cast<sOvuMfwMessage*>(large.get());
    }
    char* body = reinterpret_cast<char*>(record) + OVU_MFW_DATA_OFFSET;
    std::copy(tail.begin(), tail.end(), std::copy(head.begin(), head.end(), body));
    return sendMessage(handle, nQelServerMfwMsgId, record, static_cast<uint32_t>(length));
}
