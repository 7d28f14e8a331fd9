// Tells the story: a line an event, in the order of time. What comes in a burst becomes one line.
#ifndef QEL_DEMO_CNARRATOR_H
#define QEL_DEMO_CNARRATOR_H

#include "events.h"

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

std::string pairText(uint32_t code, uint32_t data); // CODE:DATA, as on qelctl's command line

class CNarrator {
public:
    CNarrator();

    // These end what is under way.
    void chapter(const std::string& title);
    void plain(const std::string& text); // a line without time

    // Lines appear about a second later, so that the bursts between them find their place.
    void tell(int64_t time, const std::string& who, const std::string& what);
    void listen(const SEvent& event);

    // To be called often: ends bursts that are over, tells of notifications that stay unanswered, prints, and
    // says what is waited for where nothing was said for a while.
    void tick(int64_t now, const std::string& awaited);

    // Features that the story is about: each event of theirs has a line of its own.
    void single(uint32_t code) { m_oSingles.insert(code); }

    std::string good(const std::string& text) const { return paint("32", text); }
    std::string bad(const std::string& text) const { return paint("31", text); }

private:
    struct SBurst {
        int64_t m_nLast = 0; // time of the last of them
        std::vector<std::string> m_vFeatures;
    };
    struct SSends {
        bool m_bWaiting = false; // for an answer
        int m_nCounted = 0;      // of those sends that a component gets only so many of
    };

    void tellRow(const SEvent& event, EEvent row);
    void listenToSend(const SEvent& event);
    void gather(const SEvent& event, const std::string& who, const std::string& what);
    void endBursts(int64_t before);
    void tellUnanswered(int64_t before);
    void print(int64_t before);
    void printAll();
    std::string paint(const char* code, const std::string& text) const;

    bool m_bColour;
    int64_t m_nSaid = 0;                          // time of the last line that was printed
    std::multimap<int64_t, std::string> m_oLines; // not printed yet, by time
    std::set<uint32_t> m_oSingles;
    std::map<std::pair<std::string, std::string>, SBurst> m_oBursts; // by who and what
    std::map<std::pair<std::string, uint32_t>, SSends> m_oSends;     // by component and code
    std::map<std::string, SEvent> m_oUnanswered; // notification that a component has not answered yet
};

#endif
