// What qelctl apply and qelctl undo tell, for people and for programs.
#ifndef QEL_CTL_APPLY_REPORT_H
#define QEL_CTL_APPLY_REPORT_H

#include "ctl/CApplyWait.h"
#include "ctl/CListChange.h"

#include <string>

enum class EApplyResult {
    applied,
    unchanged, // this text was in place already
    dryRun,
    refused, // by the checks
    failed   // a step failed
};

struct SApplyReport {
    const char* m_szCommand = "";
    std::string m_sFile; // the new list
    std::string m_sList; // the list in place
    EApplyResult m_eResult = EApplyResult::failed;
    std::string m_sError;                   // why it was refused or failed, where there are no faults
    SFeatureList m_oFaults;                 // of the new list
    size_t m_nBefore = 0;                   // features in place
    size_t m_nAfter = 0;                    // of the new list
    const CApplyWait* m_pWait = nullptr;    // null: nothing was waited for
    const CListChange* m_pChange = nullptr; // null: it did not come to that
};

// A line for each change, and one that sums up.
void printChange(const CListChange& change);

// One object, as docs/json.md has it.
void printApplyJson(const SApplyReport& report);

#endif
