// Asks the daemon in the language for looking (messaging/wire/status.h).
#ifndef QEL_CTL_CSTATUSQUERY_H
#define QEL_CTL_CSTATUSQUERY_H

#include "ctl/terminal.h"
#include "messaging/wire/status.h"
#include "platform/mfw.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

// How asking can end.
enum class EAsked {
    answered,
    noEndpoint, // this process gets no place on the message framework
    noDaemon,   // there is none, or it went while its answer was awaited
    noAnswer,   // in time
    damaged,    // the answer is none
    unknown,    // the daemon does not know the question
    changing    // its tables changed faster than they could be read
};

// Tells on stderr what went wrong, and returns the exit status for it; `answered` is exitOk, and tells nothing.
int reportAsked(EAsked asked);

// A record of an answer with the text that belongs to it, by itself.
template <typename T>
struct TStatus : T {
    std::string m_sText;
};

// One answer. The records lie in the bytes.
struct SStatusPage {
    CStatusAnswer m_oHead;
    std::vector<uint8_t> m_vBytes;
    std::vector<SStatusRecord> m_vRecords;
};

// Of one reading of a table.
class CReadingProgress {
public:
    void show(size_t records, size_t expected);

private:
    std::chrono::steady_clock::time_point m_tBegun = std::chrono::steady_clock::now();
    size_t m_nPages = 0;
    CProgressLine m_oLine;
};

// Opens this process's endpoint with the first question and closes it at its own end. A process has one
// endpoint, so there is one query at a time, and no COamQuery beside it. Takes no component's name.
//
// Only the process that was asked can answer, by the framework's word. A daemon that dies meanwhile is
// noticed within half a second.
class CStatusQuery {
public:
    // `timeout` is the time that each answer may take.
    explicit CStatusQuery(std::chrono::milliseconds timeout);
    ~CStatusQuery();
    CStatusQuery(const CStatusQuery&) = delete;
    CStatusQuery& operator=(const CStatusQuery&) = delete;

    // Asks once. The page is valid after `answered` only; its result is srOk, srChanged or srGap. After
    // noDaemon, handle() is that of a daemon that has come in its place, which the next question goes to.
    EAsked askPage(CStatusQuestion question, SStatusPage& page);
    // Asks until there is no more, anew where the daemon says that its table has changed, or where it was
    // restarted. `records` is filled after `answered`, else empty. Not for transitions, whose gaps it hides.
    // A terminal shows how far it is, where it takes long: of `expected` records, if that is not 0.
    template <typename T>
    EAsked askAll(CStatusQuestion question, std::vector<TStatus<T>>& records, size_t expected = 0);

    // The daemon; nNoHandle if none is known. Another number is another process.
    uint32_t handle() const { return m_nDaemon; }
    // How many questions were put so far.
    uint32_t asked() const { return m_nTag; }

private:
    static constexpr std::chrono::milliseconds tLookup{500};
    static constexpr int nMaxBeginnings = 5; // of one reading

    enum class EPaging { more, done, anew, damaged };
    bool isReplaced(EAsked asked) const { return asked == EAsked::noDaemon && m_nDaemon != nNoHandle; }
    static EPaging next(CStatusQuestion& question, const SStatusPage& page);
    bool lookUp();
    EAsked prepare();
    bool send(const CStatusQuestion& question);
    EAsked await();
    EAsked judge();
    void take(const sOvuMfwMessage& message, uint32_t length);
    static void cbReceive(uint16_t type, uint32_t id, const sOvuMfwMessage* message, uint32_t length);

    static CStatusQuery* m_pAsking; // gets the framework's callbacks, which carry no pointer of ours

    std::chrono::milliseconds m_tTimeout;
    bool m_bOpen = false;
    uint32_t m_nDaemon = nNoHandle;
    uint32_t m_nTag = 0; // of the latest question; a late answer to an earlier one has another
    uint32_t m_nQuestion = 0;
    bool m_bAnswered = false;
    SStatusPage m_oPage; // of the latest answer
};

template <typename T>
EAsked CStatusQuery::askAll(CStatusQuestion question, std::vector<TStatus<T>>& records, size_t expected) {
    const CStatusQuestion first = question;
    SStatusPage page;
    records.clear();
    CReadingProgress progress;
    for (int beginnings = 1; beginnings <= nMaxBeginnings;) {
        const EAsked asked = askPage(question, page);
        const EPaging paging = asked == EAsked::answered ? next(question, page)
                               : isReplaced(asked)       ? EPaging::anew
                                                         : EPaging::damaged;
        if (paging == EPaging::damaged || paging == EPaging::anew) {
            records.clear();
        }
        if (paging == EPaging::damaged) {
            return asked == EAsked::answered ? EAsked::damaged : asked;
        }
        if (paging == EPaging::anew) {
            question = first;
            ++beginnings;
            continue;
        }
        for (const SStatusRecord& record : page.m_vRecords) {
            records.push_back({readRecord<T>(record), std::string(record.m_sText)});
        }
        progress.show(records.size(), expected);
        if (paging == EPaging::done) {
            return EAsked::answered;
        }
    }
    return EAsked::changing;
}

#endif
