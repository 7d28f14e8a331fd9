// Asks the daemon for the list in force, as operations and maintenance does.
#ifndef QEL_CTL_COAMQUERY_H
#define QEL_CTL_COAMQUERY_H

#include "messaging/wire/wire.h"
#include "platform/mfw.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

struct SActiveFeature {
    uint32_t m_nStatus = 0;
    uint32_t m_nCode = 0;
    uint32_t m_nData = 0;
};

// The list out of the body of an answer. The records go as far as the body does; the number of slots that
// stands before them counts more. Nothing if the body ends within a record or is no answer.
std::optional<std::vector<SActiveFeature>> parseActiveList(const uint8_t* body, size_t length);

// One question, one answer. Opens this process's endpoint and closes it at its end; there is one in a
// process.
class COamQuery {
public:
    enum class EOutcome { answered, noEndpoint, noDaemon, noAnswer, badAnswer };

    COamQuery();
    ~COamQuery();
    COamQuery(const COamQuery&) = delete;
    COamQuery& operator=(const COamQuery&) = delete;

    EOutcome ask(std::chrono::milliseconds timeout);
    const std::vector<SActiveFeature>& features() const { return m_vFeatures; }

private:
    bool send();
    EOutcome await(std::chrono::steady_clock::time_point deadline);
    static void cbReceive(uint16_t type, uint32_t id, const sOvuMfwMessage* message, uint32_t length);

    static constexpr uint32_t nTag = 1;
    static COamQuery* m_pAsking;

    uint32_t m_nDaemon = nNoHandle;
    EOutcome m_eOutcome = EOutcome::noAnswer;
    std::vector<SActiveFeature> m_vFeatures;
};

#endif
