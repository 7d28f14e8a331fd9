// What the daemon tells, as text for those who keep numbers over time. docs/metrics.md lists the metrics.
#ifndef QEL_CTL_METRICS_H
#define QEL_CTL_METRICS_H

#include "ctl/CSnapshot.h"

#include <string>

enum class EMetricsFormat {
    openMetrics, // OpenMetrics 1.0
    text         // the format before it, 0.0.4, which some collectors read alone
};

// `snapshot`: null where no daemon answers.
std::string metricsText(const SSnapshot* snapshot, EMetricsFormat format);

#endif
