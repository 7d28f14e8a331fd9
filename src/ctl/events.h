// The lines that the daemon logs, as docs/events.md lists them: compiled in, so that they are explained
// without a daemon and without the page.
#ifndef QEL_CTL_EVENTS_H
#define QEL_CTL_EVENTS_H

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

struct SEventText {
    uint32_t m_nNumber;
    std::string_view m_sSeverity; // in words
    std::string_view m_sText;     // as printf(3) takes it
    std::string_view m_sPart;     // of the daemon, that logs it
    std::string_view m_sMeaning;
    std::string_view m_sAction; // empty: nothing is to be done
};

struct SEventMatch {
    const SEventText* m_pEvent;
    std::vector<std::string_view> m_vValues; // in the order of the text; they point into the line
};

// By number: one for each of its texts.
std::vector<SEventMatch> findEvents(uint32_t number);

// Those whose text a line of the log can be, whatever stands before it, such as the time. Where several can
// be, the ones with the longest texts.
std::vector<SEventMatch> findEvents(std::string_view line);

// Where nothing is found: a few that come near, the nearest first.
std::vector<SEventMatch> findNearEvents(uint32_t number);
std::vector<SEventMatch> findNearEvents(std::string_view line);

#endif
