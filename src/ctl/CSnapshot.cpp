#include "ctl/CSnapshot.h"

EAsked SSnapshot::read(CStatusQuery& query, CDaemonView::EExtent extent) {
    EAsked asked = m_oView.read(query);
    if (asked == EAsked::answered) {
        asked = m_oView.readPairs(query, {}, extent);
    }
    if (asked == EAsked::answered) {
        asked = readListState(query, m_oList);
    }
    if (asked == EAsked::answered) {
        asked = query.askAll(makeQuestion(sqCounters), m_vCounters);
    }
    return asked;
}
