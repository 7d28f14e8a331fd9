#include "world.h"

#include "messaging/wire.h"
#include "server/CQelServer.h"

#include <algorithm>

namespace {

constexpr uint32_t nSendEvent = 31153;

bool isFailedSend(uint32_t event) {
    return event == 31154 || event == 31155;
}

void request(uint32_t subType, uint32_t handle, std::string_view name) {
    std::string body = header(nQelClientRequestMsgType, subType, handle) + words({0}) + std::string(name);
    body.resize(offsetof(CQelNameMessage, m_nPairCount));
    receive(body);
}

} // namespace

CFeatureEntry* fresh(uint32_t code, uint32_t data, const CNames& names) {
    auto* entry = new CFeatureEntry(nullptr);
    entry->m_nCode = code;
    entry->m_nData = data;
    std::for_each(names.begin(), names.end(), [entry](const char* name) { entry->addCompName(name); });
    return entry;
}

CFeatureEntry* feature(CQelControl& control, uint32_t code, uint32_t data, CFeatureEntry::EFStatus status,
                       const CNames& names) {
    CFeatureEntry* entry = fresh(code, data, names);
    entry->m_eStatus = status;
    entry->m_bSourced = 1;
    control.addFeature(entry);
    return entry;
}

CComponent* component(CQelControl& control, const char* name, uint32_t handle, uint8_t monitor) {
    auto* comp = new CComponent(&control);
    comp->init({0, 0, 0, 0, 5, handle}, name, 0, nullptr);
    comp->m_bMonitor = monitor;
    control.addComponent(comp);
    return comp;
}

CCompStatus* record(CFeatureEntry& entry, CComponent& comp, int status) {
    auto* made = new CCompStatus;
    made->m_pComponent = &comp;
    made->m_eStatus = static_cast<CCompStatus::ECStatus>(status);
    made->m_tStamp = static_cast<uint32_t>(platform().m_nMicroseconds / 1000000);
    entry.m_vCompStatus.push_back(made);
    comp.addFeatureEntry(&entry);
    return made;
}

void empty(CQelControl& control) {
    while (!control.components().m_vItems.empty()) {
        CComponent* comp = control.components().m_vItems.back();
        control.delComponent(comp);
        delete comp;
    }
    while (!control.features().m_vItems.empty()) {
        CFeatureEntry* entry = control.features().m_vItems.back();
        control.delFeature(entry);
        delete entry;
    }
}

int newList(CQelControl& control, const std::vector<CFeatureEntry*>& entries, size_t* left) {
    CArray<CFeatureEntry*> list;
    list.m_vItems = entries;
    const int result = control.addFeatureList(list);
    std::erase(list.m_vItems, nullptr);
    if (left != nullptr) {
        *left = list.m_vItems.size();
    }
    std::for_each(list.m_vItems.begin(), list.m_vItems.end(), [](CFeatureEntry* entry) { delete entry; });
    return result;
}

std::string transcript() {
    const std::vector<SLogged> log = platform().takeLog();
    const std::vector<SSent> sent = platform().takeSent();
    std::string text;
    size_t next = 0;
    for (size_t i = 0; i < log.size(); ++i) {
        const bool failed = i + 1 < log.size() && isFailedSend(log[i + 1].m_nEvent);
        if (log[i].m_nEvent != nSendEvent || failed || next == sent.size()) {
            text += failed ? "-> failed\n"
                           : std::to_string(log[i].m_nSeverity) + " " + std::to_string(log[i].m_nEvent) +
                                 " " + log[i].m_sText + "\n";
            continue;
        }
        text += "-> " + std::to_string(sent[next].m_nHandle) + ": " + toHex(sent[next].m_sBody) + "\n";
        EXPECT_EQ(sent[next].m_nType, nQelServerMfwMsgId);
        ++next;
    }
    EXPECT_EQ(next, sent.size()) << "messages without the endpoint's log line";
    return text;
}

CTexts told() {
    CTexts messages;
    for (const SSent& sent : platform().takeSent()) {
        const auto body = readBody<CQelServerMessage>(reinterpret_cast<const uint8_t*>(sent.m_sBody.data()),
                                                      sent.m_sBody.size());
        std::string text = std::to_string(sent.m_nHandle) + ":";
        for (const uint32_t word : {uint32_t{body.m_oHeader.m_nType}, uint32_t{body.m_nCode},
                                    uint32_t{body.m_nData}, uint32_t{body.m_nExtra}}) {
            text += " " + std::to_string(word);
        }
        messages.push_back(text);
    }
    platform().takeLog();
    return messages;
}

std::string words(std::initializer_list<uint32_t> values) {
    std::string bytes;
    for (const uint32_t value : values) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            bytes += static_cast<char>(value >> shift & 0xFF);
        }
    }
    return bytes;
}

std::string header(uint32_t messageClass, uint32_t subType, uint32_t handle, uint32_t tag) {
    return words({0, 0, messageClass, subType, tag, handle});
}

void receive(std::string_view body) {
    CFakePlatform::handOver(CQelServer::cbQelServer, nQelServerMfwMsgId, body);
}

void announce(std::string_view name, uint32_t processId, uint32_t handle, uint32_t count,
              std::string_view pairs) {
    std::string body =
        header(nQelClientRequestMsgType, CompNameMsgType, handle) + words({processId}) + std::string(name);
    body.resize(offsetof(CQelNameMessage, m_nPairCount));
    receive(body + words({count}) + std::string(pairs));
}

void initList(uint32_t handle, std::string_view name) {
    request(InitListMsgType, handle, name);
}

void fetch(uint32_t handle, std::string_view name) {
    request(nQelClientGetFeatureMsgType, handle, name);
}

void monitor(uint32_t handle, std::string_view name) {
    request(nQelClientStartMonitorMsgType, handle, name);
}

void reply(uint32_t handle, uint32_t status) {
    receive(header(nQelClientReplyMsgType, WriteReplyMsgType, handle) + words({0, status}) + "text");
}

void shutDown(uint32_t handle) {
    receive(header(nQelClientReplyMsgType, ShutdownMsgType, handle) + words({0, 1}) + "bye");
}
