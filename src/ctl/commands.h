// What qelctl can do. Each command takes its options, prints, and returns the process's exit status.
#ifndef QEL_CTL_COMMANDS_H
#define QEL_CTL_COMMANDS_H

#include "client/CFeatureTable.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

// Scripts go by these; they are part of the interface.
enum EExitStatus {
    exitOk = 0,
    exitFailed = 1,   // bad input, or nothing to write to
    exitNoDaemon = 2, // no daemon, it does not answer, or it has no list
    exitRefused = 3,  // a component has refused, or was given up; or the daemon has refused its list
    exitNotYet = 4,   // something is still under way
    exitUsage = 64    // EX_USAGE of sysexits.h
};

// The same for people: `qelctl help` prints it.
struct SExitText {
    EExitStatus m_eStatus;
    const char* m_szMeaning;
};
inline constexpr SExitText aExitTexts[] = {
    {exitOk, "yes: done, delivered, good"},
    {exitFailed, "bad input, or the output cannot be written"},
    {exitNoDaemon, "no daemon answers, or it has no list; of fleet: no broker"},
    {exitRefused,
     "a component has refused or was given up, or the daemon has refused its list; or a rollout has "
     "stopped"},
    {exitNotYet, "not yet: something is under way"},
    {exitUsage, "the command line is wrong"},
};

// What every command can be told.
struct SCommonOptions {
    bool m_bJson = false;
    bool m_bQuiet = false;  // nothing on standard output; errors are told all the same
    double m_nTimeout = 10; // seconds that a daemon which is there may take to answer
};

inline std::chrono::milliseconds answerTime(const SCommonOptions& options) {
    return std::chrono::milliseconds(static_cast<int64_t>(options.m_nTimeout * 1000));
}

struct SListOptions : SCommonOptions {};

struct SStatusOptions : SCommonOptions {
    std::string m_sArgument; // a feature or a component; empty: the matrix of all
    bool m_bAll = false;     // in the matrix, also what is delivered
};

struct SWhyOptions : SCommonOptions {
    std::string m_sFeature;
    std::string m_sComponent;
};

struct SWatchOptions : SCommonOptions {
    std::string m_sArgument; // a feature or a component; empty: all
    std::string m_sSince;    // number of a transition; empty: those that come from now on
    double m_nSeconds = 0;   // how long; 0: until SIGINT or SIGTERM
};

struct SWaitOptions : SCommonOptions {
    std::string m_sFirst;     // a feature or a component; empty: all
    std::string m_sSecond;    // the component, if the first is a feature
    bool m_bDelivered = true; // false: settled, well or not
    double m_nSeconds = 60;   // how long to wait; m_nTimeout is for one answer
};

struct SCheckOptions : SCommonOptions {
    std::string m_sList; // path; empty: no list to check
    std::string m_sDescriptions;
};

// How notifications are answered: carried out, refused, or not at all.
enum class EAnswer { ok, fail, none };

struct SComponentOptions : SCommonOptions {
    std::string m_sName;
    std::string m_sProcess; // its name on the message framework; empty: see setProcessName()
    EAnswer m_eAnswer = EAnswer::ok;
    std::vector<uint32_t> m_vRefused; // codes that are refused, whatever m_eAnswer says
    std::vector<SFeature> m_vHeld;    // announced as held from an earlier run
    bool m_bFetch = false;
    bool m_bMonitor = false;
    bool m_bWait = false;     // for a daemon that is not there yet, instead of failing
    bool m_bTakeOver = false; // of the name, from a process that lives
    double m_nSeconds = 0;    // how long to run; 0: until SIGINT or SIGTERM
};

struct SDaemonOptions : SCommonOptions {
    std::string m_sScript;
    std::vector<std::string> m_vCommand; // starts the component; empty: somebody else does
    double m_nWithin = 5;                // seconds for what the script expects without naming a time
};

// Of apply and undo.
struct SApplyOptions : SCommonOptions {
    std::string m_sFile; // the new list; unused by undo
    std::string m_sList; // the list in place; empty: that of the environment, else the one compiled in
    bool m_bDryRun = false;
    bool m_bForce = false;
    std::string m_sKey;     // private key to sign the list with; empty: it goes as it is
    bool m_bWait = true;    // until it is delivered
    double m_nSeconds = 60; // how long at most
};

struct SSignOptions : SCommonOptions {
    std::string m_sFile;
    std::string m_sKey;    // private key
    std::string m_sSerial; // a number, or "next"; empty: the list's own
};

struct SVerifyOptions : SCommonOptions {
    std::string m_sFile;
    std::string m_sTrust; // directory; empty: the daemon's
};

struct SExplainOptions : SCommonOptions {
    std::vector<std::string> m_vWords; // an event's number, or the words of a line
};

struct SMetricsOptions : SCommonOptions {
    std::string m_sOutput;     // path; empty: standard output
    bool m_bOldFormat = false; // the one before OpenMetrics
};

struct SPageOptions : SCommonOptions {
    std::string m_sOutput; // path; empty: standard output
};

// Each runs on the calling thread until its command is done. They throw only where memory runs out; main()
// reports that.
int runList(const SListOptions& options);
int runStatus(const SStatusOptions& options);
int runWhy(const SWhyOptions& options);
int runWatch(const SWatchOptions& options);
int runWait(const SWaitOptions& options);
int runCheck(const SCheckOptions& options);
int runComponent(const SComponentOptions& options);
int runDaemon(const SDaemonOptions& options);
int runApply(const SApplyOptions& options);
int runUndo(const SApplyOptions& options);
int runSign(const SSignOptions& options);
int runVerify(const SVerifyOptions& options);
int runSchema();
int runExplain(const SExplainOptions& options);
int runMetrics(const SMetricsOptions& options);
int runPage(const SPageOptions& options);
int runFleet(char** arguments);

#endif
