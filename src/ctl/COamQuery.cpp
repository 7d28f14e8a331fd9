#include "ctl/COamQuery.h"

#include <cstring>
#include <utility>

COamQuery* COamQuery::m_pAsking = nullptr;

std::optional<std::vector<SActiveFeature>> parseActiveList(const uint8_t* body, size_t length) {
    size_t at = sizeof(CQelMessageHeader) + sizeof(CBigEndian32);
    if (length < at) {
        return std::nullopt;
    }
    std::vector<SActiveFeature> features;
    // Every length comes from the message, so each is compared with what is left before it is used.
    while (at < length) {
        if (length - at < sizeof(CQelFeatureRecord)) {
            return std::nullopt;
        }
        auto record = readBody<CQelFeatureRecord>(body + at, length - at);
        at += sizeof record;
        if (length - at < record.m_nTextLength) {
            return std::nullopt;
        }
        at += record.m_nTextLength;
        features.push_back({record.m_nStatus, record.m_nCode, record.m_nData});
    }
    return features;
}

COamQuery::COamQuery() {
    m_pAsking = this;
}

// Clean-up is harmless where ask() has opened nothing (mfw.h).
COamQuery::~COamQuery() {
    m_pAsking = nullptr;
    OvuMfwCleanup();
}

COamQuery::EOutcome COamQuery::ask(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    // The daemon is looked up first. That needs no endpoint, so without a daemon nothing has to be opened.
    if (OvuMfwGetProcessHandle("qelserver", &m_nDaemon) != 0) {
        return EOutcome::noDaemon;
    }
    if (OvuMfwInitialize() != 0 || OvuMfwRegisterCallback(nQelServerMfwMsgId, cbReceive) != 0) {
        return EOutcome::noEndpoint;
    }
    // A daemon that is gone by now, or whose queue is full, cannot be asked; either way no daemon answers.
    return send() ? await(deadline) : EOutcome::noDaemon;
}

// A header is all of the request. It needs no announcement: the daemon answers to the handle in the header.
bool COamQuery::send() {
    CQelMessageHeader header;
    uint32_t own = nNoHandle;
    if (OvuMfwGetProcessHandle(nullptr, &own) != 0) {
        return false;
    }
    header.m_nLength = sizeof header;
    header.m_nType = nQelOAMActiveFeatureMsgType;
    header.m_nTag = nTag;
    header.m_nHandle = own;
    sOvuMfwMessage message = {};
    std::memcpy(message.data, &header, sizeof header);
    return OvuMfwSendMessage(m_nDaemon, nQelServerMfwMsgId, 0, &message, sizeof header) == 0;
}

COamQuery::EOutcome COamQuery::await(std::chrono::steady_clock::time_point deadline) {
    while (m_eOutcome == EOutcome::noAnswer) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            break;
        }
        // The result does not matter: an error waits out its time as well, so this cannot spin (mfw.h).
        OvuMfwProcessNextMessage(static_cast<uint32_t>(left.count()));
    }
    return m_eOutcome;
}

void COamQuery::cbReceive(uint16_t, uint32_t, const sOvuMfwMessage* message, uint32_t length) {
    if (!message || !m_pAsking) {
        return;
    }
    // Only the daemon that was asked may answer. The sender is the framework's word, so nobody can pose as
    // the daemon.
    auto header = readBody<CQelMessageHeader>(message->data, length);
    CBigEndian32 sender;
    std::memcpy(static_cast<void*>(&sender), message->sender, sizeof sender);
    if (sender != m_pAsking->m_nDaemon || header.m_nType != nQelOAMActiveFeatureMsgType ||
        header.m_nTag != nTag) {
        return;
    }
    auto features = parseActiveList(message->data, length);
    m_pAsking->m_eOutcome = features ? EOutcome::answered : EOutcome::badAnswer;
    m_pAsking->m_vFeatures = std::move(features).value_or(std::vector<SActiveFeature>());
}
