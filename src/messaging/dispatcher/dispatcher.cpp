// The request dispatcher: one row a message, the common steps first, then a short handler.
#include "messaging/dispatcher/dispatcher.h"

#include "base/mutex/COswLightweightMutex.h"
#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/CQelControl.h"
#include "features/counters.h"
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

// The name field of a message with a NUL behind it, which a peer may have left out.
struct SName {
    explicit SName(const CQelNameMessage& message) {
        fieldText(message.m_szName).copy(m_szText, nNameFieldSize);
    }

    char m_szText[nNameFieldSize + 1] = {};
};

// One message, as its handler sees it. What a short body lacks reads as zero.
struct SRequest {
    CQelControl& m_oControl;
    CQelMessageHeader m_oHeader;
    std::span<const uint8_t> m_aBody;   // all that can be read: the message, and zeros behind it
    size_t m_nLength;                   // of the message
    CComponent* m_pComponent = nullptr; // whose message it is, once that is known

    uint32_t handle() const { return m_oHeader.m_nHandle; }

    CQelNameMessage nameMessage() const { return readBody<CQelNameMessage>(m_aBody.data(), m_aBody.size()); }

    SName name() const { return SName(nameMessage()); }

    uint32_t replyStatus() const {
        return readBody<CQelReplyMessage>(m_aBody.data(), m_aBody.size()).m_nStatus;
    }

    // Up to its NUL. The log gets texts that are too long to be stored, too; the bound keeps a peer that
    // sends megabytes from holding up the loop or filling the disk. The record always reaches past the text's
    // offset, so subspan() is in range.
    std::string_view replyText() const {
        constexpr size_t nMaxLogged = 8192;
        const auto text = m_aBody.subspan(offsetof(CQelReplyMessage, m_szText));
        const auto* begin = reinterpret_cast<const char*>(text.data());
        return {begin, strnlen(begin, std::min(text.size(), nMaxLogged))};
    }
};

// What is done with one message. dispatch() does the common steps in this order: log what came, find the
// component, run the handler. A handler runs only if the component was found, unless the
// row asks for no look-up.
struct SRow {
    uint32_t m_nSubType;
    void (*m_fnLog)(const SRequest& request);
    uint32_t m_nFoundEvent; // event number of a successful look-up by handle; 0: no look-up
    const char* m_szFound;  // the two words in which the look-ups' lines in the log differ
    const char* m_szFailedTo;
    void (*m_fnHandle)(SRequest& request); // null: the message is only logged
    ECounter m_eCounter;
};

void answer(CComponent& comp) {
    comp.sendMessage(nQelServerReplyMsgType, 0, 0);
}

// --- Name message ---

void logName(const SRequest& request) {
    logEvent(svInfo, 31015, "CompNameMsgType %s", request.name().m_szText);
}

// Takes as many pairs as the message claims, but no more than arrived and no more than a component has room
// for. They replace the pairs of an earlier announcement, even with none: what an earlier process held says
// nothing about this one.
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

// Enrols a new component in the features that concern it, and likewise a known one that came back as another
// process: whatever that had accepted is gone with it, so all its records start again. The same process id
// means that the component merely announced itself again; what it was told still holds.
//
// Nothing is sent here, so no message can be held back by the pairs of an earlier announcement, which are
// replaced only afterwards. False if there is no memory to register a new component; records of it may then
// stand in features already.
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

// Removes the component from every feature before it is freed, for their records point at it. Also for a
// component that never made it into the control's table.
void destroy(CQelControl& control, CComponent* comp) {
    control.delComponent(comp);
    delete comp;
}

// Components are identified by name here, as opposed to the handle everywhere else: the name is what survives
// a restart of the process. An unnamed component cannot be concerned by anything, so it gets no record and no
// answer. A process id of 0 is accepted with a warning: two processes without an id that follow each other
// look like one, and the second is not told its features again.
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
    // Only now, since setUp() compares with the id of the process before. The answer comes last: it tells the
    // component that the daemon knows its handle.
    request.m_pComponent->m_nProcessId = message.m_nProcessId;
    takeKnownPairs(request, message.m_nPairCount);
    answer(*request.m_pComponent);
}

// --- Requests of a known component ---

void logInitList(const SRequest& request) {
    logEvent(svInfo, 31018, "InitListMsgType 0x%x", request.handle());
}

// The position survives an announcement, also that of another process of the name, hence this request.
void initList(SRequest& request) {
    request.m_pComponent->rewindFeatureList();
    answer(*request.m_pComponent);
}

void logGetFeature(const SRequest&) {
    logEvent(svInfo, 31021, "cbQelServer recv nQelClientGetFeatureMsgType.");
}

// One feature for each request. At the end of the list both words keep their 0, which tells the component so.
void getFeature(SRequest& request) {
    uint32_t code = 0;
    uint32_t data = 0;
    request.m_pComponent->getNextFeatureList(&code, &data);
    request.m_pComponent->sendMessage(nQelServerReplyMsgType, code, data);
}

void logStartMonitor(const SRequest&) {
    logEvent(svInfo, 31024, "cbQelServer recv nQelClientStartMonitorMsgType.");
}

// The answer goes out first, so a component knows that it monitors before the first notification comes.
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

// A reply names no feature. It is credited to the first one in the component's array that awaits an answer,
// and the answer says which that was. Then the next pending notification goes out, so a component that
// replies works through its list without waiting for an audit. If no feature awaits one, the answer is 0, 0.
void writeReply(SRequest& request) {
    CComponent& comp = *request.m_pComponent;
    if (const CFeatureEntry* entry = comp.replyFeatureArray()) {
        logEvent(svInfo, 31032, "sendMessage with (%d, %d)", entry->m_nCode, entry->m_nData);
        comp.sendMessage(nQelServerReplyMsgType, entry->m_nCode, entry->m_nData);
    } else {
        count(coNotAwaited);
        answer(comp);
    }
    comp.auditFeature();
}

void logShutdown(const SRequest& request) {
    const std::string_view text = request.replyText();
    logEvent(svInfo, 31033, "ShutdownMsgType (%d %.*s)", request.replyStatus(), static_cast<int>(text.size()),
             text.data());
}

// Not answered: the process is about to end. From here on no feature waits for the component. The array goes
// first, feature by feature with a line of the log each; destroy() then finds the records that stand in
// features outside the array.
void shutDown(SRequest& request) {
    request.m_pComponent->removeFeatureArray();
    request.m_pComponent->clearFeatureArray();
    destroy(request.m_oControl, request.m_pComponent);
}

// A name message finds or creates its component itself. The words of GetFeature's row are not quite those of
// the others; docs/events.md lists each line as it stands here.
constexpr SRow aRequests[] = {
    {CompNameMsgType, logName, 0, "", "", announce, coNames},
    {InitListMsgType, logInitList, 31020, "found", "to", initList, coInitLists},
    {nQelClientGetFeatureMsgType, logGetFeature, 31023, "find", "to ", getFeature, coGetFeatures},
    {nQelClientStartMonitorMsgType, logStartMonitor, 31025, "found", "to", startMonitor, coStartMonitors},
    {nQelClientServerDataMsgType, logServerData, 0, "", "", nullptr, coOthers},
    {nQelClientWriteReplyMsgType, logClientWriteReply, 0, "", "", nullptr, coOthers},
};

constexpr SRow aReplies[] = {
    {WriteReplyMsgType, logWriteReply, 31031, "found", "to", writeReply, coWriteReplies},
    {ShutdownMsgType, logShutdown, 31034, "found", "to", shutDown, coShutdowns},
};

// --- OAM ---

constexpr int nErrorNoMessage = 31; // there is nothing to send

// Allocated for each request and freed after it: a list of 100,000 features takes 1.6 MB.
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

// Goes to the handle in the request's header, which need not belong to a component. The header's length word
// is 0; receivers go by the length that the framework reports.
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
    count(coLists);
    if (error != 0) {
        count(coSendErrors);
        logEvent(svError, 31073, "failed to send message");
    }
    return error;
}

// Needs no announcement. Without memory for the list there is no answer, only a line in the log.
void answerOAM(CQelControl& control, const CQelMessageHeader& request) {
    count(coActiveFeatures);
    logEvent(svInfo, 31036, "cbQelServer recv OAMActiveFeature.");
    const SPackedList list = packActiveFeatures(control);
    if (list.m_pBytes == nullptr) {
        logEvent(svWarning, 31037, "OAMFeautreList packing error.");
        return;
    }
    sendFeatureList(list, request);
}

// --- Dispatch ---

// A message from a handle that never announced itself is logged and not answered: after a restart of the
// daemon this is how components find out that they must announce themselves again.
//
// The component takes in the header before its handler runs, since an answer goes to the handle, and carries
// the tag, of the latest message. A request may rename the component; a reply brings a
// status and a text instead.
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
                                   request.replyText().data()); // reads up to 501 bytes, all in the record
    } else {
        request.m_pComponent->init(request.m_oHeader, request.name().m_szText, 0, nullptr);
    }
    return true;
}

// False if the table has no row for the message.
bool dispatch(SRequest& request, std::span<const SRow> table) {
    const auto row = std::find_if(table.begin(), table.end(), [&](const SRow& candidate) {
        return candidate.m_nSubType == request.m_oHeader.m_nSubType;
    });
    if (row == table.end()) {
        count(coOthers);
        return false;
    }
    count(row->m_eCounter);
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
    beginWork();
    // For the log only: what decides is the handle in the message's own header.
    const uint32_t sender = readBody<CBigEndian32>(message->sender, sizeof message->sender);
    logEvent(svInfo, 31011,
             "cbQelServer received a message from %lX: Type = %X, Id = %d, data[ 0 ] = %X, Length = %d",
             static_cast<unsigned long>(sender), type, id, message->data[0], length);
    CQelControl* control = CQelControl::instance();
    if (control == nullptr) {
        logEvent(svError, 31012, "failed to find control object.");
        return;
    }
    // The framework guarantees that so much is readable, and zero past the message. Fixed fields are thus
    // read without a check each; only what a count or a length in the message governs is checked.
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
        count(coOthers);
        logEvent(svWarning, 31043, "cbQelServer recv unknown");
        return;
    }
}
