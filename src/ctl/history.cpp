#include "ctl/history.h"

#include "ctl/CTransitions.h"

EAsked readHistory(CStatusQuery& query, SHistory& history) {
    CTransitions transitions(0);
    history = {};
    do {
        if (const EAsked asked = transitions.read(query); asked != EAsked::answered) {
            return asked;
        }
        history.m_bWhole = history.m_bWhole && transitions.lost() == 0;
        history.m_vAll.insert(history.m_vAll.end(), transitions.page().begin(), transitions.page().end());
    } while (transitions.hasMore());
    return EAsked::answered;
}
