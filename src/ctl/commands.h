// What qelctl can do. Each command takes its options, prints, and returns the process's exit status.
#ifndef QEL_CTL_COMMANDS_H
#define QEL_CTL_COMMANDS_H

#include "client/CFeatureTable.h"

#include <cstdint>
#include <string>
#include <vector>

enum EExitStatus {
    exitOk = 0,
    exitFailed = 1,
    exitNoDaemon = 2, // also: it does not answer
    exitUsage = 64
};

struct SListOptions {
    bool m_bJson = false;
    double m_nTimeout = 10; // seconds to wait for the answer of a daemon that is there
};

enum class EAnswer { ok, fail, none };

struct SComponentOptions {
    std::string m_sName;
    std::string m_sProcess; // name of the process on the message framework; empty: one of its own
    EAnswer m_eAnswer = EAnswer::ok;
    std::vector<uint32_t> m_vRefused; // codes answered with fail, whatever m_eAnswer says
    std::vector<SFeature> m_vHeld;
    bool m_bFetch = false;
    bool m_bMonitor = false;
    bool m_bWait = false;  // for a daemon that is not there yet
    double m_nSeconds = 0; // how long; 0: until SIGINT or SIGTERM
};

int runList(const SListOptions& options);
int runCheck(const std::string& path);
int runComponent(const SComponentOptions& options);

#endif
