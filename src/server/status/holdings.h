// Answers the questions of messaging/wire/holdings.h, a page at a time.
#ifndef QEL_STATUS_HOLDINGS_H
#define QEL_STATUS_HOLDINGS_H

#include "messaging/wire/holdings.h"

#include <cstddef>

class CComponent;
class CFeatureEntry;
class CQelControl;

// A walk over the table from the question's cursor on, for one page. The table may change between two pages.
// Entries in force keep their order, and new ones come at the end, so the entry at the cursor is found at its
// place or before it; where it is gone, or has other data, the asker must begin anew. Those that leave move: of
// them some may be counted twice as under way, after which the asker asks again anyway.
//
// Looks at so much as takes a fraction of a turn. Logs nothing, takes no memory, does not throw. On the main
// loop's thread, within one message.
class CHoldingsWalk {
public:
    CHoldingsWalk(const CStatusQuestion& question, const CQelControl& control);

    bool isLost() const { return m_bLost; }
    // Moves on to the next pair in force that is meant and fills in what it comes to. False: the page or the
    // table is at its end. untell() moves back by the one told last, which found no room.
    bool next(CStatusHeld& held);
    void untell();
    // What was counted in this page.
    const CStatusHoldings& sum() const { return m_oSum; }

    bool hasMore() const;
    CStatusCursor cursor() const;

private:
    bool judge(const CFeatureEntry& entry, CStatusHeld& held);

    const CStatusQuestion& m_rQuestion;
    const CQelControl& m_rControl;
    const CComponent* m_pComponent;
    CStatusHoldings m_oSum;
    size_t m_nNext = 0; // position in the table
    size_t m_nVisits = 0;
    bool m_bLost = false;
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
            walk.untell();
            break;
        }
    }
    if (isSum) {
        page.add(walk.sum());
    }
    page.m_oAnswer.m_nMore = walk.hasMore() ? 1 : 0;
    page.m_oAnswer.m_oCursor = walk.cursor();
}

#endif
