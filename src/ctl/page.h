// What the daemon tells, as a page for a browser.
#ifndef QEL_CTL_PAGE_H
#define QEL_CTL_PAGE_H

#include "ctl/CSnapshot.h"
#include "ctl/history.h"
#include "ctl/json.h"

#include <string>

// What the page draws; docs/page.md describes it. Tables, which are long, are rows without keys.
CJson pageData(const SSnapshot& snapshot, const SHistory& history);
// The page with that in it. Whatever names and texts hold, they stay data.
std::string pageWith(const CJson& data);

#endif
