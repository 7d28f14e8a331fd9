#include "ctl/describe.h"

#include "ctl/terminal.h"
#include "messaging/wire/wire.h"

#include <array>
#include <fmt/format.h>

namespace {

// The count is what the message claims, its length what it has. The smaller one counts, as it does in
// the daemon.
std::string heldPairs(const uint8_t* body, size_t length, uint32_t count) {
    std::string text;
    for (size_t at = sizeof(CQelNameMessage); count-- > 0 && at + sizeof(CQelPair) <= length;
         at += sizeof(CQelPair)) {
        auto pair = readBody<CQelPair>(body + at, length - at);
        text += fmt::format(" {}:{}", uint32_t{pair.m_nCode}, uint32_t{pair.m_nData});
    }
    return text.empty() ? " nothing" : text;
}

SMessageText describeRequest(const uint8_t* body, size_t length, uint32_t subType) {
    // By sub-type. The daemon only logs the two behind them, 4 and 5, and libqelclient sends neither.
    static constexpr std::array<const char*, 4> aKinds = {"announce", "rewind", "fetch", "monitor"};
    auto message = readBody<CQelNameMessage>(body, length);
    if (subType >= aKinds.size()) {
        return {"unknown", fmt::format("request {}", subType)};
    }
    std::string detail = fmt::format("as {}", printable(fieldText(message.m_szName)));
    if (subType == CompNameMsgType) {
        detail += fmt::format(" pid {} holding{}", uint32_t{message.m_nProcessId},
                              heldPairs(body, length, message.m_nPairCount));
    }
    return {aKinds[subType], detail};
}

SMessageText describeReply(const uint8_t* body, size_t length, uint32_t subType) {
    auto message = readBody<CQelReplyMessage>(body, length);
    uint32_t status = message.m_nStatus;
    std::string text = printable(fieldText(message.m_szText));
    std::string detail = status == nReplyOk ? "ok" : fmt::format("failed ({})", status);
    detail += text.empty() ? "" : fmt::format(" \"{}\"", text);
    switch (subType) {
    case WriteReplyMsgType:
        return {"reply", detail};
    case ShutdownMsgType:
        return {"shutdown", detail};
    default:
        return {"unknown", fmt::format("reply {}", subType)};
    }
}

} // namespace

SMessageText describeSent(const uint8_t* body, size_t length) {
    auto header = readBody<CQelMessageHeader>(body, length);
    switch (header.m_nType) {
    case nQelClientRequestMsgType:
        return describeRequest(body, length, header.m_nSubType);
    case nQelClientReplyMsgType:
        return describeReply(body, length, header.m_nSubType);
    default:
        return {"unknown", fmt::format("class {}", uint32_t{header.m_nType})};
    }
}

// By message type. The list for OAM (type 11) is none of these: no component asks for it.
SMessageText describeReceived(const uint8_t* body, size_t length, const CFeatureNames& names) {
    static constexpr std::array<const char*, 5> aKinds = {"answer", "notify", "modify", "disable", "overdue"};
    auto message = readBody<CQelServerMessage>(body, length);
    uint32_t type = message.m_oHeader.m_nType;
    if (length < sizeof message || type >= aKinds.size()) {
        return {"unknown", fmt::format("type {} length {}", type, length)};
    }
    std::string detail = fmt::format("code {} data {}", uint32_t{message.m_nCode}, uint32_t{message.m_nData});
    if (type == nQelServerModifyMsgType) {
        detail += fmt::format(" new data {}", uint32_t{message.m_nExtra});
    }
    const std::string_view name = names.find(message.m_nCode);
    detail += name.empty() ? "" : fmt::format(" \"{}\"", printable(name));
    return {aKinds[type], detail};
}
