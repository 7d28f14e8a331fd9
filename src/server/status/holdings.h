// Answers the questions of messaging/wire/holdings.h, a page at a time.
#ifndef QEL_STATUS_HOLDINGS_H
#define QEL_STATUS_HOLDINGS_H

#include "messaging/wire/holdings.h"
#include "server/status/CWalk.h"

#include <cstddef>

class CComponent;
class CFeatureEntry;
class CQelControl;

// A walk over the table from the question's cursor on, for one page (CWalk.h).
//
// Looks at so much as takes a fraction of a turn. Logs nothing, takes no memory, does not throw. On the main
// loop's thread, within one message.
class CHoldingsWalk {
public:
    CHoldingsWalk(const CStatusQuestion& question, const CQelControl& control);

    bool isLost() const { return m_oWalk.isLost(); }
    // Moves on to the next pair in force that is meant and fills in what it comes to. False: the page or the
    // table is at its end. told() is called where there was room for it.
    bool next(CStatusHeld& held);
    void told() { m_oWalk.told(*m_pEntry, nWhole); }
    // What was counted in this page.
    const CStatusHoldings& sum() const { return m_oSum; }

    bool hasMore() const { return !m_bDone; }
    const CStatusCursor& cursor() const { return m_oWalk.cursor(); }

private:
    bool judge(const CFeatureEntry& entry, CStatusHeld& held);

    const CStatusQuestion& m_rQuestion;
    const CComponent* m_pComponent;
    CWalk<CFeatureEntry> m_oWalk;
    CStatusHoldings m_oSum;
    const CFeatureEntry* m_pEntry = nullptr; // that next() has come to
    size_t m_nVisits = 0;
    bool m_bDone = false; // nothing is left of the table
};

// As a row of the table of questions wants it, with that table's page.
template <typename Question, typename Page>
void tellHoldings(const Question& question, Page& page) {
    CHoldingsWalk walk(question.m_oWords, question.m_oControl);
    if (walk.isLost()) {
        page.m_oAnswer.m_nResult = srChanged;
        return;
    }
    const bool isSum = question.m_oWords.m_nQuestion == sqHoldings;
    CStatusHeld held;
    while (walk.next(held)) {
        if (!isSum && !page.add(held)) {
            break;
        }
        walk.told();
    }
    if (isSum) {
        page.add(walk.sum());
    }
    page.m_oAnswer.m_nMore = walk.hasMore() ? 1 : 0;
    page.m_oAnswer.m_oCursor = walk.cursor();
}

#endif
