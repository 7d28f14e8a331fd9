// One question to the daemon about what it believes that this component has, over as many pages as it takes.
#ifndef QEL_CLIENT_CASKING_H
#define QEL_CLIENT_CASKING_H

#include "base/SFeature.h"
#include "client/CPatience.h"
#include "messaging/wire/holdings.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

// What messaging/wire/holdings.h asks and tells. One question at a time; another one takes its place, and the
// answers to it are strangers then. Sends nothing: question() is what is to be sent, under a tag of the
// caller's. Used by one thread at a time.
class CAsking {
public:
    enum EWhat { nothing, holdings, held, heldOfCode };
    enum EProgress {
        stranger,   // not an answer to what was asked
        more,       // another page is to be asked for
        complete,   // sum() or pairs() has it all
        impossible, // this daemon does not know the question
        changed     // the daemon's table did meanwhile: to be asked anew
    };

    explicit CAsking(std::string name) : m_sName(std::move(name)) {}

    void begin(EWhat what, uint32_t code = 0);
    void end() { m_eWhat = nothing; }
    EWhat what() const { return m_eWhat; }
    uint32_t code() const { return m_nCode; }

    CStatusQuestion question() const;
    // It has gone out, and will have been lost at `due`.
    void sent(uint32_t tag, CClientClock::time_point due);
    CClientClock::time_point due() const { return m_tDue; }

    EProgress take(std::span<const uint8_t> answer);

    struct SPair {
        SFeature m_oPair;
        bool m_bUnderWay;
    };
    const CStatusHoldings& sum() const { return m_oSum; }
    const std::vector<SPair>& pairs() const { return m_vPairs; }

private:
    bool takeRecord(const SStatusRecord& record);

    std::string m_sName;
    EWhat m_eWhat = nothing;
    uint32_t m_nCode = 0;
    uint32_t m_nTag = 0;
    CClientClock::time_point m_tDue{};
    CStatusCursor m_oCursor;
    CStatusHoldings m_oSum;
    std::vector<SPair> m_vPairs;
};

#endif
