// The messages between components, OAM and the daemon, byte by byte. Declared here once, for the daemon, the
// client library, the tools and the tests alike; docs/protocol.md tells the same to component authors.
//
// Every struct is the image of a message body: all its words are big-endian and unaligned, so a body is read
// with readBody() and sent as the bytes of the struct. All are zero unless set.
#ifndef QEL_MESSAGING_WIRE_H
#define QEL_MESSAGING_WIRE_H

#include "base/big_endian.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <type_traits>

inline constexpr uint16_t nQelServerMfwMsgId = 6; // framework message type of all of these, both directions
inline constexpr uint16_t nQelSourceMfwMsgId =
    7; // framework message type of the feature source's note to itself

inline constexpr uint32_t nNoHandle = 0xFFFFFFFF;

// Message class of what a component or OAM sends.
inline constexpr uint32_t nQelClientRequestMsgType = 0;
inline constexpr uint32_t nQelClientReplyMsgType = 1;
inline constexpr uint32_t nQelOAMActiveFeatureMsgType = 11; // the answer carries the same number

// Sub-types of class 0.
inline constexpr uint32_t CompNameMsgType = 0;
inline constexpr uint32_t InitListMsgType = 1;
inline constexpr uint32_t nQelClientGetFeatureMsgType = 2;
inline constexpr uint32_t nQelClientStartMonitorMsgType = 3;
inline constexpr uint32_t nQelClientServerDataMsgType = 4;
inline constexpr uint32_t nQelClientWriteReplyMsgType = 5;

// Sub-types of class 1.
inline constexpr uint32_t WriteReplyMsgType = 5;
inline constexpr uint32_t ShutdownMsgType = 6;

// Server message types: what the daemon sends to a component.
inline constexpr uint32_t nQelServerReplyMsgType = 0;   // answer: a feature, or 0, 0 for nothing (more)
inline constexpr uint32_t nQelServerNotifyMsgType = 1;  // take the feature up
inline constexpr uint32_t nQelServerModifyMsgType = 2;  // the feature's data changes; extra: the new data
inline constexpr uint32_t nQelServerDisableMsgType = 3; // the feature is withdrawn
inline constexpr uint32_t nQelServerTimeoutMsgType = 4; // a reply is overdue

inline constexpr size_t nMaxKnownPairs = 100;      // pairs that a name message may carry
inline constexpr size_t nNameFieldSize = 20;       // of a name message, NUL included where there is one
inline constexpr size_t nMaxNameLength = 16;       // longer names are not stored
inline constexpr size_t nMaxReplyTextLength = 500; // longer texts are not stored

inline constexpr uint32_t nReplyOk = 1; // status of a write reply: carried out; any other value is a failure

struct CQelMessageHeader {
    CBigEndian32 m_nWord0;
    CBigEndian32 m_nLength;
    CBigEndian32 m_nType; // message class, or server message type
    CBigEndian32 m_nSubType;
    CBigEndian32 m_nTag;    // chosen by the requester, echoed by the daemon
    CBigEndian32 m_nHandle; // where answers go
};
static_assert(sizeof(CQelMessageHeader) == 24);

// A feature, as pairs are written in messages.
struct CQelPair {
    CBigEndian32 m_nCode;
    CBigEndian32 m_nData;
};
static_assert(sizeof(CQelPair) == 8);

// Name message (class 0, sub-type 0) up to its pairs; m_nPairCount pairs follow. InitList, GetFeature and
// StartMonitor read the name field of the same layout and nothing behind it.
struct CQelNameMessage {
    CQelMessageHeader m_oHeader;
    CBigEndian32 m_nProcessId;
    char m_szName[nNameFieldSize] = {};
    CBigEndian32 m_nPairCount;
};
static_assert(offsetof(CQelNameMessage, m_szName) == 28);
static_assert(sizeof(CQelNameMessage) == 52);

// Write reply and shutdown (class 1).
struct CQelReplyMessage {
    CQelMessageHeader m_oHeader;
    CBigEndian32 m_nReserved;
    CBigEndian32 m_nStatus;
    char m_szText[nMaxReplyTextLength + 1] = {};
};
static_assert(offsetof(CQelReplyMessage, m_szText) == 32);
static_assert(sizeof(CQelReplyMessage) == 533);

// Every message from the daemon to a component: exactly one feature.
struct CQelServerMessage {
    CQelMessageHeader m_oHeader;
    CBigEndian32 m_nCode;
    CBigEndian32 m_nData;
    CBigEndian32 m_nExtra;
};
static_assert(sizeof(CQelServerMessage) == 36);

// The OAM answer is a header, the number of slots in the daemon's table, and so many bytes of records as the
// message's length leaves; the number of slots may be larger than the number of records.
struct CQelFeatureRecord {
    CBigEndian32 m_nStatus; // CFeatureEntry::EFStatus
    CBigEndian32 m_nCode;
    CBigEndian32 m_nData;
    CBigEndian32 m_nTextLength; // bytes of text behind the record, without a NUL
};
static_assert(sizeof(CQelFeatureRecord) == 16);

// Reads a message from the first bytes of a body; what the body does not have is zero.
template <typename T>
T readBody(const uint8_t* body, size_t length) {
    static_assert(std::is_trivially_copyable_v<T> && alignof(T) == 1);
    T message;
    if (length != 0) {
        std::memcpy(static_cast<void*>(&message), body, std::min(length, sizeof message));
    }
    return message;
}

// The bytes that a message is sent as.
template <typename T>
std::span<const char> bytesOf(const T& message) {
    static_assert(std::is_trivially_copyable_v<T> && alignof(T) == 1);
    return {reinterpret_cast<const char*>(&message), sizeof message};
}

// The text of a fixed-size field: up to its NUL, or the whole field where it has none.
template <size_t N>
std::string_view fieldText(const char (&field)[N]) {
    return {field, strnlen(field, N)};
}

#endif
