// Hears all that is said in the demonstration, tells the story of it, and knows afterwards what happened.
#ifndef QEL_DEMO_CCHRONICLE_H
#define QEL_DEMO_CCHRONICLE_H

#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <vector>

inline constexpr char sDaemon[] = "daemon"; // as a speaker

// How a line is told. Silent: bad, if no answer joins it; burst: together with the next ones of its kind.
enum EManner { mnUntold, mnPlain, mnTitle, mnFaint, mnGood, mnBad, mnSilent, mnBurst };

// What is said becomes a line "WHO: WHAT". Questions and answers get more, so that each line makes sense by
// itself. A component's answer joins what it answers, as in "Gateway: <- notify code 202 data 1 -> reply ok",
// for it names no feature. What the daemon sent ends in " answered" when that is so, and in " again (1 of 3)"
// where it follows another send without an answer. Times are in milliseconds since the beginning.
class CChronicle {
public:
    CChronicle();

    void hear(int64_t time, const std::string& who, const std::string& what);

    // Lines that begin with the pattern: a regular expression, in which a blank stands for several as well.
    int count(const std::string& pattern) const;
    // Writes all of them into a file, and returns its path.
    std::string keep(const std::string& path) const;

    // To be called often. Lines are told a second later: by then what belongs before them has come, a burst
    // is over and becomes one line, and who has not answered is silent. Tells what is awaited, if nothing
    // else.
    void tell(int64_t now, const std::string& awaited);
    // These tell first what is under way.
    void chapter(const std::string& title);
    void plain(const std::string& text);

    std::string paint(EManner manner, const std::string& text) const;

private:
    struct SLine {
        int64_t m_nTime;
        std::string m_sWho;
        std::string m_sText;
        EManner m_eManner = mnUntold;
        std::string m_sTelling = {};
        std::vector<std::string> m_vFeatures = {}; // of the burst that ends here
        bool m_bTold = false;
    };
    using CPlace = std::list<SLine>::iterator;

    void matchAnswer(CPlace line);
    void tellUntil(int64_t before);
    void print(int64_t time, const std::string& who, const std::string& what) const;

    bool m_bColour;
    std::list<SLine> m_oLines;                          // by time
    std::map<std::string, std::vector<CPlace>> m_oOpen; // what the daemon sent without an answer
    int64_t m_nNow = 0;
    int64_t m_nLast = 0; // time of the last line that is or will be told
};

#endif
