// Reads the daemon's record of transitions, page by page, and tells where something is missing.
#ifndef QEL_CTL_CTRANSITIONS_H
#define QEL_CTL_CTRANSITIONS_H

#include "ctl/CDaemonView.h"

#include <cstdint>
#include <vector>

class CTransitions {
public:
    // `after` is the number of the transition after which to begin; 0: with the oldest that is kept.
    explicit CTransitions(uint64_t after) : m_nLast(after) {}

    // Reads the next page. What has been read before stays as it is where this does not answer.
    EAsked read(CStatusQuery& query);
    // The daemon is another one: begins with its first.
    void restart() { *this = CTransitions(0); }

    // Of the latest page:
    const std::vector<STransitionView>& page() const { return m_vPage; }
    bool hasMore() const { return m_bMore; }
    uint64_t lost() const { return m_nLost; }         // how many before the page are no longer kept
    bool isRestarted() const { return m_bRestarted; } // the numbers went back: another daemon counts them

private:
    uint64_t m_nLast;
    std::vector<STransitionView> m_vPage;
    bool m_bMore = false;
    uint64_t m_nLost = 0;
    bool m_bRestarted = false;
};

#endif
