// What happens in the demonstration, as the lines of its processes tell it.
#ifndef QEL_DEMO_EVENTS_H
#define QEL_DEMO_EVENTS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

enum EEvent {
    // The daemon's view, from its log.
    evListTaken,     // a new list was handed over; code: how many features it has
    evFetched,       // a feature was fetched, which counts as acknowledged
    evNotified,      // a notification to take up a feature goes out, unless evHeld follows
    evModified,      // a notification to modify a feature goes out
    evDisabled,      // a notification to disable a feature goes out
    evHeld,          // not sent: the component announced that it holds the feature
    evCounted,       // a send that counts towards the three that a component gets
    evReplyOk,       // an answer, credited to a feature; also what evHeld counts as
    evReplyFailed,   // a refusal, credited to a feature
    evOverdue,       // no answer for more than 10 seconds
    evGivenUp,       // three sends counted, no answer
    evSettled,       // all components have answered
    evRemoved,       // a withdrawn feature has left the table
    evDaemonStopped, // the main loop has ended

    // A component's view, from its output.
    cpAnnounced,
    cpMonitoring, // asked for; the answer follows
    cpFetched,    // one feature of the list
    cpNotified,
    cpModified,
    cpDisabled,
    cpOverdue, // told that its answer was overdue
    cpAccepted,
    cpRefused,
    cpShutdown,
    cpTaken, // a component without a trace of messages: what it took up, changed, dropped
    cpChanged,
    cpDropped,

    evOther
};

struct SEvent {
    EEvent m_eKind = evOther;
    std::string m_sWho;   // component; empty: the daemon alone
    uint32_t m_nCode = 0; // feature
    uint32_t m_nData = 0;
    uint32_t m_nNewData = 0;   // of a modification
    EEvent m_eAsked = evOther; // of an answer: the notification that it answers
    std::string m_sText;       // what a refusal or a shutdown says, what is held
    int64_t m_nTime = 0;       // milliseconds since the demonstration began
};

// Line without its time stamp; evOther for what the story does not need.
SEvent parseDaemonLine(std::string_view line);

// Answers on the way to the daemon name no feature: a parser remembers what was asked. One for each
// component.
class CComponentParser {
public:
    explicit CComponentParser(std::string name) : m_sName(std::move(name)) {}
    SEvent parse(std::string_view line);

private:
    std::string m_sName;
    SEvent m_oAsked;          // the notification that came last
    bool m_bFetching = false; // the request sent last was for a feature of the list
};

// Takes "[date ]HH:MM:SS.mmm[:] " off the front of a line: milliseconds since midnight, or nothing.
std::optional<int64_t> takeTimeOfDay(std::string_view& line);

#endif
