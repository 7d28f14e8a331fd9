// The messages between components, OAM and the daemon, byte by byte. They are declared here once, for the
// daemon, the client library, the tools and the tests alike. docs/protocol.md explains them to authors of
// components, with examples in hexadecimal.
//
// Every struct is the image of a message body: its words are big-endian and unaligned, and it has no padding.
// So a body is read with readBody() and sent as the bytes of the struct, on any host. All fields are zero
// unless set.
//
// Components in the field speak these layouts. A number or an offset that is in
// use cannot change its meaning.
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

// Framework message types: of everything declared here, in both directions, and of the note by which the
// feature source wakes the main loop of its own process. The note's body means nothing.
inline constexpr uint16_t nQelServerMfwMsgId = 6;
inline constexpr uint16_t nQelSourceMfwMsgId = 7;

inline constexpr uint32_t nNoHandle = 0xFFFFFFFF; // no process ever has this handle

// Message class (m_nType) of what a component or OAM sends.
inline constexpr uint32_t nQelClientRequestMsgType = 0;
inline constexpr uint32_t nQelClientReplyMsgType = 1;
inline constexpr uint32_t nQelOAMActiveFeatureMsgType = 11; // the answer carries the same number

// Sub-types of class 0. The last two are logged and not answered.
inline constexpr uint32_t CompNameMsgType = 0;
inline constexpr uint32_t InitListMsgType = 1;
inline constexpr uint32_t nQelClientGetFeatureMsgType = 2;
inline constexpr uint32_t nQelClientStartMonitorMsgType = 3;
inline constexpr uint32_t nQelClientServerDataMsgType = 4;
inline constexpr uint32_t nQelClientWriteReplyMsgType = 5;

// Sub-types of class 1.
inline constexpr uint32_t WriteReplyMsgType = 5;
inline constexpr uint32_t ShutdownMsgType = 6;

// Server message types (m_nType): what the daemon sends to a component. Types 1 to 3 ask for a write reply.
inline constexpr uint32_t nQelServerReplyMsgType = 0;   // answer: a feature, or 0, 0 for nothing (more)
inline constexpr uint32_t nQelServerNotifyMsgType = 1;  // take the feature up
inline constexpr uint32_t nQelServerModifyMsgType = 2;  // the feature's data changes; extra: the new data
inline constexpr uint32_t nQelServerDisableMsgType = 3; // the feature is withdrawn
inline constexpr uint32_t nQelServerTimeoutMsgType = 4; // a reply is overdue; must not be answered

// Limits. Lengths are in bytes, without the NUL. With all its pairs a name message has 852 bytes, so every
// message of a component fits into the OVU_MFW_MIN_DATA bytes of a framework record.
inline constexpr size_t nMaxKnownPairs = 100;      // pairs that a name message may carry
inline constexpr size_t nNameFieldSize = 20;       // field of a name message; a peer may omit the NUL
inline constexpr size_t nMaxNameLength = 16;       // longer names are not stored
inline constexpr size_t nMaxReplyTextLength = 500; // longer texts are not stored

inline constexpr uint32_t nReplyOk = 1; // status of a write reply: carried out; any other value is a failure

// Starts every message, in both directions.
struct CQelMessageHeader {
    CBigEndian32 m_nWord0;  // 0
    CBigEndian32 m_nLength; // of the body; the daemon goes by the framework's length instead
    CBigEndian32 m_nType;   // message class, or server message type
    CBigEndian32 m_nSubType;
    CBigEndian32 m_nTag;    // chosen by the requester, echoed by the daemon
    CBigEndian32 m_nHandle; // where answers go, and by which the daemon knows the component
};
static_assert(sizeof(CQelMessageHeader) == 24);

// A feature, as pairs are written in messages.
struct CQelPair {
    CBigEndian32 m_nCode;
    CBigEndian32 m_nData;
};
static_assert(sizeof(CQelPair) == 8);

// Name message (class 0, sub-type 0) up to its pairs; m_nPairCount of them follow. InitList, GetFeature and
// StartMonitor have the same layout, of which the daemon reads the header and the name only.
struct CQelNameMessage {
    CQelMessageHeader m_oHeader;
    CBigEndian32 m_nProcessId;
    char m_szName[nNameFieldSize] = {};
    CBigEndian32 m_nPairCount;
};
static_assert(offsetof(CQelNameMessage, m_szName) == 28);
static_assert(sizeof(CQelNameMessage) == 52);

// Write reply and shutdown (class 1). On the wire it ends with the NUL of its text, so it has 33 to 533
// bytes. It names no feature: the daemon credits it to the first one that awaits an answer of this component.
struct CQelReplyMessage {
    CQelMessageHeader m_oHeader;
    CBigEndian32 m_nReserved;
    CBigEndian32 m_nStatus; // nReplyOk, or anything else for a failure
    char m_szText[nMaxReplyTextLength + 1] = {};
};
static_assert(offsetof(CQelReplyMessage, m_szText) == 32);
static_assert(sizeof(CQelReplyMessage) == 533);

// Every message from the daemon to a component: exactly one feature. Extra is the new data in type 2, else 0.
struct CQelServerMessage {
    CQelMessageHeader m_oHeader;
    CBigEndian32 m_nCode;
    CBigEndian32 m_nData;
    CBigEndian32 m_nExtra;
};
static_assert(sizeof(CQelServerMessage) == 36);

// One record of the list for OAM. The answer is a header, one word with the number of slots in the daemon's
// table, and records to the end of the message. Walk them by the length that the framework reports: there may
// be fewer records than slots, because sourced features are left out, and m_nLength of the header is 0.
struct CQelFeatureRecord {
    CBigEndian32 m_nStatus; // CFeatureEntry::EFStatus
    CBigEndian32 m_nCode;
    CBigEndian32 m_nData;
    CBigEndian32 m_nTextLength; // bytes of text behind the record, without a NUL
};
static_assert(sizeof(CQelFeatureRecord) == 16);

// Reads a message from the first bytes of a body, which needs no alignment. What a short body lacks is zero,
// so no reader runs off it; `body` may be null if `length` is 0.
template <typename T>
T readBody(const uint8_t* body, size_t length) {
    static_assert(std::is_trivially_copyable_v<T> && alignof(T) == 1);
    T message;
    if (length != 0) {
        std::memcpy(static_cast<void*>(&message), body, std::min(length, sizeof message));
    }
    return message;
}

// The bytes that a message is sent as. They are the message's own: it must outlive their use.
template <typename T>
std::span<const char> bytesOf(const T& message) {
    static_assert(std::is_trivially_copyable_v<T> && alignof(T) == 1);
    return {reinterpret_cast<const char*>(&message), sizeof message};
}

// The text of a fixed-size field: up to its NUL, or the whole field if a peer left the NUL out.
template <size_t N>
std::string_view fieldText(const char (&field)[N]) {
    return {field, strnlen(field, N)};
}

#endif
