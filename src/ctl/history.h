// All transitions that the daemon keeps.
#ifndef QEL_CTL_HISTORY_H
#define QEL_CTL_HISTORY_H

#include "ctl/CDaemonView.h"

#include <vector>

struct SHistory {
    std::vector<STransitionView> m_vAll; // as they are kept, oldest first
    bool m_bWhole = true;                // none was dropped before them
};

EAsked readHistory(CStatusQuery& query, SHistory& history);

#endif
