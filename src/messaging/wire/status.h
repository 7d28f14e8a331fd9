// The language for looking: read-only questions about what the daemon knows, and its answers. Framework
// message type nQelStatusMfwMsgId in both directions. The components' protocol (wire.h) is another language,
// and stays as it is.
//
// Who asks sends a CStatusQuestion. The answer goes to the process that the framework names as its sender: a
// CStatusAnswer and records behind it. One answer is a page of at most nMaxStatusAnswer bytes. Where
// m_nMore is 1, the same question with the answer's cursor in it gets the next page.
//
// It can grow. A record tells its own size, so a newer daemon may append fields that an older reader skips,
// and what an older daemon does not send reads as zero (readRecord()). Numbers in use keep their meaning.
// Asking changes nothing, and logs nothing.
//
// Times are seconds since the epoch by the daemon's wall clock, 0 for never. Numbers of 64 bits are two
// words, the high one first.
#ifndef QEL_MESSAGING_STATUS_H
#define QEL_MESSAGING_STATUS_H

#include "base/big_endian.h"
#include "messaging/wire/wire.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

inline constexpr uint16_t nQelStatusMfwMsgId = 8; // framework message type
inline constexpr uint32_t nStatusVersion = 1;
inline constexpr size_t nMaxStatusAnswer = size_t{60} * 1024; // bytes, header and all

// What can be asked, and what a record of the answer is.
enum EStatusQuestion : uint32_t {
    sqSummary = 1,     // one CStatusSummary; its text: the daemon's version
    sqComponents = 2,  // a CStatusComponent each, in the order of the daemon's table; text: of the last reply
    sqFeatures = 3,    // a CStatusFeature each, likewise; texts: the name (its beginning, if it is longer
                       // than 1,024 bytes), then whom the feature concerns, a NUL in front of each
    sqDeliveries = 4,  // a CStatusDelivery for each feature and component that has been taken into it
    sqTransitions = 5, // a CStatusTransition each, oldest first, of those kept that the cursor lies before
    sqCounters = 6,    // a CStatusCounter each, since the daemon's start; text: its name
    sqTally = 7,       // one CStatusTally in each page, to be added up: deliveries by their state
    sqList = 8 // one CStatusList; texts: the list's path, then the first errors of the latest reading,
               // each as LINE: TEXT (line 0: the file as a whole), a NUL in front of each
};

// Which records are wanted. Features are filtered by code alone, deliveries and their tally by all, the
// others by nothing.
enum EStatusFilter : uint32_t {
    sfCode = 1,      // of this code
    sfComponent = 2, // of the component of this name
    sfOpen = 4,      // that are not delivered (EDeliveryWord)
    sfFailed = 8     // that have failed; a daemon that does not know it tells the others as well
};

// Where the next page begins. To begin, all zero; afterwards what the last answer had, unread, except for
// transitions: there the first two words are the number after which to begin.
struct CStatusCursor {
    CBigEndian32 m_aWords[4];
};

struct CStatusQuestion {
    CBigEndian32 m_nVersion = nStatusVersion;
    CBigEndian32 m_nQuestion; // EStatusQuestion
    CBigEndian32 m_nTag;      // comes back with the answer
    CStatusCursor m_oCursor;
    CBigEndian32 m_nFilter; // EStatusFilter, added up
    CBigEndian32 m_nCode;
    char m_szComponent[nNameFieldSize] = {};
};
static_assert(sizeof(CStatusQuestion) == 56);

enum EStatusResult : uint32_t {
    srOk = 0,
    srUnknown = 1, // a version or a question that this daemon does not know; no records
    srChanged =
        2,    // what was read is out of date, so begin anew; no records. The entry at the cursor is gone, or
              // a list came into force or a component left since the page before
    srGap = 3 // transitions after the cursor are no longer kept; the records begin with the oldest that is
};

struct CStatusAnswer {
    CBigEndian32 m_nVersion = nStatusVersion;
    CBigEndian32 m_nQuestion;
    CBigEndian32 m_nTag;
    CBigEndian32 m_nResult; // EStatusResult
    CBigEndian32 m_nCount;  // records that follow
    CBigEndian32 m_nMore;   // 1: there may be more, from the cursor on
    CStatusCursor m_oCursor;
};
static_assert(sizeof(CStatusAnswer) == 40);

// Starts every record. The text, m_nTextLength bytes, follows the record's m_nSize bytes.
struct CStatusRecord {
    CBigEndian32 m_nSize;
    CBigEndian32 m_nTextLength;
};

inline constexpr size_t nFeatureStatuses = 5; // CFeatureEntry::EFStatus
inline constexpr size_t nDeliveryStates = 13; // CCompStatus::ECStatus

struct CStatusSummary {
    CStatusRecord m_oRecord;
    CBigEndian32 m_nProcessId;
    CBigEndian32 m_tStarted;
    CBigEndian32 m_tNow;
    CBigEndian32 m_nComponents;
    CBigEndian32 m_aFeatures[nFeatureStatuses]; // by their status
    CBigEndian32 m_aLastTransition[2];          // its number; 0: there was none
    CBigEndian32 m_nLatestTurn;  // microseconds of work: the passes and the message, without waits
    CBigEndian32 m_nBusiestTurn; // of all since the start
    CBigEndian32 m_nNextPass;    // milliseconds until the next audit, about
};
static_assert(sizeof(CStatusSummary) == 64);

struct CStatusComponent {
    CStatusRecord m_oRecord;
    char m_szName[nNameFieldSize] = {};
    CBigEndian32 m_nProcessId; // as announced; 0: none, or registered by the daemon itself
    CBigEndian32 m_nHandle;
    CBigEndian32 m_nMonitors; // 1: is told of changes
    CBigEndian32 m_tHeard;    // its last message
    CBigEndian32 m_tDead;     // found to be gone; 0: alive, or not known
    CBigEndian32 m_nReply;    // status of its last reply; nReplyOk is success
};
static_assert(sizeof(CStatusComponent) == 52);

struct CStatusTally {
    CStatusRecord m_oRecord;
    CBigEndian32 m_aDeliveries[nDeliveryStates]; // how many are in each state, in this part of the table
};
static_assert(sizeof(CStatusTally) == 60);

struct CStatusFeature {
    CStatusRecord m_oRecord;
    CBigEndian32 m_nCode;
    CBigEndian32 m_nData;
    CBigEndian32 m_nNewData; // 0: none is pending
    CBigEndian32 m_nStatus;  // CFeatureEntry::EFStatus
    CBigEndian32 m_nSourced; // 1: kept from list to list
    CBigEndian32 m_nLeaving; // 1: stands only for components that a list has dropped from a feature in force
};
static_assert(sizeof(CStatusFeature) == 32);

// Why a delivery has failed (states 3, 7 and 11). It is kept for the latest nKeptReasons failures.
enum EStatusWhy : uint32_t {
    swNone = 0,     // it has not
    swRefused = 1,  // the component refused; the record's text says why, in the component's words
    swNoAnswer = 2, // no answer came
    swNotKept = 3   // it is not kept any more
};
inline constexpr size_t nKeptReasons = 256;
inline constexpr size_t nKeptTransitions = 4096;

struct CStatusDelivery {
    CStatusRecord m_oRecord; // text: of the refusal, where the state is one and the text is still kept
    CBigEndian32 m_nCode;
    CBigEndian32 m_nData;
    CBigEndian32 m_nNewData;
    CBigEndian32 m_nFeatureStatus;
    CBigEndian32 m_nState; // CCompStatus::ECStatus
    CBigEndian32 m_nSends; // without an answer, in this phase; where it was given up, how many there were
    CBigEndian32 m_tSince; // when it came into its state
    CBigEndian32 m_nMonitors;
    CBigEndian32 m_nWhy; // EStatusWhy
    char m_szComponent[nNameFieldSize] = {};
    CBigEndian32 m_tLast; // the last send, answer, fetch or taking in; an answer is awaited from here on
};
static_assert(sizeof(CStatusDelivery) == 68);

struct CStatusTransition {
    CStatusRecord m_oRecord; // text: of the refusal, where it is one and the text is still kept
    CBigEndian32 m_aNumber[2];
    CBigEndian32 m_tSeconds;
    CBigEndian32 m_nMicroseconds;
    CBigEndian32 m_nCode;
    CBigEndian32 m_nData;
    CBigEndian32 m_nFrom; // CCompStatus::ECStatus
    CBigEndian32 m_nTo;
    CBigEndian32 m_nCause;                   // EDeliveryEvent of features/delivery.h
    char m_szComponent[nNameFieldSize] = {}; // empty: a step of all that have the feature
    CBigEndian32 m_nWhy;                     // EStatusWhy, where m_nTo is a failure
};
static_assert(sizeof(CStatusTransition) == 68);

// What became of a reading of the list file.
enum EListResult : uint32_t {
    lrNone = 0,      // it has not been read
    lrTaken = 1,     // it holds a new list, which is handed over
    lrUnchanged = 2, // it says what the list taken last says
    lrRefused = 3,   // it has errors, or is not there; the list in force stays in force
    lrUnreadable = 4 // it could not be read, or memory was short; it is read again soon
};

inline constexpr size_t nKeyIdField = 16;
inline constexpr size_t nSignerField = 128;

// Where m_nInForce is 0, so are the fields from there to m_nMuch, and those behind m_nErrors. Digests are
// listDigest() of the file's bytes (source/list/list_digest.h). The latest reading has another than the list
// in force where the file's text has changed, but not what it says.
struct CStatusList {
    CStatusRecord m_oRecord;
    CBigEndian32 m_nInForce; // 1: a list is in force
    CBigEndian32 m_tLoaded;  // when it came into force
    CBigEndian32 m_nKept; // 1: it is the list kept from an earlier run, for the file had none that is usable
    CBigEndian32 m_aDigest[2];
    CBigEndian32 m_nSize; // bytes
    CBigEndian32 m_nFeatures;
    CBigEndian32 m_nBefore;    // features of the list before it; 0: it is the first since the daemon's start
    CBigEndian32 m_nWithdrawn; // those of them that it withdrew
    CBigEndian32 m_nMuch;      // 1: more than a fifth
    CBigEndian32 m_tRead;      // the latest reading
    CBigEndian32 m_nResult;    // EListResult
    CBigEndian32 m_aReadDigest[2];
    CBigEndian32 m_nReadSize;
    CBigEndian32 m_nErrors;    // all; the texts have those that fit into some KiB
    CBigEndian32 m_nVerified;  // 1: the list in force was signed by a trusted key, which is named here
    CBigEndian32 m_aSerial[2]; // of the list in force; 0: it has none
    char m_szKeyId[nKeyIdField] = {};
    char m_szSigner[nSignerField] = {}; // subject of the certificate, or its beginning
};
static_assert(sizeof(CStatusList) == 228);

struct CStatusCounter {
    CStatusRecord m_oRecord;
    CBigEndian32 m_aValue[2];
};
static_assert(sizeof(CStatusCounter) == 16);

inline uint64_t number(const CBigEndian32* words) {
    return uint64_t{words[0]} << 32 | words[1];
}

inline void setNumber(CBigEndian32* words, uint64_t value) {
    words[0] = static_cast<uint32_t>(value >> 32);
    words[1] = static_cast<uint32_t>(value);
}

// --- The words ---

// The feature's own states (CFeatureEntry::EFStatus), as they are called everywhere.
inline constexpr std::array<std::string_view, nFeatureStatuses> aFeatureWords = {"newadd", "modify", "active",
                                                                                 "deleted", "existing"};

// What a state of a delivery comes to for whoever looks.
enum class EDeliveryWord { queued, sent, delivered, failed, overdue };

struct SDeliveryState {
    EDeliveryWord m_eWord;
    std::string_view m_sWord; // alone in its column
    std::string_view m_sNext; // what happens next, or has happened for good
};

// By CCompStatus::ECStatus. Where CStatusDelivery::m_nWhy is swNoAnswer, the word for "refused" is "gave up".
inline constexpr std::array<SDeliveryState, nDeliveryStates> aDeliveryStates = {{
    {EDeliveryWord::queued, "queued", "one of the next audits tells it"},
    {EDeliveryWord::sent, "sent", "its answer is awaited for 10 seconds"},
    {EDeliveryWord::delivered, "ok", "it has the feature"},
    {EDeliveryWord::failed, "refused", "it is not told again before the next list"},
    {EDeliveryWord::overdue, "overdue", "one of the next audits tells it again, up to three times"},
    {EDeliveryWord::sent, "disabling", "its answer is awaited for 10 seconds"},
    {EDeliveryWord::delivered, "disabled", "it does not have the feature"},
    {EDeliveryWord::failed, "disable refused", "it is not told again; the feature is withdrawn all the same"},
    {EDeliveryWord::overdue, "disable overdue",
     "it is not told again; the feature is withdrawn all the same"},
    {EDeliveryWord::sent, "modifying", "its answer is awaited for 10 seconds"},
    {EDeliveryWord::delivered, "modified", "it has the new data"},
    {EDeliveryWord::failed, "modify refused", "it is not told again before the next list"},
    {EDeliveryWord::overdue, "modify overdue", "it is not told again before the next list"},
}};

// Causes of transitions, by EDeliveryEvent.
inline constexpr std::array<std::string_view, 13> aCauseWords = {
    "taken in", "told",    "accepted", "refused",  "confirmed", "fetched", "audit",
    "audit",    "overdue", "assumed",  "new list", "left",      "removed"};

// By EListResult.
inline constexpr std::array<std::string_view, 5> aListResultWords = {"none", "taken", "unchanged", "refused",
                                                                     "unreadable"};

// --- Reading ---

// One record of an answer and its text; they lie in the answer.
struct SStatusRecord {
    std::span<const uint8_t> m_aRecord;
    std::string_view m_sText;
};

// The record at the start of `rest`, which is cut off it. Nothing if the bytes are no
// record: the answer is damaged.
inline std::optional<SStatusRecord> takeRecord(std::span<const uint8_t>& rest) {
    const auto head = readBody<CStatusRecord>(rest.data(), rest.size());
    if (head.m_nSize < sizeof head || rest.size() < head.m_nSize ||
        rest.size() - head.m_nSize < head.m_nTextLength) {
        return std::nullopt;
    }
    const SStatusRecord record{
        rest.first(head.m_nSize),
        {reinterpret_cast<const char*>(rest.data()) + head.m_nSize, head.m_nTextLength}};
    rest = rest.subspan(size_t{head.m_nSize} + head.m_nTextLength);
    return record;
}

// What the record holds of a T; fields that it lacks are zero.
template <typename T>
T readRecord(const SStatusRecord& record) {
    return readBody<T>(record.m_aRecord.data(), record.m_aRecord.size());
}

#endif
