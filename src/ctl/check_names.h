// Checks a description file for what the daemon passes over in silence.
#ifndef QEL_CTL_CHECK_NAMES_H
#define QEL_CTL_CHECK_NAMES_H

#include "source/list/feature_list.h"

#include <string_view>
#include <vector>

// By line. No fault here keeps a feature from being delivered: each costs a name, or
// gives it to another feature.
std::vector<SListError> checkDescriptions(std::string_view text);

#endif
