#include "server/status/status.h"

#include "base/clock.h"
#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/CFeatureSupply.h"
#include "features/CQelControl.h"
#include "features/SListState.h"
#include "features/counters.h"
#include "messaging/endpoint/CMFWServer.h"
#include "messaging/wire/status.h"
#include "server/log/log.h"
#include "server/status/CWalk.h"
#include "server/status/holdings.h"
#include "server/status/recorder.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <unistd.h>
#include <utility>

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::milliseconds;

namespace {

// Pairs of a feature and a component, or features without any, that one answer looks at. It keeps a question
// at a fraction of a turn, however large the table is.
constexpr size_t nMaxVisits = 8192;

// Bytes of a feature's name. A description file may have longer ones, but a page must hold any feature.
constexpr size_t nMaxFeatureName = 1024;

// The language knows these by their numbers alone.
static_assert(nFeatureStatuses == CFeatureEntry::fsExisting + 1);
static_assert(nDeliveryStates == CCompStatus::csModifyTimedOut + 1);
static_assert(aCauseWords.size() == nDeliveryEvents);
static_assert(aListResultWords.size() == lrUnreadable + 1);

constexpr milliseconds nLongestTurn(100); // that says anything about the next turns

struct SLoop {
    uint32_t m_tStarted = 0;
    microseconds m_oWork{0}; // of the turn in hand
    microseconds m_oLatest{0};
    microseconds m_oBusiest{0};
    std::chrono::steady_clock::time_point m_oLastTurn;
    milliseconds m_oUntilPass{0};
};
constinit SLoop oLoop = {};

constinit const CFeatureSupply* pSupply = nullptr;

// --- An answer in the making ---

class CPage {
public:
    // False where there is no room for the record any more, or no memory.
    template <typename T>
    bool add(T record, std::string_view text = {}) {
        record.m_oRecord = {sizeof record, static_cast<uint32_t>(text.size())};
        if (m_pBytes == nullptr || nMaxStatusAnswer - m_nLength < sizeof record + text.size()) {
            return false;
        }
        append(&record, sizeof record);
        append(text.data(), text.size());
        m_oAnswer.m_nCount = m_oAnswer.m_nCount + 1;
        return true;
    }

    // Not by CMFWServer, which logs each message.
    void send(uint32_t handle) {
        if (m_pBytes == nullptr) {
            return;
        }
        std::memcpy(body(), &m_oAnswer, sizeof m_oAnswer);
        const auto* message = reinterpret_cast<const sOvuMfwMessage*>(m_pBytes.get());
        count(coStatusAnswers);
        if (OvuMfwSendMessage(handle, nQelStatusMfwMsgId, 0, message, static_cast<uint32_t>(m_nLength)) !=
            0) {
            count(coSendErrors);
        }
    }

    CStatusAnswer m_oAnswer;

private:
    void append(const void* bytes, size_t size) {
        if (size != 0) {
            std::memcpy(body() + m_nLength, bytes, size);
            m_nLength += size;
        }
    }
    uint8_t* body() { return m_pBytes.get() + OVU_MFW_DATA_OFFSET; }

    std::unique_ptr<uint8_t[]> m_pBytes{new (std::nothrow) uint8_t[OVU_MFW_DATA_OFFSET + nMaxStatusAnswer]()};
    size_t m_nLength = sizeof(CStatusAnswer);
};

template <size_t N>
void setName(char (&field)[N], std::string_view name) {
    name.copy(field, N);
}

EDeliveryWord wordOf(const CCompStatus& record) {
    const auto state = static_cast<size_t>(record.m_eStatus);
    return state < aDeliveryStates.size() ? aDeliveryStates[state].m_eWord : EDeliveryWord::queued;
}

SIdentity identityOfComponent(const CComponent& comp) {
    return {{comp.m_oHeader.m_nHandle, comp.m_nProcessId}, false};
}

// --- The questions ---

struct SQuestion {
    CStatusQuestion m_oWords;
    const CQelControl& m_oControl;

    bool has(EStatusFilter filter) const { return (m_oWords.m_nFilter & filter) != 0; }
    bool isMeant(const CFeatureEntry& entry) const {
        return !has(sfCode) || entry.m_nCode == m_oWords.m_nCode;
    }
    bool isMeant(const CCompStatus& record) const {
        if ((has(sfOpen) && wordOf(record) == EDeliveryWord::delivered) ||
            (has(sfFailed) && wordOf(record) != EDeliveryWord::failed)) {
            return false;
        }
        return !has(sfComponent) || record.m_pComponent->m_szName == fieldText(m_oWords.m_szComponent);
    }
};

void summarise(const SQuestion& question, CPage& page) {
    CStatusSummary summary;
    summary.m_nProcessId = static_cast<uint32_t>(getpid());
    summary.m_tStarted = oLoop.m_tStarted;
    summary.m_tNow = nowSeconds();
    const auto& components = question.m_oControl.components().m_vItems;
    summary.m_nComponents = static_cast<uint32_t>(std::count_if(
        components.begin(), components.end(), [](const auto* comp) { return comp != nullptr; }));
    for (const CFeatureEntry* entry : question.m_oControl.features().m_vItems) {
        if (entry != nullptr) {
            CBigEndian32& ofStatus = summary.m_aFeatures[entry->m_eStatus];
            ofStatus = ofStatus + 1;
        }
    }
    setNumber(summary.m_aLastTransition, lastStep());
    summary.m_nLatestTurn = static_cast<uint32_t>(oLoop.m_oLatest.count());
    summary.m_nBusiestTurn = static_cast<uint32_t>(oLoop.m_oBusiest.count());
    summary.m_nNextPass = static_cast<uint32_t>(oLoop.m_oUntilPass.count());
    page.add(summary, QEL_VERSION);
}

// Tells of the entries of a table, one page of them. tell() is given an entry, how many parts of it were told
// before, and the visits so far. It raises both, and returns whether nothing of the entry is left.
template <typename T, typename Tell>
void tellTable(const CArray<T*>& table, SIdentity (*identity)(const T&), const SQuestion& question,
               CPage& page, Tell tell) {
    CWalk<T> walk(table, question.m_oWords.m_oCursor, identity);
    if (walk.isLost()) {
        page.m_oAnswer.m_nResult = srChanged;
        return;
    }
    size_t visits = 0;
    while (const T* entry = walk.next()) {
        size_t part = walk.part();
        if (visits >= nMaxVisits || !tell(*entry, part, visits)) {
            page.m_oAnswer.m_nMore = 1;
            if (part != 0) {
                walk.told(*entry, static_cast<uint32_t>(part));
            }
            break;
        }
        walk.told(*entry, nWhole);
    }
    page.m_oAnswer.m_oCursor = walk.cursor();
}

void tellComponents(const SQuestion& question, CPage& page) {
    const auto tell = [&page](const CComponent& comp, size_t&, size_t&) {
        CStatusComponent record;
        setName(record.m_szName, comp.m_szName);
        record.m_nProcessId = comp.m_nProcessId;
        record.m_nHandle = comp.m_oHeader.m_nHandle;
        record.m_nMonitors = comp.m_bMonitor;
        record.m_tHeard = comp.m_tHeard;
        record.m_tDead = comp.m_tDead;
        record.m_nReply = comp.m_nReplyStatus;
        return page.add(record, comp.m_szReplyText);
    };
    tellTable(question.m_oControl.components(), identityOfComponent, question, page, tell);
}

// The texts of a feature: its name, and whom it concerns, a NUL between each. Where there is no memory for
// them the feature is told without.
std::string textsOf(const CFeatureEntry& entry) try {
    std::string texts(std::string_view(entry.m_sName.c_str()).substr(0, nMaxFeatureName));
    for (const char* name : entry.m_vCompNames) {
        texts += '\0';
        texts += name;
    }
    return texts;
} catch (const std::bad_alloc&) {
    return {};
}

void tellFeatures(const SQuestion& question, CPage& page) {
    const auto tell = [&](const CFeatureEntry& entry, size_t&, size_t& visits) {
        ++visits;
        if (!question.isMeant(entry)) {
            return true;
        }
        CStatusFeature record;
        record.m_nCode = entry.m_nCode;
        record.m_nData = entry.m_nData;
        record.m_nNewData = entry.m_nNewData;
        record.m_nStatus = static_cast<uint32_t>(entry.m_eStatus);
        record.m_nSourced = entry.m_bSourced;
        record.m_nLeaving = entry.isLeaving() ? 1 : 0;
        return page.add(record, textsOf(entry));
    };
    tellTable(question.m_oControl.features(), identityOf, question, page, tell);
}

// Shows each record of an entry that is meant to `show`, from `part` on, but each once: one that stands in
// two slots is shown at the first. False if not all could be shown in this page.
template <typename Show>
bool showRecords(const SQuestion& question, const CFeatureEntry& entry, size_t& part, size_t& visits,
                 Show show) {
    const auto& records = entry.m_vCompStatus;
    for (++visits; part < records.size() && question.isMeant(entry); ++part, ++visits) {
        const auto slot = records.begin() + static_cast<ptrdiff_t>(part);
        if (std::find(records.begin(), slot, *slot) != slot || !question.isMeant(**slot)) {
            continue;
        }
        if (visits >= nMaxVisits || !show(**slot)) {
            return false;
        }
    }
    return true;
}

bool tellDelivery(const CFeatureEntry& entry, const CCompStatus& record, CPage& page) {
    CStatusDelivery told;
    told.m_nCode = entry.m_nCode;
    told.m_nData = entry.m_nData;
    told.m_nNewData = entry.m_nNewData;
    told.m_nFeatureStatus = static_cast<uint32_t>(entry.m_eStatus);
    told.m_nState = static_cast<uint32_t>(record.m_eStatus);
    told.m_nSends = sendsOf(record);
    told.m_tSince = record.m_tEntered;
    told.m_tLast = record.m_tStamp;
    told.m_nMonitors = record.m_pComponent->m_bMonitor;
    setName(told.m_szComponent, record.m_pComponent->m_szName);
    if (wordOf(record) != EDeliveryWord::failed) {
        return page.add(told);
    }
    const auto* reason = recordedReason(entry.m_nCode, entry.m_nData, record.m_pComponent->m_szName);
    told.m_nWhy = reason != nullptr ? reason->m_eWhy : swNotKept;
    told.m_nSends = reason != nullptr ? reason->m_nSends : 0;
    return page.add(told, reason != nullptr ? reason->m_szText : "");
}

void tellDeliveries(const SQuestion& question, CPage& page) {
    const auto tell = [&](const CFeatureEntry& entry, size_t& part, size_t& visits) {
        return showRecords(question, entry, part, visits,
                           [&](const CCompStatus& record) { return tellDelivery(entry, record, page); });
    };
    tellTable(question.m_oControl.features(), identityOf, question, page, tell);
}

void tally(const SQuestion& question, CPage& page) {
    std::array<uint32_t, nDeliveryStates> counts = {};
    const auto tell = [&](const CFeatureEntry& entry, size_t& part, size_t& visits) {
        return showRecords(question, entry, part, visits, [&](const CCompStatus& record) {
            const auto state = static_cast<size_t>(record.m_eStatus);
            counts[state < counts.size() ? state : size_t{CCompStatus::csIdle}]++;
            return true;
        });
    };
    tellTable(question.m_oControl.features(), identityOf, question, page, tell);
    if (page.m_oAnswer.m_nResult != srOk) {
        return;
    }
    CStatusTally record;
    std::copy(counts.begin(), counts.end(), record.m_aDeliveries);
    page.add(record);
}

bool addTransition(uint64_t number, CPage& page) {
    const SRecordedStep& step = recordedStep(number);
    const SRecordedReason* reason = recordedReason(step);
    CStatusTransition record;
    setNumber(record.m_aNumber, number);
    record.m_tSeconds = step.m_oTime.m_tSeconds;
    record.m_nMicroseconds = step.m_oTime.m_nMicroseconds;
    record.m_nCode = step.m_nCode;
    record.m_nData = step.m_nData;
    record.m_nFrom = step.m_nFrom;
    record.m_nTo = step.m_nTo;
    record.m_nCause = step.m_nCause;
    setName(record.m_szComponent, step.m_szComponent);
    record.m_nWhy = reason != nullptr ? reason->m_eWhy : step.m_nReason != 0 ? swNotKept : swNone;
    return page.add(record, reason != nullptr ? reason->m_szText : "");
}

// After a number that is yet to come the asker has seen another daemon's: to it, all that there is is new.
void tellTransitions(const SQuestion& question, CPage& page) {
    uint64_t next = number(question.m_oWords.m_oCursor.m_aWords) + 1;
    if (next < firstStep() || next > lastStep() + 1) {
        page.m_oAnswer.m_nResult = srGap;
        next = firstStep();
    }
    while (next <= lastStep() && addTransition(next, page)) {
        ++next;
    }
    page.m_oAnswer.m_nMore = next <= lastStep() ? 1 : 0;
    setNumber(page.m_oAnswer.m_oCursor.m_aWords, next - 1);
}

// Where there is no memory for them the list is told without.
std::string textsOf(const SListState& list) try {
    const std::string& errors = list.m_oLatest.m_sErrors;
    return errors.empty() ? list.m_sPath : list.m_sPath + '\0' + errors;
} catch (const std::bad_alloc&) {
    return {};
}

void tellList(const SQuestion&, CPage& page) {
    CStatusList record;
    if (pSupply == nullptr) {
        page.add(record);
        return;
    }
    const SListState& list = pSupply->state();
    const SListReading& inForce = list.m_oInForce;
    const SListReading& latest = list.m_oLatest;
    record.m_nInForce = inForce.m_eResult != lrNone;
    record.m_tLoaded = list.m_tHandedOver;
    record.m_nKept = inForce.m_bKept;
    setNumber(record.m_aDigest, inForce.m_nDigest);
    record.m_nSize = inForce.m_nSize;
    record.m_nFeatures = inForce.m_nFeatures;
    record.m_nBefore = inForce.m_nBefore;
    record.m_nWithdrawn = inForce.m_nWithdrawn;
    record.m_nMuch = inForce.m_bMuch;
    record.m_tRead = latest.m_tRead;
    record.m_nResult = latest.m_eResult;
    setNumber(record.m_aReadDigest, latest.m_nDigest);
    record.m_nReadSize = latest.m_nSize;
    record.m_nErrors = latest.m_nErrors;
    record.m_nVerified = inForce.m_oSeal.m_bVerified;
    setNumber(record.m_aSerial, inForce.m_oSeal.m_nSerial);
    setName(record.m_szKeyId, fieldText(inForce.m_oSeal.m_szKeyId));
    setName(record.m_szSigner, fieldText(inForce.m_oSeal.m_szSigner));
    page.add(record, textsOf(list));
}

void tellCounters(const SQuestion&, CPage& page) {
    for (size_t i = 0; i < nCounters; ++i) {
        CStatusCounter record;
        setNumber(record.m_aValue, aCounters[i]);
        page.add(record, aCounterNames[i]);
    }
}

struct SRow {
    EStatusQuestion m_eQuestion;
    void (*m_fnAnswer)(const SQuestion& question, CPage& page);
};

constexpr SRow aQuestions[] = {
    {sqSummary, summarise},
    {sqComponents, tellComponents},
    {sqFeatures, tellFeatures},
    {sqDeliveries, tellDeliveries},
    {sqTransitions, tellTransitions},
    {sqCounters, tellCounters},
    {sqTally, tally},
    {sqList, tellList},
    {sqHoldings, tellHoldings},
    {sqHeld, tellHoldings},
};

void endWork(std::chrono::steady_clock::time_point now) {
    if (const auto began = std::exchange(oWorkBegan, {}); began != decltype(began){}) {
        oLoop.m_oWork += duration_cast<microseconds>(now - began);
    }
}

} // namespace

SIdentity identityOf(const CFeatureEntry& entry) {
    return {entry.id(), entry.isLeaving()};
}

// The answer goes to the sender that the framework names, so nobody can have it sent to another. A peer that
// does not take it loses it; it asks again if it wants to.
void answerStatus(uint16_t, uint32_t, const sOvuMfwMessage* message, uint32_t length) {
    const CQelControl* control = CQelControl::instance();
    if (message == nullptr || control == nullptr) {
        return;
    }
    beginWork();
    count(coStatusQuestions);
    const SQuestion question{readBody<CStatusQuestion>(message->data, length), *control};
    CPage page;
    page.m_oAnswer.m_nQuestion = question.m_oWords.m_nQuestion;
    page.m_oAnswer.m_nTag = question.m_oWords.m_nTag;
    const auto* row = std::find_if(std::begin(aQuestions), std::end(aQuestions), [&](const SRow& candidate) {
        return candidate.m_eQuestion == question.m_oWords.m_nQuestion;
    });
    if (question.m_oWords.m_nVersion != nStatusVersion || row == std::end(aQuestions)) {
        page.m_oAnswer.m_nResult = srUnknown;
    } else {
        row->m_fnAnswer(question, page);
    }
    page.send(readBody<CBigEndian32>(message->sender, sizeof message->sender));
}

void startAnswering(CMFWServer& endpoint, const CFeatureSupply* supply) {
    pSupply = supply;
    if (oLoop.m_tStarted == 0) {
        oLoop.m_tStarted = nowSeconds();
    }
    startRecording();
    if (endpoint.addCallback(nQelStatusMfwMsgId, answerStatus) != 0) {
        logEvent(svWarning, 31002, "failed to add message Callback.");
    }
}

// Work is the passes and the message; a turn without them has none. Where the system gives the processor to
// others meanwhile, that counts too: whoever waits for the loop waits for it as well. The time until the next
// audit goes by the length of the latest turn, waits included.
[[gnu::hot]] void noteTurn(uint32_t turnsLeft) {
    const auto now = std::chrono::steady_clock::now();
    endWork(now);
    oLoop.m_oLatest = std::exchange(oLoop.m_oWork, microseconds(0));
    oLoop.m_oBusiest = std::max(oLoop.m_oBusiest, oLoop.m_oLatest);
    const auto length = duration_cast<milliseconds>(now - std::exchange(oLoop.m_oLastTurn, now));
    oLoop.m_oUntilPass = std::min(length, nLongestTurn) * turnsLeft;
}

// A process id says nothing where the component announced none. To ask costs a system call
// each, once in an audit.
void notePass() {
    const CQelControl* control = CQelControl::instance();
    if (control == nullptr) {
        return;
    }
    for (CComponent* comp : control->components().m_vItems) {
        if (comp == nullptr || comp->m_nProcessId == 0) {
            continue;
        }
        const bool isGone = kill(static_cast<pid_t>(comp->m_nProcessId), 0) != 0 && errno == ESRCH;
        if (!isGone) {
            comp->m_tDead = 0;
        } else if (comp->m_tDead == 0) {
            comp->m_tDead = nowSeconds();
        }
    }
    endWork(std::chrono::steady_clock::now());
}
