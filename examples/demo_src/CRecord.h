// All that happened, and whether that is what had to happen.
#ifndef QEL_DEMO_CRECORD_H
#define QEL_DEMO_CRECORD_H

#include "events.h"

#include <optional>
#include <string>
#include <vector>

// Which events are meant: those that agree in what is given.
struct SQuery {
    EEvent m_eKind;
    std::string m_sWho; // empty: anybody
    std::optional<uint32_t> m_nCode = {};
    std::optional<uint32_t> m_nData = {};
    std::optional<uint32_t> m_nNewData = {};
    std::optional<EEvent> m_eAsked = {};
};

class CRecord {
public:
    void add(const SEvent& event) { m_vEvents.push_back(event); }
    // Events from now on are those of a new part of the story.
    size_t mark() const { return m_vEvents.size(); }

    size_t count(const SQuery& query, size_t since = 0) const;
    bool has(const SQuery& query, size_t since = 0) const { return count(query, since) != 0; }

    size_t deliveries() const; // features fetched, and notifications sent for the first time
    size_t answers() const;    // that the daemon credited to a feature
    size_t resends() const;  // notifications that had no answer yet, sent again, and those told to be overdue
    size_t failures() const; // refusals, and deliveries given up

private:
    size_t notifiedAgain() const;

    std::vector<SEvent> m_vEvents;
};

struct SExpectation {
    std::string m_sText;
    bool m_bMet = false;
};

#endif
