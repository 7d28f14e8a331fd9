#include "features/delivery.h"

#include "base/clock.h"
#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "server/log/log.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <span>
#include <string_view>
#include <utility>

using enum CCompStatus::ECStatus;

namespace {

using EFStatus = CFeatureEntry::EFStatus;
using enum CFeatureEntry::EFStatus;

// --- The words that the table is written in ---

// The sets fit into 16 bits: bits 0 to 12 are the states, bit 15 stands for every number that is none of
// them. A record with such a number is out of order, and the table can say so without an undefined shift.
constexpr uint16_t nNoState = 1 << 15;

// A set of states, a bit each.
template <typename... States>
constexpr uint16_t in(States... states) {
    return static_cast<uint16_t>(((1 << states) | ...));
}

constexpr uint16_t bit(CCompStatus::ECStatus status) {
    return status >= csIdle && status <= csModifyTimedOut ? in(status) : nNoState;
}

constexpr uint16_t nAny = UINT16_MAX; // nNoState included
constexpr uint16_t nWaiting = in(csEnabling, csDisabling, csModifying);
constexpr uint16_t nModificationAnswered = in(csModified, csModifyFailed, csModifyTimedOut);
constexpr uint16_t nAnswered = nModificationAnswered | in(csEnabled, csEnableFailed, csEnableTimedOut,
                                                          csDisabled, csDisableFailed, csDisableTimedOut);

constexpr uint8_t nEvery = UINT8_MAX; // whatever the feature's own state is

// Where a row leads that does not name a state. Negative, so they cannot be mistaken for one.
constexpr auto nSame = static_cast<CCompStatus::ECStatus>(-1); // the state stays
// dvNotify decides; then the line, if it sends.
constexpr auto nByNotify = static_cast<CCompStatus::ECStatus>(-2);
// To idle; after the line, the event once more.
constexpr auto nAgain = static_cast<CCompStatus::ECStatus>(-3);
constexpr auto nGone = static_cast<CCompStatus::ECStatus>(-4); // the caller deletes the record

// What must hold besides the states. The tries are those of the record's phase.
enum EIf : uint8_t { ifAlways, ifTriesLeft, ifTriesSpent };

// What is written besides the state. Rows that count or clear stay within a phase, so the counter is that of
// the state they come from as well as of the one they lead to.
enum EWrites : uint8_t {
    wrNothing,
    wrStamp,
    wrStampCount, // one send more
    wrStampClear, // the phase is over: no sends
    wrStampAnew   // no sends in any phase
};

// A line of the log at severity 4; event 0: none. Each letter of m_sFill says what fills the next %s or %d of
// the text: n the component's name, f and t the states from and to, c code, d data, p pending data. Whether
// text and letters agree is checked by the compiler (isSound()).
struct SLine {
    uint32_t m_nEvent = 0;
    std::string_view m_sText;
    std::string_view m_sFill;
};

struct SRow {
    uint8_t m_nFeature; // the feature's own states, a bit each
    uint16_t m_nFrom;   // the record's states, as in() makes them
    EIf m_eIf;
    CCompStatus::ECStatus m_eTo;
    EWrites m_eWrites;
    EOutcome m_eOutcome;
    SLine m_oLine = {};
};

// --- The table ---

// The first row of an event that fits is taken, so the order of rows matters: a row for any state stands last
// and catches what is left. The states that a row starts from are written as numbers, as in
// the log and in docs/architecture.md.

// clang-format off

// feature        from states         if            to                 writes        outcome       line

// A component that came back may still have its record: whatever that says is void. A withdrawn feature
// begins as disabled, so nobody waits for it; the component finds it on no page.
constexpr SRow aTakeIn[] = {
{in(fsDeleted),   nAny,               ifAlways,     csDisabled,        wrStampAnew,  ocTaken,      {31125, "adding new compstatus %s %d at feature %d %d", "nfcd"}},
{nEvery,          nAny,               ifAlways,     csIdle,            wrStampAnew,  ocTaken,      {31125, "adding new compstatus %s %d at feature %d %d", "nfcd"}},
};

// Counts the sends of a phase. Settled states (2, 3, 6, 7, 10, 11) have no row: nothing is sent, or logged,
// until an audit or a list begins a new phase.
constexpr SRow aNotify[] = {
{nEvery,          in(0, 1, 4),        ifTriesLeft,  csEnabling,        wrStampCount, ocSend,       {31126, "feature: check comp %s %d at feature %d %d", "ntcd"}},
{nEvery,          in(0, 1, 4),        ifTriesSpent, csEnableFailed,    wrStampClear, ocRefused,    {31126, "feature: failed comp %s %d at feature %d %d", "ntcd"}},
{nEvery,          in(5, 8),           ifTriesLeft,  csDisabling,       wrStampCount, ocSend,       {31126, "feature: check comp %s %d at feature %d %d", "ntcd"}},
{nEvery,          in(5, 8),           ifTriesSpent, csDisableFailed,   wrStampClear, ocRefused,    {31126, "feature: disable comp %s %d at feature %d %d", "ntcd"}},
{nEvery,          in(9, 12),          ifTriesLeft,  csModifying,       wrStampCount, ocSend,       {31126, "feature: check comp %s %d at feature %d %d", "ntcd"}},
{nEvery,          in(9, 12),          ifTriesSpent, csModifyFailed,    wrStampClear, ocRefused,    {31126, "feature: modify comp %s %d at feature %d %d", "ntcd"}},
{nEvery,          nNoState,           ifTriesSpent, csEnableFailed,    wrStampClear, ocRefused,    {31126, "feature: failed comp %s %d at feature %d %d", "ntcd"}},
{nEvery,          nNoState,           ifTriesLeft,  nAgain,            wrNothing,    ocSend,       {31126, "feature: change state %s %d at feature %d %d", "nfcd"}},
};

// A reply names no feature, so it is offered to one record after the other until a waiting one takes it.
// Those that refuse it leave a line each. Their stamp is renewed, which decides nothing: only waiting records
// can be overdue.
constexpr SRow aAccept[] = {
{nEvery,          in(1),              ifAlways,     csEnabled,         wrStampClear, ocTaken,      {31129, "feature (%d): got reply ok from comp (%s) %d", "cnt"}},
{nEvery,          in(5),              ifAlways,     csDisabled,        wrStampClear, ocTaken,      {31131, "feature (%d): got reply ok disabled comp (%s) %d", "cnt"}},
{nEvery,          in(9),              ifAlways,     csModified,        wrStampClear, ocTaken,      {31131, "feature (%d): got reply ok moded comp (%s) %d", "cnt"}},
{nEvery,          nAny,               ifAlways,     nSame,             wrStamp,      ocRefused,    {31133, "feature (%d): comp (%s) in wrong state %d", "cnt"}},
};

// What a component has refused is not sent again before the next list, and then with a fresh counter.
constexpr SRow aRefuse[] = {
{nEvery,          in(1),              ifAlways,     csEnableFailed,    wrStampClear, ocTaken,      {31130, "feature (%d): got reply failed from comp (%s) %d", "cnt"}},
{nEvery,          in(5),              ifAlways,     csDisableFailed,   wrStampClear, ocTaken,      {31132, "feature (%d): got reply error from comp (%s) %d", "cnt"}},
{nEvery,          in(9),              ifAlways,     csModifyFailed,    wrStampClear, ocTaken,      {31132, "feature (%d): got reply moderr from comp (%s) %d", "cnt"}},
{nEvery,          nAny,               ifAlways,     nSame,             wrStamp,      ocRefused,    {31133, "feature (%d): comp (%s) in wrong state %d", "cnt"}},
};

// Changes nothing but the stamp: what was accepted stays accepted.
constexpr SRow aConfirm[] = {
{nEvery,          in(2),              ifAlways,     nSame,             wrStamp,      ocTaken,      {31137, "feature (%d): replied comp (%s) %d", "cnt"}},
{nEvery,          nAny,               ifAlways,     nSame,             wrNothing,    ocRefused,    {31138, "feature (%d): wrong state comp (%s) %d", "cnt"}},
};

// What a component fetches counts as accepted, without a write reply, even if it had failed before. A
// withdrawn feature is passed over: the component does not get it, so there is nothing to disable.
constexpr SRow aFetch[] = {
{in(fsDeleted),   nAny,               ifAlways,     csDisabled,        wrStamp,      ocRefused,    {31108, "no send, disabled feature (%d, %d) at comp %s", "cdn"}},
{in(fsModify),    nAny,               ifAlways,     csModified,        wrStamp,      ocTaken,      {31108, "moded feature (%d, %d) at comp %s", "cpn"}},
{nEvery,          nAny,               ifAlways,     csEnabled,         wrStamp,      ocTaken,      {31108, "replied feature (%d, %d) at comp %s", "cdn"}},
};

// A push begins a phase from idle or from a settled state, and leaves a waiting record alone. For a settled
// feature dvNotify decides instead, which also repeats what is waiting or has timed out, and counts it. To a
// component that has disabled the feature, the new data is a new feature. Where a feature is withdrawn,
// components in 6 to 8 have been told.
constexpr SRow aAudit[] = {
{in(fsNewAdd),    in(0),              ifAlways,     csEnabling,        wrStamp,      ocNotify,     {31108, "notifying feature (%d, %d) at comp %s", "cdn"}},
{in(fsModify),    in(6, 7),           ifAlways,     csModifying,       wrStamp,      ocNotifyNew,  {31108, "notifying feature (%d, %d) at comp %s", "cpn"}},
{in(fsModify),    in(0, 2, 3),        ifAlways,     csModifying,       wrStamp,      ocModify,     {31108, "modifying feature (%d, %d %d) at comp %s", "cdpn"}},
{in(fsDeleted),   in(0, 2, 3, 10, 11), ifAlways,    csDisabling,       wrStamp,      ocDisable,    {31108, "disabling feature (%d, %d) at comp %s", "cdn"}},
{in(fsActive, fsExisting), nAny,      ifAlways,     nByNotify,         wrNothing,    ocNotify,     {31109, "audit feature (%d, %d) at comp %s", "cdn"}},
};

// As above, with two differences: a component that owes the answer to a modification, or to what came before
// it, is told again as often as its sends allow; and withdrawn features have no
// row, since auditComp() skips them.
constexpr SRow aAuditOne[] = {
{in(fsNewAdd),    in(0),              ifAlways,     csEnabling,        wrStamp,      ocNotify,     {31108, "notifying feature (%d, %d) at comp %s", "cdn"}},
{in(fsModify),    in(6, 7),           ifAlways,     csModifying,       wrStamp,      ocNotifyNew,  {31108, "notifying feature (%d, %d) at comp %s", "cpn"}},
{in(fsModify),    in(0, 2, 3),        ifAlways,     csModifying,       wrStamp,      ocModify,     {31108, "modfiying feature (%d, %d %d) at comp %s", "cdpn"}},
{in(fsModify),    nAny,               ifAlways,     nByNotify,         wrNothing,    ocModifyAgain, {31109, "audit modify feature (%d, %d) at comp %s", "cdn"}},
{in(fsActive, fsExisting), nAny,      ifAlways,     nByNotify,         wrNothing,    ocNotify,     {31109, "audit feature (%d, %d) at comp %s", "cdn"}},
};

// The stamp stays that of the send. An enable goes to a state from which the next notification sends it
// again; a modification fails for good. Either way nobody waits for the component any longer.
constexpr SRow aOverdue[] = {
{nEvery,          in(1),              ifAlways,     csEnableTimedOut,  wrNothing,    ocOverdue,    {31115, "timeout feature %d for comp %s at state %d", "cnf"}},
{nEvery,          in(5),              ifAlways,     csDisableTimedOut, wrNothing,    ocOverdue,    {31115, "timeout feature %d for comp %s at state %d", "cnf"}},
{nEvery,          in(9),              ifAlways,     csModifyFailed,    wrNothing,    ocOverdue,    {31115, "timeout feature %d for comp %s at state %d", "cnf"}},
};

// Into a waiting state without a send, so that the reply that the caller makes up is taken.
constexpr SRow aAssume[] = {
{in(fsDeleted),   nAny,               ifAlways,     csDisabling,       wrNothing,    ocTaken},
{nEvery,          nAny,               ifAlways,     csEnabling,        wrNothing,    ocTaken},
};

constexpr SRow aRemove[] = {
{nEvery,          nAny,               ifAlways,     nGone,             wrNothing,    ocTaken,      {31135, "feature: remove comp %s (%d)", "nf"}},
};

// No line of the log here: the component whose name it would tell may have been deleted already.
constexpr SRow aForget[] = {
{nEvery,          nAny,               ifAlways,     nGone,             wrNothing,    ocTaken},
};

// clang-format on

// The rows of each event. Where none fits, the event is refused without a line. dvReset has none.
constexpr std::span<const SRow> aTable[] = {
    aTakeIn,   aNotify,  aAccept, aRefuse, aConfirm, aFetch,  aAudit,
    aAuditOne, aOverdue, aAssume, {},      aRemove,  aForget,
};
static_assert(std::size(aTable) == nDeliveryEvents, "one for each event, in the order of their numbers");

// --- The line of the log ---

constexpr size_t nMaxLine = 256; // with its NUL

// Every conversion of the text has its letter, of the right kind, and the longest line fits into nMaxLine.
// This is what lets tell() write without a check: a row that broke it would not compile.
constexpr bool isSound(const SLine& line) {
    constexpr size_t nMaxFilled = nNameFieldSize; // a name; a number is shorter
    size_t filled = 0;
    for (size_t at = line.m_sText.find('%'); at != std::string_view::npos;
         at = line.m_sText.find('%', at + 1)) {
        const std::string_view wanted =
            filled < line.m_sFill.size() && line.m_sFill[filled] == 'n' ? "%s" : "%d";
        if (line.m_sText.substr(at, 2) != wanted) {
            return false;
        }
        ++filled;
    }
    return filled == line.m_sFill.size() && line.m_sText.size() + filled * nMaxFilled < nMaxLine;
}

constexpr bool isSound(std::span<const SRow> rows) {
    return std::all_of(rows.begin(), rows.end(), [](const SRow& row) { return isSound(row.m_oLine); });
}
static_assert(std::all_of(std::begin(aTable), std::end(aTable), [](auto rows) { return isSound(rows); }));

// What a line of the log can tell about one step. The record has its new state already.
struct SStep {
    const CFeatureEntry& m_oEntry;
    const CCompStatus& m_oRecord;
    CCompStatus::ECStatus m_eFrom;
};

// Signed, as the %d of the texts demands: codes and data from 2^31 on appear as negative numbers.
int32_t number(char letter, const SStep& step) {
    switch (letter) {
    case 'f':
        return step.m_eFrom;
    case 't':
        return step.m_oRecord.m_eStatus;
    case 'c':
        return static_cast<int32_t>(step.m_oEntry.m_nCode);
    case 'd':
        return static_cast<int32_t>(step.m_oEntry.m_nData);
    default: // 'p'
        return static_cast<int32_t>(step.m_oEntry.m_nNewData);
    }
}

char* put(char letter, const SStep& step, char* at, char* end) {
    if (letter != 'n') {
        return std::to_chars(at, end, number(letter, step)).ptr;
    }
    const std::string_view name = step.m_oRecord.m_pComponent->m_szName;
    return std::copy(name.begin(), name.end(), at);
}

// A step may be logged for each feature and component, so a long list makes many thousands of these lines.
// The text is put together here, which takes a fraction of printf's time. A conversion is two characters,
// hence the second ++i.
void tell(const SLine& line, const SStep& step) {
    if (line.m_nEvent == 0) {
        return;
    }
    char text[nMaxLine];
    char* at = text;
    size_t filled = 0;
    for (size_t i = 0; i < line.m_sText.size(); ++i) {
        if (line.m_sText[i] != '%') {
            *at++ = line.m_sText[i];
        } else {
            at = put(line.m_sFill[filled++], step, at, text + sizeof text);
            ++i;
        }
    }
    *at = '\0';
    const bool isNamed = line.m_sFill.find('n') != line.m_sFill.npos; // else the component may be gone
    logEntry(svInfo, line.m_nEvent, text,
             {isNamed ? step.m_oRecord.m_pComponent->m_szName : "",
              step.m_oEntry.m_nCode,
              step.m_oEntry.m_nData,
              {}});
}

// --- The engine ---

constinit DeliveryWitness pWitness = nullptr;

// The counter of the phase that the record is in. Idle, and a number that is no state, belong to enabling.
template <typename T> // a record, constant or not
auto& triesOf(T& record) {
    if (record.m_eStatus >= csDisabling && record.m_eStatus <= csDisableTimedOut) {
        return record.m_nDisableTries;
    }
    if (record.m_eStatus >= csModifying && record.m_eStatus <= csModifyTimedOut) {
        return record.m_nModifyTries;
    }
    return record.m_nEnableTries;
}

// Asks for one send more than were counted: tries are left for the first three, and spent for the fourth.
bool holds(EIf condition, CCompStatus& record) {
    return condition == ifAlways || (triesOf(record) + 1 <= nMaxTries) == (condition == ifTriesLeft);
}

const SRow* findRow(EDeliveryEvent event, const CFeatureEntry& entry, CCompStatus& record) {
    const uint32_t feature = 1U << entry.m_eStatus;
    const uint16_t from = bit(record.m_eStatus);
    for (const SRow& row : aTable[event]) {
        if ((row.m_nFeature & feature) != 0 && (row.m_nFrom & from) != 0 && holds(row.m_eIf, record)) {
            return &row;
        }
    }
    return nullptr;
}

// The state that the row leads to. A row without one of its own (nSame, nByNotify, nGone) leaves it.
CCompStatus::ECStatus stateAfter(const SRow& row, const CCompStatus& record) {
    return row.m_eTo >= csIdle ? row.m_eTo : row.m_eTo == nAgain ? csIdle : record.m_eStatus;
}

// The counter before the state: triesOf() goes by the state.
void write(const SRow& row, CCompStatus& record) {
    const CCompStatus::ECStatus state = stateAfter(row, record);
    const bool isEntered = state != record.m_eStatus || row.m_eWrites == wrStampAnew;
    const uint32_t now = isEntered || row.m_eWrites != wrNothing ? nowSeconds() : 0;
    if (row.m_eWrites != wrNothing) {
        record.m_tStamp = now;
    }
    if (isEntered) {
        record.m_tEntered = now;
    }
    if (row.m_eWrites == wrStampCount) {
        ++triesOf(record);
    } else if (row.m_eWrites == wrStampClear) {
        triesOf(record) = 0;
    } else if (row.m_eWrites == wrStampAnew) {
        record.m_nEnableTries = record.m_nDisableTries = record.m_nModifyTries = 0;
    }
    record.m_eStatus = state;
}

void witness(EDeliveryEvent event, const SStep& step) {
    if (pWitness != nullptr) {
        pWitness(event, step.m_oEntry, step.m_oRecord, step.m_eFrom);
    }
}

} // namespace

// The engine. Two kinds of rows make it call itself. nByNotify lets dvNotify decide and write first, and then
// adds its own line. nAgain makes the record idle and applies the event once more; idle has rows of its own,
// so that ends there.
//
// The state is written before the line and the witness, as both tell the new one. The witness does not see
// rows that keep the state, and dvNotify has told it already where a row goes by that.
EOutcome deliver(EDeliveryEvent event, const CFeatureEntry& entry, CCompStatus& record) {
    const SRow* row = findRow(event, entry, record);
    if (row == nullptr || (row->m_eTo == nByNotify && deliver(dvNotify, entry, record) == ocRefused)) {
        return ocRefused;
    }
    const SStep step{entry, record, record.m_eStatus};
    write(*row, record);
    tell(row->m_oLine, step);
    if (row->m_eTo != nSame && row->m_eTo != nByNotify) {
        witness(event, step);
    }
    return row->m_eTo == nAgain ? deliver(event, entry, record) : row->m_eOutcome;
}

void resetDelivery(const CFeatureEntry& entry, CCompStatus& record, CCompStatus::ECStatus status) {
    if (record.m_eStatus == status) {
        return;
    }
    const SStep step{entry, record, record.m_eStatus};
    record.m_eStatus = status;
    record.m_tEntered = nowSeconds();
    witness(dvReset, step);
}

uint32_t sendsOf(const CCompStatus& record) {
    return triesOf(record);
}

bool isWaiting(CCompStatus::ECStatus status) {
    return (bit(status) & nWaiting) != 0;
}

bool isAnswered(CCompStatus::ECStatus status) {
    return (bit(status) & nAnswered) != 0;
}

bool isModificationAnswered(CCompStatus::ECStatus status) {
    return (bit(status) & nModificationAnswered) != 0;
}

bool isPending(const CFeatureEntry& entry, const CCompStatus& record) {
    CCompStatus looked = record; // which is only looked at
    const SRow* row = findRow(dvAudit, entry, looked);
    return row != nullptr && (row->m_eTo != nByNotify || findRow(dvNotify, entry, looked) != nullptr);
}

// Stamps are whole seconds, so a reply is overdue from 10 to 11 seconds after the send; the next timeout
// pass, up to 12 seconds later, finds it.
bool isOverdue(const CCompStatus& record) {
    return isWaiting(record.m_eStatus) && nowSeconds() > record.m_tStamp + nReplyTimeout;
}

DeliveryWitness setDeliveryWitness(DeliveryWitness witness) {
    return std::exchange(pWitness, witness);
}
