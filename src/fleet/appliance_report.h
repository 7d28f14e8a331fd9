// What an appliance has told the fleet.
#ifndef QEL_FLEET_APPLIANCE_REPORT_H
#define QEL_FLEET_APPLIANCE_REPORT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The state that the agent tells (docs/fleet.md), as far as an operator looks at it.
struct SApplianceReport {
    bool m_bOnline = false;
    int64_t m_tLeft = 0;      // seconds since the epoch; 0: it went without a word, or is there
    int64_t m_tConnected = 0; // since when it had been there then; 0 likewise
    std::vector<std::string> m_vGroups;

    // The list that is wanted there. Empty: none is.
    std::string m_sTopic;
    std::string m_sDesired; // its digest
    std::string m_sResult;  // "in place", "refused" or "failed"
    std::string m_sTrouble; // why it was not placed, the first line of it

    bool m_bDaemon = false; // it runs, and what follows is its word
    bool m_bInForce = false;
    std::string m_sDigest;
    uint64_t m_nSerial = 0; // 0: none
    std::string m_sSigner;
    std::string m_sReadDigest; // of the list that it read last
    std::string m_sReadResult;
    std::string m_sReadError;
    uint64_t m_nDelivered = 0;
    uint64_t m_nFailed = 0;
    uint64_t m_nUnderWay = 0;
    uint64_t m_nIdle = 0;
    uint64_t m_nProblems = 0;
    bool m_bRefusal = false;     // a component has refused something
    std::string m_sFirstProblem; // "Gateway refuses 202 "no module""

    // A list that differs only in its serial, say, is in force without a change of what is in force.
    bool hasInForce(std::string_view digest) const;
    // Of the deliveries to those that live.
    uint64_t deliveries() const { return m_nDelivered + m_nFailed + m_nUnderWay; }
};

// Whatever an appliance may tell: no text ends the program. Nothing: it is no state. Throws std::bad_alloc.
[[nodiscard]] std::optional<SApplianceReport> readReport(std::string_view text);

// What became of a list at an appliance.
enum class EListAnswer { pending, delivered, refused, gaveUp, offline };
EListAnswer answerOf(const SApplianceReport& report, std::string_view digest);

// In a line for people; empty: all is well, or under way.
std::string problemOf(const SApplianceReport& report);
// "group canary", "own", or empty.
std::string sourceOf(const SApplianceReport& report);
// "now", "3 h", "<2 d" (it was there that long ago, and left without a word), or empty.
std::string seenOf(const SApplianceReport& report, int64_t now);

#endif
