// What qelctl daemon prints: TAP (version 13), or JSON.
#ifndef QEL_CTL_DAEMON_REPORT_H
#define QEL_CTL_DAEMON_REPORT_H

#include "ctl/CFeatureNames.h"
#include "ctl/commands.h"
#include "ctl/daemon_script.h"
#include "ctl/describe.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

// What became of a step.
struct SResult {
    EExitStatus m_eStatus = exitOk; // exitRefused: something else came; exitNotYet: it did not come in time
    std::string m_sExpected;        // these two of a failure
    std::string m_sCame;
};

// Line by line, each at once: somebody may be watching through a pipe. Messages are comments in TAP. With -q
// it prints failures only, on standard error.
class CPlayReport {
public:
    CPlayReport(const SCommonOptions& options, size_t steps) : m_oOptions(options), m_nSteps(steps) {}

    void begin() const;
    void sent(const uint8_t* body, size_t length) const; // by the daemon
    void received(const uint8_t* body, size_t length) const;
    void note(const std::string& text) const; // of the play itself
    void step(const SStep& step, const SResult& result, std::chrono::milliseconds time);
    void end() const;

private:
    void message(const char* event, const SMessageText& message) const;
    bool isJson() const { return m_oOptions.m_bJson && !m_oOptions.m_bQuiet; }

    const SCommonOptions& m_oOptions;
    const CFeatureNames m_oNames = CFeatureNames::load();
    size_t m_nSteps;
    size_t m_nDone = 0;
    size_t m_nFailed = 0;
};

#endif
