#include "ctl/CPlayedDaemon.h"

#include "ctl/terminal.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <utility>

namespace {

// By EDeed.
constexpr std::array<std::string_view, 11> aWords = {"announce", "rewind", "page",   "fetch",
                                                     "monitor",  "accept", "refuse", "stray",
                                                     "shutdown", "end",    "nothing"};
static_assert(aWords.size() == static_cast<size_t>(EDeed::nothing) + 1);

std::string quoted(std::string_view text) {
    return fmt::format(" \"{}\"", printable(text));
}

template <typename T, typename U>
bool fitsOne(const std::optional<T>& expected, const U& came) {
    return !expected || *expected == came;
}

SDeed announcement(const CQelNameMessage& message, const uint8_t* body, size_t length) {
    SDeed deed{EDeed::announce};
    deed.m_sName = fieldText(message.m_szName);
    // The count is what the message claims, its length what it has.
    size_t count = std::min<size_t>(message.m_nPairCount, nMaxKnownPairs);
    for (size_t at = sizeof message; count-- > 0 && at + sizeof(CQelPair) <= length; at += sizeof(CQelPair)) {
        const auto pair = readBody<CQelPair>(body + at, length - at);
        deed.m_vHeld.push_back({pair.m_nCode, pair.m_nData});
    }
    std::sort(deed.m_vHeld.begin(), deed.m_vHeld.end());
    return deed;
}

} // namespace

std::string_view word(EDeed deed) {
    return aWords[static_cast<size_t>(deed)];
}

bool SExpectation::fits(const SDeed& deed) const {
    const SFeature feature = deed.m_oFeature.value_or(SFeature{});
    return m_eDeed == deed.m_eDeed && fitsOne(m_oName, deed.m_sName) && fitsOne(m_oHeld, deed.m_vHeld) &&
           fitsOne(m_oCode, feature.m_nCode) && fitsOne(m_oData, feature.m_nData) &&
           fitsOne(m_oText, deed.m_sText) && fitsOne(m_oStatus, deed.m_nStatus);
}

std::string describe(const SDeed& deed) {
    std::string text(word(deed.m_eDeed));
    if (deed.m_eDeed == EDeed::announce) {
        text += quoted(deed.m_sName) + " holding";
        text += deed.m_vHeld.empty() ? " nothing" : "";
        for (const SFeature& feature : deed.m_vHeld) {
            text += fmt::format(" {}:{}", feature.m_nCode, feature.m_nData);
        }
    }
    text += deed.m_oFeature ? fmt::format(" {}:{}", deed.m_oFeature->m_nCode, deed.m_oFeature->m_nData) : "";
    text += deed.m_eDeed == EDeed::end ? fmt::format(" {}", deed.m_nStatus) : "";
    text += deed.m_sText.empty() ? "" : quoted(deed.m_sText);
    return text;
}

CPlayedDaemon::SHeard CPlayedDaemon::hear(const uint8_t* body, size_t length) {
    const auto header = readBody<CQelMessageHeader>(body, length);
    const uint32_t subType = header.m_nSubType;
    if (header.m_nType == nQelClientRequestMsgType && subType == CompNameMsgType) {
        return takeAnnouncement(body, length);
    }
    if (m_nComponent == nNoHandle || header.m_nHandle != m_nComponent) {
        return {};
    }
    m_nTag = header.m_nTag;
    switch (header.m_nType) {
    case nQelClientRequestMsgType:
        return takeRequest(subType);
    case nQelClientReplyMsgType:
        return takeReply(readBody<CQelReplyMessage>(body, length));
    default:
        return {};
    }
}

CPlayedDaemon::SHeard CPlayedDaemon::takeAnnouncement(const uint8_t* body, size_t length) {
    const auto message = readBody<CQelNameMessage>(body, length);
    if (message.m_szName[0] == '\0') {
        return {};
    }
    m_nComponent = message.m_oHeader.m_nHandle;
    m_nTag = message.m_oHeader.m_nTag;
    // Another process owes no reply to what its predecessor was told.
    if (std::exchange(m_nProcess, message.m_nProcessId) != message.m_nProcessId) {
        m_vAwaited.clear();
    }
    return {announcement(message, body, length), this->message(nQelServerReplyMsgType, {})};
}

CPlayedDaemon::SHeard CPlayedDaemon::takeRequest(uint32_t subType) {
    switch (subType) {
    case InitListMsgType:
        m_nPage = 0;
        return {SDeed{EDeed::rewind}, message(nQelServerReplyMsgType, {})};
    case nQelClientGetFeatureMsgType:
        return takePage();
    case nQelClientStartMonitorMsgType:
        return {SDeed{EDeed::monitor}, message(nQelServerReplyMsgType, {})};
    default:
        return {};
    }
}

// A page counts as accepted, so a reply about its code is no longer awaited.
CPlayedDaemon::SHeard CPlayedDaemon::takePage() {
    if (m_nPage >= m_vList.size()) {
        return {SDeed{EDeed::fetch}, message(nQelServerReplyMsgType, {})};
    }
    const SFeature feature = m_vList[m_nPage++];
    std::erase_if(m_vAwaited,
                  [&](const SAwaited& awaited) { return awaited.m_oFeature.m_nCode == feature.m_nCode; });
    return {SDeed{EDeed::page}, message(nQelServerReplyMsgType, feature)};
}

CPlayedDaemon::SHeard CPlayedDaemon::takeReply(const CQelReplyMessage& reply) {
    SDeed deed{EDeed::stray};
    deed.m_sText = fieldText(reply.m_szText);
    if (reply.m_oHeader.m_nSubType == ShutdownMsgType) {
        deed.m_eDeed = EDeed::shutdown;
        forget();
        return {deed, std::nullopt};
    }
    if (reply.m_oHeader.m_nSubType != WriteReplyMsgType) {
        return {};
    }
    if (m_vAwaited.empty()) {
        return {deed, message(nQelServerReplyMsgType, {})};
    }
    const SAwaited credited = m_vAwaited.front();
    m_vAwaited.erase(m_vAwaited.begin());
    const bool isAccepted = reply.m_nStatus == nReplyOk;
    deed.m_eDeed = isAccepted ? EDeed::accept : EDeed::refuse;
    deed.m_oFeature = credited.m_oFeature;
    if (credited.m_nType == nQelServerModifyMsgType && isAccepted) {
        deed.m_oFeature->m_nData = credited.m_nNewData;
    }
    return {deed, message(nQelServerReplyMsgType, *deed.m_oFeature)};
}

CQelServerMessage CPlayedDaemon::notify(uint32_t type, const SFeature& feature, uint32_t newData) {
    follow(type, feature, newData);
    // Told again, a feature still awaits one reply.
    std::erase_if(m_vAwaited, [&](const SAwaited& awaited) { return awaited.m_oFeature == feature; });
    m_vAwaited.push_back({feature, newData, type});
    return message(type, feature, type == nQelServerModifyMsgType ? newData : 0);
}

std::optional<CQelServerMessage> CPlayedDaemon::giveUp(uint32_t code) {
    const auto found = std::find_if(m_vAwaited.begin(), m_vAwaited.end(), [&](const SAwaited& awaited) {
        return awaited.m_oFeature.m_nCode == code;
    });
    if (found == m_vAwaited.end()) {
        return std::nullopt;
    }
    const SFeature feature = found->m_oFeature;
    m_vAwaited.erase(found);
    return message(nQelServerTimeoutMsgType, feature);
}

void CPlayedDaemon::forget() {
    m_vAwaited.clear();
    m_nComponent = nNoHandle;
    m_nProcess = 0;
    m_nPage = 0;
}

CQelServerMessage CPlayedDaemon::message(uint32_t type, const SFeature& feature, uint32_t extra) const {
    CQelServerMessage message;
    message.m_oHeader.m_nLength = sizeof message;
    message.m_oHeader.m_nType = type;
    message.m_oHeader.m_nTag = m_nTag;
    message.m_nCode = feature.m_nCode;
    message.m_nData = feature.m_nData;
    message.m_nExtra = extra;
    return message;
}

// A list may have a code several times. What is withdrawn or modified is the very feature if it is there,
// else whatever has its code: a type 3 may name other data than the component holds. What comes takes the
// place in the order of what goes.
void CPlayedDaemon::follow(uint32_t type, const SFeature& feature, uint32_t newData) {
    const bool isExact = type != nQelServerNotifyMsgType &&
                         std::find(m_vList.begin(), m_vList.end(), feature) != m_vList.end();
    const auto goes = [&](const SFeature& listed) {
        return isExact ? listed == feature : listed.m_nCode == feature.m_nCode;
    };
    const auto place = std::find_if(m_vList.begin(), m_vList.end(), goes) - m_vList.begin();
    std::erase_if(m_vList, goes);
    if (type != nQelServerDisableMsgType) {
        const uint32_t data = type == nQelServerModifyMsgType ? newData : feature.m_nData;
        m_vList.insert(m_vList.begin() + place, {feature.m_nCode, data});
    }
}
