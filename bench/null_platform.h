// What the platform of the benchmarks keeps of the answers to questions.
#ifndef QEL_BENCH_NULL_PLATFORM_H
#define QEL_BENCH_NULL_PLATFORM_H

#include "messaging/wire/status.h"

extern CStatusAnswer oLatestAnswer;

#endif
