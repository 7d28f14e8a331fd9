// How qelctl's commands tell of features at components.
#ifndef QEL_CTL_PAIRS_H
#define QEL_CTL_PAIRS_H

#include "ctl/CDaemonView.h"
#include "ctl/commands.h"
#include "ctl/terminal.h"

#include <string>

struct SPairCounts {
    size_t m_nDelivered = 0;
    size_t m_nFailed = 0;
    size_t m_nUnderWay = 0;
    size_t m_nIdle = 0; // at components that are dead

    void add(const SPair& pair);
    std::string text() const; // "2 problems, 1 under way, 30 delivered"
    EExitStatus exitStatus() const;
};

// Of two of exitOk, exitNotYet and exitRefused.
EExitStatus worse(EExitStatus one, EExitStatus other);

SPairCounts countPairs(const std::vector<SPair>& pairs);

inline constexpr uint32_t nMaxSends = 3; // without an answer, of one phase
// Sends without an answer. The daemon forgets their number where it gives up, which it does after nMaxSends; but an
// overdue modification has failed after any number of them, so that is 0 here.
uint32_t sendsOf(const SDeliveryView& delivery);

// The state and what there is to say about it, for one cell of a table: "ok", "sent 4 s", "REFUSED "text"".
std::string describePair(const SPair& pair, uint32_t now);
EColour colourOf(const SPair& pair);
// "41 s", "12 min", "5 h", "3 d".
std::string age(uint32_t since, uint32_t now);
// "14:02:05", with the date where that is another day.
std::string moment(uint32_t seconds, uint32_t now);
// "161:1 Door opener", for people.
std::string title(const SFeatureView& feature);
// "Doorphone (pid 4711)"
std::string title(const SComponentView& component);
// "dead since 12:03:11", "alive, monitoring"
std::string life(const SComponentView& component, uint32_t now);

// Resolves an argument that may be a feature or a component. False: there is no such, which is complained of.
bool selectOrComplain(const CDaemonView& view, const std::string& argument, SSelection& selection);

#endif
