// The table that the measurements work on: features, the components that they concern, and the messages that
// these send.
#ifndef QEL_BENCH_WORLD_H
#define QEL_BENCH_WORLD_H

#include "base/clock.h"
#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/CQelControl.h"
#include "messaging/wire/wire.h"
#include "server/loop/CQelServer.h"

#include <cstring>
#include <deque>
#include <string>
#include <vector>

// The framework record of a message, as the dispatcher gets it.
class CRecord {
public:
    template <typename Body>
    explicit CRecord(const Body& body) : m_nLength(sizeof body) {
        std::memcpy(m_oRecord.data, &body, sizeof body);
    }

    void dispatch() const { CQelServer::cbQelServer(nQelServerMfwMsgId, 0, &m_oRecord, m_nLength); }

private:
    sOvuMfwMessage m_oRecord = {};
    uint32_t m_nLength;
};

inline CRecord nameMessage(uint32_t type, uint32_t subType, uint32_t handle, const std::string& name,
                           uint32_t processId) {
    CQelNameMessage message;
    message.m_oHeader = {0, sizeof message, type, subType, 7, handle};
    message.m_nProcessId = processId;
    std::memcpy(message.m_szName, name.data(), name.size());
    return CRecord(message);
}

inline CRecord replyMessage(uint32_t subType, uint32_t handle) {
    CQelReplyMessage message;
    message.m_oHeader = {0, sizeof message, nQelClientReplyMsgType, subType, 7, handle};
    message.m_nStatus = nReplyOk;
    return CRecord(message);
}

// A control with so many features, each of which concerns each of so many monitored components.
class CWorld {
public:
    CWorld(int64_t features, int64_t components) : m_oControl(*CQelControl::instance()) {
        for (int64_t i = 0; i < components; ++i) {
            m_vNames.push_back("component" + std::to_string(i));
        }
        for (uint32_t code = 1; code <= features; ++code) {
            static_cast<void>(m_oControl.addFeature(makeEntry(code, code)));
        }
        m_vEntries = m_oControl.features().m_vItems;
        for (uint32_t i = 0; i < m_vNames.size(); ++i) {
            nameMessage(0, CompNameMsgType, handleOf(i), m_vNames[i], 1).dispatch();
            m_oControl.components().m_vItems.back()->m_bMonitor = 1;
        }
    }

    ~CWorld() {
        m_oControl.clearFeatureArray();
        for (CFeatureEntry* entry : m_vEntries) {
            delete entry;
        }
        const auto components = m_oControl.components().m_vItems;
        for (CComponent* comp : components) {
            m_oControl.delComponent(comp);
            delete comp;
        }
    }
    CWorld(const CWorld&) = delete;
    CWorld& operator=(const CWorld&) = delete;

    static uint32_t handleOf(size_t component) { return 1000 + static_cast<uint32_t>(component); }

    CFeatureEntry* makeEntry(uint32_t code, uint32_t data) {
        auto* entry = new CFeatureEntry(&m_oControl);
        entry->m_nCode = code;
        entry->m_nData = data;
        for (const std::string& name : m_vNames) {
            entry->addCompName(name.c_str());
        }
        return entry;
    }

    // Everything delivered, nothing to do.
    void settle(uint8_t sourced) {
        const uint32_t now = nowSeconds();
        for (CFeatureEntry* entry : m_vEntries) {
            entry->m_eStatus = CFeatureEntry::fsActive;
            entry->m_nNewData = 0;
            entry->m_bSourced = sourced;
            for (CCompStatus* record : entry->m_vCompStatus) {
                record->m_eStatus = CCompStatus::csEnabled;
                record->m_tStamp = now;
            }
        }
    }

    // A list that holds every feature, each `step`-th with other data.
    CArray<CFeatureEntry*> makeList(size_t step) {
        CArray<CFeatureEntry*> list;
        for (size_t i = 0; i < m_vEntries.size(); ++i) {
            const uint32_t change = step != 0 && i % step == 0 ? 1000000 : 0;
            list.m_vItems.push_back(makeEntry(m_vEntries[i]->m_nCode, m_vEntries[i]->m_nCode + change));
        }
        return list;
    }

    int64_t items() const { return static_cast<int64_t>(m_vEntries.size() * m_vNames.size()); }

    CQelControl& m_oControl;
    std::deque<std::string> m_vNames; // entries point at them
    std::vector<CFeatureEntry*> m_vEntries;
};

#endif
