// The request dispatcher: one row a message, the common steps first, then a short handler.
#include "messaging/dispatcher/dispatcher.h"

#include "base/mutex/COswLightweightMutex.h"
#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/CQelControl.h"
#include "messaging/endpoint/CMFWServer.h"
#include "messaging/wire/wire.h"
#include "server/log/log.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <string_view>

namespace {

// The name field of a message, with a NUL behind it.
struct SName {
    explicit SName(const CQelNameMessage& message) {
        fieldText(message.m_szName).copy(m_szText, nNameFieldSize);
    }

    char m_szText[nNameFieldSize + 1] = {};
};

// One message, as its handler sees it. What the body does not have reads as zero.
struct SRequest {
    CQelControl& m_oControl;
    CQelMessageHeader m_oHeader;
    std::span<const uint8_t> m_aBody; // all that can be read: the message, and zeros behind it
    size_t m_nLength;                 // of the message
    CComponent* m_pComponent = nullptr;

    uint32_t handle() const { return m_oHeader.m_nHandle; }

    CQelNameMessage nameMessage() const { return readBody<CQelNameMessage>(m_aBody.data(), m_aBody.size()); }

    SName name() const { return SName(nameMessage()); }

    uint32_t replyStatus() const {
        return readBody<CQelReplyMessage>(m_aBody.data(), m_aBody.size()).m_nStatus;
    }

    // Up to its NUL: whole, though only a short one is stored. But what is no text at all, however many
    // megabytes a peer sends, must not hold up the loop or fill the log.
    std::string_view replyText() const {
        constexpr size_t nMaxLogged = 8192;
        const auto text = m_aBody.subspan(offsetof(CQelReplyMessage, m_szText));
        const auto* begin = reinterpret_cast<const char*>(text.data());
        return {begin, strnlen(begin, std::min(text.size(), nMaxLogged))};
    }
};

struct SRow {
    uint32_t m_nSubType;
    void (*m_fnLog)(const SRequest& request); // tells what came
    uint32_t m_nFoundEvent; // of a message from a known component; 0: of no component, or a new one
    const char* m_szFound;  // the words that differ in the lines of the look-up
    const char* m_szFailedTo;
    void (*m_fnHandle)(SRequest& request); // null: nothing more is done
};

void answer(CComponent& comp) {
    comp.sendMessage(nQelServerReplyMsgType, 0, 0);
}

// --- Name message ---

void logName(const SRequest& request) {
    logEvent(svInfo, 31015, "CompNameMsgType %s", request.name().m_szText);
}

// As many pairs as the message claims, but no more than it has, nor than a component has room for.
void takeKnownPairs(const SRequest& request, uint32_t claimed) {
    const size_t length = std::max(request.m_nLength, sizeof(CQelNameMessage)) - sizeof(CQelNameMessage);
    const size_t count = std::min({size_t{claimed}, length / sizeof(CQelPair), nMaxKnownPairs});
    if (count < claimed) {
        logEvent(svWarning, 31017, "Name Msg claims %u pairs, took %u", claimed,
                 static_cast<uint32_t>(count));
    }
    std::array<SFeature, nMaxKnownPairs> pairs;
    for (size_t i = 0; i < count; ++i) {
        const auto at = request.m_aBody.subspan(sizeof(CQelNameMessage) + i * sizeof(CQelPair));
        const auto pair = readBody<CQelPair>(at.data(), at.size());
        pairs[i] = {pair.m_nCode, pair.m_nData};
    }
    request.m_pComponent->setKnownPairs(std::span(pairs).first(count));
}

// A new component is taken into its features; so is a known one that came back as another process. False: there
// is no memory for a new one.
bool setUp(const SRequest& request, const SName& name, uint32_t processId, bool isNew) {
    CComponent& comp = *request.m_pComponent;
    const CScopedLock lock(oMutex);
    comp.init(request.m_oHeader, name.m_szText, 0, nullptr);
    if (isNew || comp.m_nProcessId != processId) {
        comp.clearFeatureArray();
        comp.notifyAllFeatures();
    }
    return !isNew || request.m_oControl.addComponent(&comp);
}

// Out of the control and its features, and out of memory.
void destroy(CQelControl& control, CComponent* comp) {
    control.delComponent(comp);
    delete comp;
}

void announce(SRequest& request) {
    const CQelNameMessage message = request.nameMessage();
    const SName name(message);
    if (name.m_szText[0] == '\0') {
        logEvent(svWarning, 31016, "Name Msg has no name");
        return;
    }
    if (message.m_nProcessId == 0) {
        logEvent(svWarning, 31016, "Name Msg has no process id");
    }
    request.m_pComponent = request.m_oControl.findCompByName(name.m_szText);
    const bool isNew = request.m_pComponent == nullptr;
    if (isNew) {
        request.m_pComponent = new (std::nothrow) CComponent(&request.m_oControl);
    }
    if (request.m_pComponent == nullptr) {
        logEvent(svError, 31124, "failed to new obj");
        return;
    }
    if (!setUp(request, name, message.m_nProcessId, isNew)) {
        destroy(request.m_oControl, request.m_pComponent);
        return;
    }
    request.m_pComponent->m_nProcessId = message.m_nProcessId;
    takeKnownPairs(request, message.m_nPairCount);
    answer(*request.m_pComponent);
}

// --- Requests of a known component ---

void logInitList(const SRequest& request) {
    logEvent(svInfo, 31018, "InitListMsgType 0x%x", request.handle());
}

void initList(SRequest& request) {
    request.m_pComponent->rewindFeatureList();
    answer(*request.m_pComponent);
}

void logGetFeature(const SRequest&) {
    logEvent(svInfo, 31021, "cbQelServer recv nQelClientGetFeatureMsgType.");
}

void getFeature(SRequest& request) {
    uint32_t code = 0;
    uint32_t data = 0;
    request.m_pComponent->getNextFeatureList(&code, &data);
    request.m_pComponent->sendMessage(nQelServerReplyMsgType, code, data);
}

void logStartMonitor(const SRequest&) {
    logEvent(svInfo, 31024, "cbQelServer recv nQelClientStartMonitorMsgType.");
}

void startMonitor(SRequest& request) {
    request.m_pComponent->m_bMonitor = 1;
    answer(*request.m_pComponent);
    request.m_pComponent->auditFeature();
}

void logServerData(const SRequest&) {
    logEvent(svInfo, 31026, "cbQelServer recv nQelClientServerDataMsgType.");
}

void logClientWriteReply(const SRequest&) {
    logEvent(svInfo, 31027, "cbQelServer recv nQelClientWriteReplyMsgType.");
}

// --- Replies of a known component ---

void logWriteReply(const SRequest& request) {
    const std::string_view text = request.replyText();
    logEvent(svInfo, 31030, "WriteReplyMsgType (%d %.*s)", request.replyStatus(),
             static_cast<int>(text.size()), text.data());
}

void writeReply(SRequest& request) {
    CComponent& comp = *request.m_pComponent;
    if (const CFeatureEntry* entry = comp.replyFeatureArray()) {
        logEvent(svInfo, 31032, "sendMessage with (%d, %d)", entry->m_nCode, entry->m_nData);
        comp.sendMessage(nQelServerReplyMsgType, entry->m_nCode, entry->m_nData);
    } else {
        answer(comp);
    }
    comp.auditFeature();
}

void logShutdown(const SRequest& request) {
    const std::string_view text = request.replyText();
    logEvent(svInfo, 31033, "ShutdownMsgType (%d %.*s)", request.replyStatus(), static_cast<int>(text.size()),
             text.data());
}

void shutDown(SRequest& request) {
    request.m_pComponent->removeFeatureArray();
    request.m_pComponent->clearFeatureArray();
    destroy(request.m_oControl, request.m_pComponent);
}

constexpr SRow aRequests[] = {
    {CompNameMsgType, logName, 0, "", "", announce},
    {InitListMsgType, logInitList, 31020, "found", "to", initList},
    {nQelClientGetFeatureMsgType, logGetFeature, 31023, "find", "to ", getFeature},
    {nQelClientStartMonitorMsgType, logStartMonitor, 31025, "found", "to", startMonitor},
    {nQelClientServerDataMsgType, logServerData, 0, "", "", nullptr},
    {nQelClientWriteReplyMsgType, logClientWriteReply, 0, "", "", nullptr},
};

constexpr SRow aReplies[] = {
    {WriteReplyMsgType, logWriteReply, 31031, "found", "to", writeReply},
    {ShutdownMsgType, logShutdown, 31034, "found", "to", shutDown},
};

// --- OAM ---

constexpr int nErrorNoMessage = 31;

struct SPackedList {
    std::unique_ptr<char[]> m_pBytes; // none: there was no memory
    size_t m_nSize = 0;
};

SPackedList packActiveFeatures(CQelControl& control) {
    SPackedList list;
    list.m_nSize = static_cast<size_t>(control.getPackSize());
    list.m_pBytes.reset(new (std::nothrow) char[list.m_nSize]());
    if (list.m_pBytes == nullptr) {
        logEvent(svError, 31124, "failed to new obj");
    }
    control.packFeatures(list.m_pBytes.get());
    return list;
}

// The header's length word stays 0, although the body is longer.
int sendFeatureList(const SPackedList& list, const CQelMessageHeader& request) {
    if (list.m_pBytes == nullptr) {
        logEvent(svError, 31071, "sendMessage empty message");
        return nErrorNoMessage;
    }
    CMFWServer* endpoint = CMFWServer::instance();
    if (endpoint == nullptr) {
        logEvent(svError, 31122, "cannot get message framework");
        return nErrorNoEndpoint;
    }
    const CQelMessageHeader header{0, 0, nQelOAMActiveFeatureMsgType, 0, request.m_nTag, 0};
    const int error =
        endpoint->sendBody(request.m_nHandle, bytesOf(header), {list.m_pBytes.get(), list.m_nSize});
    if (error != 0) {
        logEvent(svError, 31073, "failed to send message");
    }
    return error;
}

void answerOAM(CQelControl& control, const CQelMessageHeader& request) {
    logEvent(svInfo, 31036, "cbQelServer recv OAMActiveFeature.");
    const SPackedList list = packActiveFeatures(control);
    if (list.m_pBytes == nullptr) {
        logEvent(svWarning, 31037, "OAMFeautreList packing error.");
        return;
    }
    sendFeatureList(list, request);
}

// --- Dispatch ---

bool findComponent(SRequest& request, const SRow& row) {
    request.m_pComponent = request.m_oControl.findCompByMFW(request.handle());
    if (request.m_pComponent == nullptr) {
        logEvent(svWarning, 31019, "failed %s find component (%d)", row.m_szFailedTo, request.handle());
        return false;
    }
    logEvent(svInfo, row.m_nFoundEvent, "%s comp with name %s", row.m_szFound,
             request.m_pComponent->m_szName);
    if (request.m_oHeader.m_nType == nQelClientReplyMsgType) {
        request.m_pComponent->init(request.m_oHeader, nullptr, request.replyStatus(),
                                   request.replyText().data()); // a bounded part of it is looked at
    } else {
        request.m_pComponent->init(request.m_oHeader, request.name().m_szText, 0, nullptr);
    }
    return true;
}

// False if no row of the table is the message's.
bool dispatch(SRequest& request, std::span<const SRow> table) {
    const auto row = std::find_if(table.begin(), table.end(), [&](const SRow& candidate) {
        return candidate.m_nSubType == request.m_oHeader.m_nSubType;
    });
    if (row == table.end()) {
        return false;
    }
    row->m_fnLog(request);
    if (row->m_fnHandle != nullptr && (row->m_nFoundEvent == 0 || findComponent(request, *row))) {
        row->m_fnHandle(request);
    }
    return true;
}

void logHeader(const CQelMessageHeader& header) {
    logEvent(svInfo, 31014, "cbQelServer clientMsg header: (%d, %d, %d, %d, %d, 0x%x)",
             uint32_t{header.m_nWord0}, uint32_t{header.m_nLength}, uint32_t{header.m_nType},
             uint32_t{header.m_nSubType}, uint32_t{header.m_nTag}, uint32_t{header.m_nHandle});
}

} // namespace

void dispatchRequest(uint16_t type, uint32_t id, const sOvuMfwMessage* message, uint32_t length) {
    if (message == nullptr) {
        return;
    }
    const uint32_t sender = readBody<CBigEndian32>(message->sender, sizeof message->sender);
    logEvent(svInfo, 31011,
             "cbQelServer received a message from %lX: Type = %X, Id = %d, data[ 0 ] = %X, Length = %d",
             static_cast<unsigned long>(sender), type, id, message->data[0], length);
    CQelControl* control = CQelControl::instance();
    if (control == nullptr) {
        logEvent(svError, 31012, "failed to find control object.");
        return;
    }
    const std::span<const uint8_t> body(message->data, std::max<size_t>(length, OVU_MFW_MIN_DATA));
    SRequest request{*control, readBody<CQelMessageHeader>(body.data(), body.size()), body, length};
    logHeader(request.m_oHeader);

    switch (request.m_oHeader.m_nType) {
    case nQelClientRequestMsgType:
        if (!dispatch(request, aRequests)) {
            logEvent(svInfo, 31028, "cbQelServer recv unknown.");
        }
        return;
    case nQelClientReplyMsgType:
        logEvent(svInfo, 31029, "cbQelServer recv clientReplyMsg.");
        if (!dispatch(request, aReplies)) {
            logEvent(svWarning, 31035, "cbQelServer recv unknown msg.");
        }
        return;
    case nQelOAMActiveFeatureMsgType:
        answerOAM(*control, request.m_oHeader);
        return;
    default:
        logEvent(svWarning, 31043, "cbQelServer recv unknown");
        return;
    }
}
