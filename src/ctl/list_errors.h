// The faults of a file, as every command prints them.
#ifndef QEL_CTL_LIST_ERRORS_H
#define QEL_CTL_LIST_ERRORS_H

#include "source/list/feature_list.h"

#include <cstddef>
#include <cstdio>
#include <span>
#include <string>

// A line each, on stderr, where summaries go to stdout. `all` is how many there are: a list may have more than
// were kept.
void printErrors(const std::string& path, std::span<const SListError> errors, size_t all,
                 FILE* stream = stderr);

#endif
