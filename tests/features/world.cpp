#include "world.h"

#include "server/loop/CQelServer.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>

namespace {

int nEntries = 0; // of the tests, that have not been deleted yet

struct CCountedEntry final : CFeatureEntry {
    CCountedEntry() : CFeatureEntry(nullptr) { ++nEntries; }
    ~CCountedEntry() override { --nEntries; }
};

} // namespace

CFeatureEntry* fresh(uint32_t code, uint32_t data, const CNames& names) {
    auto* entry = new CCountedEntry;
    entry->m_nCode = code;
    entry->m_nData = data;
    entry->m_vCompNames = names;
    return entry;
}

CFeatureEntry& feature(uint32_t code, uint32_t data, EFStatus status, const CNames& names) {
    CFeatureEntry* entry = fresh(code, data, names);
    entry->m_eStatus = status;
    entry->m_bSourced = 1;
    EXPECT_TRUE(control().addFeature(entry));
    return *entry;
}

CComponent& component(const char* name, uint32_t handle, uint8_t monitor) {
    auto* comp = new CComponent(&control());
    comp->init({0, 0, 0, 0, 5, handle}, name, 0, nullptr);
    comp->m_bMonitor = monitor;
    EXPECT_TRUE(control().addComponent(comp));
    return *comp;
}

CCompStatus& record(CFeatureEntry& entry, CComponent& comp, int status) {
    const auto now = static_cast<uint32_t>(platform().m_nMicroseconds / 1000000);
    auto* made = new CCompStatus{&comp, now, static_cast<CCompStatus::ECStatus>(status)};
    entry.m_vCompStatus.push_back(made);
    comp.addFeatureEntry(&entry);
    return *made;
}

void empty() {
    while (!control().components().m_vItems.empty()) {
        const std::unique_ptr<CComponent> comp(control().components().m_vItems.back());
        EXPECT_EQ(control().delComponent(comp.get()), 1);
    }
    while (!control().features().m_vItems.empty()) {
        const std::unique_ptr<CFeatureEntry> entry(control().features().m_vItems.back());
        EXPECT_EQ(control().delFeature(entry.get()), 1);
    }
    EXPECT_EQ(nEntries, 0) << "an entry is nobody's";
}

int newList(const CEntries& entries) {
    CList list{entries};
    const int result = control().addFeatureList(list);
    std::ranges::for_each(list.m_vItems, [](CFeatureEntry* entry) { delete entry; });
    return result;
}

std::string tables() {
    std::ostringstream text;
    for (const CFeatureEntry* entry : control().features().m_vItems) {
        text << "feature " << entry->m_nCode << ' ' << entry->m_nData << ' ' << entry->m_nNewData << ' '
             << entry->m_eStatus << ' ' << int{entry->m_bSourced} << ':';
        for (const CCompStatus* record : entry->m_vCompStatus) {
            text << ' ' << record->m_pComponent->m_szName << ' ' << record->m_eStatus << ' '
                 << record->m_tStamp << ' ' << record->m_nEnableTries << record->m_nDisableTries
                 << record->m_nModifyTries;
        }
        text << '\n';
    }
    for (const CComponent* comp : control().components().m_vItems) {
        text << "component " << comp->m_szName << ' ' << comp->m_nNextFeature << ' ' << comp->m_nKnownCount
             << ' ' << int{comp->m_bMonitor} << ':';
        for (const CFeatureEntry* entry : comp->m_aFeatures.m_vItems) {
            text << ' ' << entry->m_nCode << '/' << entry->m_nData;
        }
        text << '\n';
    }
    return text.str();
}

std::string textOf(const SLogged& line) {
    return std::to_string(line.m_nSeverity) + " " + std::to_string(line.m_nEvent) + " " + line.m_sText;
}

CTexts takeLines() {
    CTexts lines;
    std::ranges::transform(platform().takeLog(), std::back_inserter(lines), textOf);
    noteSeen(lines);
    return lines;
}

void noteSeen(const CTexts& lines) {
    if (const char* path = std::getenv("QEL_TEST_SEEN")) {
        std::ofstream file(path, std::ios::app);
        std::ranges::copy(lines, std::ostream_iterator<std::string>(file, "\n"));
    }
}

CTexts told() {
    CTexts messages;
    for (const SSent& sent : platform().takeSent()) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(sent.m_sBody.data());
        const auto body = readBody<CQelServerMessage>(bytes, sent.m_sBody.size());
        messages.push_back(std::to_string(sent.m_nHandle) + ":");
        for (const uint32_t word : {body.m_oHeader.m_nType, body.m_nCode, body.m_nData, body.m_nExtra}) {
            messages.back() += " " + std::to_string(word);
        }
    }
    platform().takeLog();
    return messages;
}

std::string words(std::initializer_list<uint32_t> values) {
    std::string bytes;
    for (const uint32_t value : values) {
        for (const int shift : {24, 16, 8, 0}) {
            bytes += static_cast<char>(value >> shift & 0xFF);
        }
    }
    return bytes;
}

std::string header(uint32_t messageClass, uint32_t subType, uint32_t handle) {
    return words({0, 0, messageClass, subType, 5, handle});
}

void receive(std::string_view body) {
    CFakePlatform::handOver(CQelServer::cbQelServer, nQelServerMfwMsgId, body);
}

std::string requestBody(uint32_t subType, uint32_t handle, std::string_view name, uint32_t processId,
                        std::string_view tail) {
    std::string body =
        header(nQelClientRequestMsgType, subType, handle) + words({processId}) + std::string(name);
    body.resize(offsetof(CQelNameMessage, m_nPairCount));
    return body + std::string(tail);
}

void request(uint32_t subType, uint32_t handle, std::string_view name, uint32_t processId,
             std::string_view tail) {
    receive(requestBody(subType, handle, name, processId, tail));
}
