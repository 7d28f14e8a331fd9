// The script of a played daemon, read and checked. docs/testing-components.md describes the language.
#ifndef QEL_CTL_DAEMON_SCRIPT_H
#define QEL_CTL_DAEMON_SCRIPT_H

#include "ctl/CPlayedDaemon.h"
#include "source/list/feature_list.h"

#include <string>
#include <string_view>
#include <vector>

enum class EStep {
    list,
    enable,
    modify,
    disable,
    overdue,
    expect,
    wait,
    silent,
    die,
    start,
    restart,
    stop,
    kill,
    run
};

struct SStep {
    EStep m_eStep = EStep::list;
    uint32_t m_nLine = 0;
    std::string m_sText;               // as it is written, without comment and with single blanks
    std::vector<SFeature> m_vFeatures; // of list; of a notification, the one
    uint32_t m_nNumber = 0;            // of modify: the new data; of overdue: the code
    SExpectation m_oExpected;          // of expect; of wait and silent, its time
};

struct SScript {
    std::vector<SStep> m_vSteps;
    std::vector<SListError> m_vErrors; // by line; if there are any, the script is not to be run
};

// `hasCommand` says whether the component is ours to start, which some steps need.
SScript readScript(std::string_view text, bool hasCommand);

// A time as scripts have it: "5s", "0.2s", "200ms".
std::string timeText(std::chrono::milliseconds time);

#endif
