// All that the daemon tells, read once, for those who keep or draw it.
#ifndef QEL_CTL_CSNAPSHOT_H
#define QEL_CTL_CSNAPSHOT_H

#include "ctl/CDaemonView.h"
#include "ctl/list_state.h"

#include <optional>
#include <vector>

struct SSnapshot {
    CDaemonView m_oView;
    std::optional<SListView> m_oList; // nothing: the daemon is too old to tell
    std::vector<SCounterView> m_vCounters;

    // The parts are read one after the other, so a delivery may be of a moment after the counters.
    EAsked read(CStatusQuery& query, CDaemonView::EExtent extent);
};

#endif
