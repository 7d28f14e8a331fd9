// qelctl page
#include "ctl/page.h"

#include "ctl/commands.h"
#include "ctl/output.h"
#include "ctl/terminal.h"

int runPage(const SPageOptions& options) {
    setProcessName("");
    CStatusQuery query(answerTime(options));
    SSnapshot snapshot;
    SHistory history;
    EAsked asked = snapshot.read(query, CDaemonView::EExtent::all);
    if (asked == EAsked::answered) {
        asked = readHistory(query, history);
    }
    if (asked != EAsked::answered) {
        return reportAsked(asked);
    }
    CPageStates states;
    return putOutput(options.m_sOutput, pageWith(pageData(snapshot, history, states))) ? exitOk : exitFailed;
}
