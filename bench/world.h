// The table that the measurements work on: features, the components that they concern, and the messages that
// these send.
#ifndef QEL_BENCH_WORLD_H
#define QEL_BENCH_WORLD_H

#include "null_platform.h"

#include "base/clock.h"
#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/CQelControl.h"
#include "messaging/dispatcher/dispatcher.h"
#include "messaging/wire/status.h"
#include "messaging/wire/wire.h"
#include "server/status/recorder.h"
#include "server/status/status.h"

#include <cstdlib>
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

    void dispatch() const { dispatchRequest(nQelServerMfwMsgId, 0, &m_oRecord, m_nLength); }
    void ask() const { answerStatus(nQelStatusMfwMsgId, 0, &m_oRecord, m_nLength); }

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

inline CRecord replyMessage(uint32_t subType, uint32_t handle, uint32_t status = nReplyOk) {
    CQelReplyMessage message;
    message.m_oHeader = {0, sizeof message, nQelClientReplyMsgType, subType, 7, handle};
    message.m_nStatus = status;
    return CRecord(message);
}

// A control with so many features, each of which concerns each of so many monitored components. Operations
// leave it changed; settle() makes good for all but features and components that are gone, refill() for these
// too.
class CWorld {
public:
    CWorld(int64_t features, int64_t components)
        : m_oControl(*CQelControl::instance()), m_nFeatures(static_cast<size_t>(features)) {
        for (int64_t i = 0; i < components; ++i) {
            m_vNames.push_back("component" + std::to_string(i));
        }
        if (std::getenv("QEL_BENCH_UNRECORDED") == nullptr) { // to tell what the recorder costs
            startRecording();
        }
        refill();
    }
    ~CWorld() { clear(); }
    CWorld(const CWorld&) = delete;
    CWorld& operator=(const CWorld&) = delete;

    void refill() {
        clear();
        for (uint32_t code = 1; code <= m_nFeatures; ++code) {
            static_cast<void>(m_oControl.addFeature(makeEntry(code, code)));
        }
        for (size_t i = 0; i < m_vNames.size(); ++i) {
            nameMessage(0, CompNameMsgType, handleOf(i), m_vNames[i], m_nProcessId).dispatch();
            m_oControl.components().m_vItems.back()->m_bMonitor = 1;
        }
    }

    bool isWhole() const {
        const auto& features = m_oControl.features().m_vItems;
        return features.size() == m_nFeatures && m_oControl.components().m_vItems.size() == m_vNames.size() &&
               features.front()->m_vCompStatus.size() >= m_vNames.size();
    }

    void dropFeatures() {
        const auto entries = m_oControl.features().m_vItems;
        m_oControl.clearFeatureArray();
        for (CFeatureEntry* entry : entries) {
            delete entry;
        }
    }

    void putAll(CFeatureEntry::EFStatus feature, CCompStatus::ECStatus status, uint32_t stamp) {
        for (CFeatureEntry* entry : m_oControl.features().m_vItems) {
            entry->m_eStatus = feature;
            entry->m_nNewData = 0;
            for (CCompStatus* record : entry->m_vCompStatus) {
                record->m_eStatus = status;
                record->m_tStamp = stamp;
            }
        }
    }

    // Everything delivered, nothing to do.
    void settle(uint8_t sourced) {
        putAll(CFeatureEntry::fsActive, CCompStatus::csEnabled, nowSeconds());
        for (CFeatureEntry* entry : m_oControl.features().m_vItems) {
            entry->m_bSourced = sourced;
        }
    }

    // Fills m_aList with every feature, each `step`-th with other data.
    void makeList(size_t step) {
        dropList();
        for (uint32_t code = 1; code <= m_nFeatures; ++code) {
            const uint32_t change = step != 0 && code % step == 0 ? 1000000 : 0;
            m_aList.m_vItems.push_back(makeEntry(code, code + change));
        }
    }

    CComponent& last() { return *m_oControl.components().m_vItems.back(); }

    // Requests and replies of the last component, and what is nobody's.
    void say(uint32_t subType) { say(subType, m_nProcessId); }
    void say(uint32_t subType, uint32_t processId) {
        nameMessage(nQelClientRequestMsgType, subType, lastHandle(), m_vNames.back(), processId).dispatch();
    }
    void reply(uint32_t subType) { replyMessage(subType, lastHandle()).dispatch(); }
    // The first feature of the last component's table.
    void putFirst(CCompStatus::ECStatus status) {
        CComponent& comp = last();
        CCompStatus* record = comp.m_aFeatures.m_vItems.front()->findCompByPtr(&comp);
        record->m_eStatus = status;
        record->m_nEnableTries = 0;
    }
    void refuseFirst() {
        putFirst(CCompStatus::csEnabling);
        replyMessage(WriteReplyMsgType, lastHandle(), nReplyOk + 1).dispatch();
    }
    // Page by page, and then from the start again: each run is another part of the table.
    void question(uint32_t what, uint32_t filter) const {
        CStatusQuestion question;
        if (oLatestAnswer.m_nQuestion == what && oLatestAnswer.m_nMore != 0) {
            question.m_oCursor = oLatestAnswer.m_oCursor;
        }
        question.m_nQuestion = what;
        question.m_nFilter = filter;
        m_vNames.back().copy(question.m_szComponent, sizeof question.m_szComponent);
        CRecord(question).ask();
    }
    static void ask(uint32_t type) { CRecord(CQelMessageHeader{0, 24, type, 0, 7, 1}).dispatch(); }

    CQelControl& m_oControl;
    const size_t m_nFeatures;
    std::deque<std::string> m_vNames; // entries point at them
    uint32_t m_nProcessId = 1;
    CArray<CFeatureEntry*> m_aList;

private:
    static uint32_t handleOf(size_t component) { return 1000 + static_cast<uint32_t>(component); }
    uint32_t lastHandle() const { return handleOf(m_vNames.size() - 1); }

    CFeatureEntry* makeEntry(uint32_t code, uint32_t data) {
        auto* entry = new CFeatureEntry(&m_oControl);
        entry->m_nCode = code;
        entry->m_nData = data;
        for (const std::string& name : m_vNames) {
            entry->addCompName(name.c_str());
        }
        return entry;
    }

    void dropList() {
        for (CFeatureEntry* entry : m_aList.m_vItems) {
            delete entry;
        }
        m_aList.m_vItems.clear();
    }

    void clear() {
        dropList();
        dropFeatures();
        const auto components = m_oControl.components().m_vItems;
        for (CComponent* comp : components) {
            m_oControl.delComponent(comp);
            delete comp;
        }
    }
};

#endif
