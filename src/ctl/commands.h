// What qelctl can do. Each command takes its options, prints, and returns the process's exit status.
#ifndef QEL_CTL_COMMANDS_H
#define QEL_CTL_COMMANDS_H

#include "client/CFeatureTable.h"

#include <cstdint>
#include <string>
#include <vector>

// Scripts go by these; they are part of the interface.
enum EExitStatus {
    exitOk = 0,
    exitFailed = 1,
    exitNoDaemon = 2, // no daemon, or it does not answer
    exitUsage = 64    // EX_USAGE of sysexits.h
};

struct SListOptions {
    bool m_bJson = false;
    double m_nTimeout = 10; // seconds that a daemon which is there may take to answer
};

struct SCheckOptions {
    std::string m_sList; // path; empty: no list to check
    std::string m_sDescriptions;
};

// How notifications are answered: carried out, refused, or not at all.
enum class EAnswer { ok, fail, none };

struct SComponentOptions {
    std::string m_sName;
    std::string m_sProcess; // its name on the message framework; empty: see setProcessName()
    EAnswer m_eAnswer = EAnswer::ok;
    std::vector<uint32_t> m_vRefused; // codes that are refused, whatever m_eAnswer says
    std::vector<SFeature> m_vHeld;    // announced as held from an earlier run
    bool m_bFetch = false;
    bool m_bMonitor = false;
    bool m_bWait = false;  // for a daemon that is not there yet, instead of failing
    double m_nSeconds = 0; // how long to run; 0: until SIGINT or SIGTERM
};

// Each runs on the calling thread until its command is done. They throw only where memory runs out; main()
// reports that.
int runList(const SListOptions& options);
int runCheck(const SCheckOptions& options);
int runComponent(const SComponentOptions& options);

#endif
