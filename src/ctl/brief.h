// What qelctl status reads where much is under way.
#ifndef QEL_CTL_BRIEF_H
#define QEL_CTL_BRIEF_H

#include "ctl/CDaemonView.h"
#include "ctl/pairs.h"

#include <optional>

// Each page of an answer takes a turn of the daemon's loop, and while many components are busy with it, a turn
// for each of them as well. Where more deliveries are under way than anybody reads lines of, this counts them,
// and reads those alone that have failed, into the view's pairs. `counts` is empty after `answered` where that
// is not so, or the tables are small; then the view has to be read as usual.
EAsked readBrief(CStatusQuery& query, CDaemonView& view, std::optional<SPairCounts>& counts);

#endif
