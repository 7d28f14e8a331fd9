#include "ctl/CStatusQuery.h"

#include "ctl/commands.h"
#include "ctl/terminal.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

CStatusQuery* CStatusQuery::m_pAsking = nullptr;

int reportAsked(EAsked asked) {
    switch (asked) {
    case EAsked::answered:
        return exitOk;
    case EAsked::noEndpoint:
        complain("no endpoint on the message framework");
        return exitFailed;
    case EAsked::noDaemon:
        complain("the daemon is not running");
        return exitNoDaemon;
    case EAsked::noAnswer:
        complain(
            "the daemon does not answer; one that is older than this program does not know the question");
        return exitNoDaemon;
    case EAsked::damaged:
        complain("the daemon's answer is damaged");
        return exitFailed;
    case EAsked::unknown:
        complain("the daemon is older than this program and does not know the question");
        return exitFailed;
    case EAsked::changing:
        complain("the daemon's tables change faster than they can be read; try again");
        return exitNotYet;
    }
    return exitFailed;
}

void CReadingProgress::show(size_t records, size_t expected) {
    ++m_nPages;
    if (std::chrono::steady_clock::now() - m_tBegun >= std::chrono::seconds(1)) {
        m_oLine.show(expected == 0 ? fmt::format("reading page {}", m_nPages)
                                   : fmt::format("reading {} of {} deliveries", records, expected));
    }
}

CStatusQuery::CStatusQuery(std::chrono::milliseconds timeout) : m_tTimeout(timeout) {
    m_pAsking = this;
}

// Clean-up is harmless where nothing was opened (mfw.h).
CStatusQuery::~CStatusQuery() {
    m_pAsking = nullptr;
    OvuMfwCleanup();
}

EAsked CStatusQuery::askPage(CStatusQuestion question, SStatusPage& page) {
    EAsked asked = prepare();
    if (asked != EAsked::answered) {
        return asked;
    }
    question.m_nTag = ++m_nTag;
    m_nQuestion = question.m_nQuestion;
    m_bAnswered = false;
    if (!send(question)) {
        // Its queue is full, or it has gone.
        const uint32_t before = m_nDaemon;
        return lookUp() && m_nDaemon == before ? EAsked::noAnswer : EAsked::noDaemon;
    }
    asked = await();
    if (asked == EAsked::answered) {
        page = std::move(m_oPage);
    }
    return asked;
}

bool CStatusQuery::lookUp() {
    if (OvuMfwGetProcessHandle("qelserver", &m_nDaemon) != 0) {
        m_nDaemon = nNoHandle;
    }
    return m_nDaemon != nNoHandle;
}

// A look-up asks about every process that has an endpoint, so a daemon that was found is asked again without
// one: sending fails where it has gone.
EAsked CStatusQuery::prepare() {
    if (m_nDaemon == nNoHandle && !lookUp()) {
        return EAsked::noDaemon;
    }
    if (!m_bOpen) {
        m_bOpen = OvuMfwInitialize() == 0 && OvuMfwRegisterCallback(nQelStatusMfwMsgId, cbReceive) == 0;
    }
    return m_bOpen ? EAsked::answered : EAsked::noEndpoint;
}

bool CStatusQuery::send(const CStatusQuestion& question) {
    sOvuMfwMessage message = {};
    static_assert(sizeof question <= sizeof message.data);
    std::memcpy(message.data, &question, sizeof question);
    return OvuMfwSendMessage(m_nDaemon, nQelStatusMfwMsgId, 0, &message, sizeof question) == 0;
}

EAsked CStatusQuery::await() {
    using CClock = std::chrono::steady_clock;
    const auto deadline = CClock::now() + m_tTimeout;
    auto nextLookup = CClock::now() + tLookup;
    while (!m_bAnswered) {
        const auto now = CClock::now();
        if (now >= deadline) {
            return EAsked::noAnswer;
        }
        if (now >= nextLookup) {
            const uint32_t asked = m_nDaemon;
            if (!lookUp() || m_nDaemon != asked) {
                return EAsked::noDaemon;
            }
            nextLookup = now + tLookup;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(std::min(deadline, nextLookup) - now);
        // The result does not matter: an error waits out its time as well, so this cannot spin (mfw.h).
        OvuMfwProcessNextMessage(static_cast<uint32_t>(left.count()));
    }
    return judge();
}

// The header counts its records and names its question; what does not fit together is no answer.
EAsked CStatusQuery::judge() {
    SStatusPage& page = m_oPage;
    if (page.m_vBytes.size() < sizeof page.m_oHead || page.m_oHead.m_nQuestion != m_nQuestion) {
        return EAsked::damaged;
    }
    if (page.m_oHead.m_nResult == srUnknown) {
        return EAsked::unknown;
    }
    page.m_vRecords.clear();
    auto rest = std::span<const uint8_t>(page.m_vBytes).subspan(sizeof page.m_oHead);
    while (page.m_vRecords.size() < page.m_oHead.m_nCount) {
        const auto record = takeRecord(rest);
        if (!record) {
            return EAsked::damaged;
        }
        page.m_vRecords.push_back(*record);
    }
    return page.m_oHead.m_nResult <= srGap ? EAsked::answered : EAsked::damaged;
}

// A page may be empty, where the filter let nothing pass within the time of a turn. But the cursor moves on.
CStatusQuery::EPaging CStatusQuery::next(CStatusQuestion& question, const SStatusPage& page) {
    if (page.m_oHead.m_nResult == srChanged) {
        return EPaging::anew;
    }
    if (page.m_oHead.m_nMore == 0) {
        return EPaging::done;
    }
    const bool isStill =
        std::memcmp(&question.m_oCursor, &page.m_oHead.m_oCursor, sizeof(CStatusCursor)) == 0;
    question.m_oCursor = page.m_oHead.m_oCursor;
    return isStill ? EPaging::damaged : EPaging::more;
}

void CStatusQuery::cbReceive(uint16_t, uint32_t, const sOvuMfwMessage* message, uint32_t length) {
    if (message && m_pAsking) {
        m_pAsking->take(*message, length);
    }
}

void CStatusQuery::take(const sOvuMfwMessage& message, uint32_t length) {
    const auto head = readBody<CStatusAnswer>(message.data, length);
    CBigEndian32 sender;
    std::memcpy(static_cast<void*>(&sender), message.sender, sizeof sender);
    if (sender != m_nDaemon || head.m_nTag != m_nTag || m_bAnswered) {
        return;
    }
    m_oPage.m_oHead = head;
    m_oPage.m_vBytes.assign(message.data, message.data + length);
    m_bAnswered = true;
}
