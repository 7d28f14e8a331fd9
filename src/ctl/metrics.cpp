// qelctl metrics
#include "ctl/metrics.h"

#include "ctl/commands.h"
#include "ctl/output.h"
#include "ctl/terminal.h"

// A daemon that is not there is a number too, so the text is written then as well. Where it is there, and
// cannot be read, what was known before stays: the file's age tells.
int runMetrics(const SMetricsOptions& options) {
    setProcessName("");
    CStatusQuery query(answerTime(options));
    SSnapshot snapshot;
    const EAsked asked = snapshot.read(query, CDaemonView::EExtent::open);
    const bool isUp = asked == EAsked::answered;
    const int status = reportAsked(asked);
    if (!isUp && asked != EAsked::noDaemon && asked != EAsked::noAnswer) {
        return status;
    }
    const auto format = options.m_bOldFormat ? EMetricsFormat::text : EMetricsFormat::openMetrics;
    return putOutput(options.m_sOutput, metricsText(isUp ? &snapshot : nullptr, format)) ? status
                                                                                         : exitFailed;
}
