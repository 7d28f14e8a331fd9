// Asks the daemon for the list in force, as operations and maintenance does.
#ifndef QEL_CTL_COAMQUERY_H
#define QEL_CTL_COAMQUERY_H

#include "messaging/wire/wire.h"
#include "platform/mfw.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

// One record of the answer; the status is the daemon's number of it (CQelFeatureRecord).
struct SActiveFeature {
    uint32_t m_nStatus = 0;
    uint32_t m_nCode = 0;
    uint32_t m_nData = 0;
};

// The features in the body of an answer; nothing if the body ends within a record or is no answer. Reads
// records up to the end of the body, and ignores the number before them: that counts the slots of the
// daemon's table, of which some may be empty or not listed.
std::optional<std::vector<SActiveFeature>> parseActiveList(const uint8_t* body, size_t length);

// One question, one answer; made and used once. Opens this process's endpoint with the question, and closes
// it at its own end. A process has one endpoint, so there is one query at a time.
class COamQuery {
public:
    enum class EOutcome { answered, noEndpoint, noDaemon, noAnswer, badAnswer };

    COamQuery();
    ~COamQuery();
    COamQuery(const COamQuery&) = delete;
    COamQuery& operator=(const COamQuery&) = delete;

    // Waits at most `timeout` for the answer. `noDaemon` comes at once, `noAnswer` when the time is up.
    // features() holds something only after `answered`.
    EOutcome ask(std::chrono::milliseconds timeout);
    const std::vector<SActiveFeature>& features() const { return m_vFeatures; }

private:
    bool send();
    EOutcome await(std::chrono::steady_clock::time_point deadline);
    static void cbReceive(uint16_t type, uint32_t id, const sOvuMfwMessage* message, uint32_t length);

    static constexpr uint32_t nTag = 1; // any number will do: a process asks once
    static COamQuery* m_pAsking;        // gets the framework's callbacks, which carry no pointer of ours

    uint32_t m_nDaemon = nNoHandle;
    EOutcome m_eOutcome = EOutcome::noAnswer;
    std::vector<SActiveFeature> m_vFeatures;
};

#endif
