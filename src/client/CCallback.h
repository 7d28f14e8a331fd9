// What the component is told.
#ifndef QEL_CLIENT_CCALLBACK_H
#define QEL_CLIENT_CCALLBACK_H

#include "client/CFeatureTable.h"
#include "client/qelclient.h"

#include <optional>
#include <string>

// What the component holds differs from what the daemon says.
struct SDifference {
    std::optional<SFeature> m_oOld; // held so far; none: a new feature
    std::optional<SFeature> m_oNew; // to be held; none: a withdrawal
};

// Calls the component's callback, and keeps the table in step with what it answers: the table follows only
// where the component accepts. Without a callback everything is accepted. Borrows the table.
// One thread at a time.
class CCallback {
public:
    CCallback(const qel_options& options, CFeatureTable& table) : m_oOptions(options), m_rTable(table) {}

    // Tells a difference; `fetched`: it comes from a list, and the daemon awaits no reply. Returns the
    // callback's result. A refusal is noted, so that no comparison with the daemon offers it again. Who gives
    // no answer to a notification is told again by the daemon. `text`, if any, becomes what the component says
    // to it.
    int offer(const SDifference& difference, bool fetched, std::string* text = nullptr);

    // The daemon says what is so already, as it does with every new list: the feature is held; with `disables`
    // it is not. The client answers by itself, unless the component wants to hear of repetitions, too.
    int repeat(bool disables, const SFeature& feature, std::string& text);

    // The daemon has stopped waiting for a reply about the feature.
    void overdue(const SFeature& feature);

    void countFromZero() { m_nCalls = 0; }
    int calls() const { return m_nCalls; } // sticks at the largest number: one qel_run() may go on for years

private:
    int call(const qel_notification& notification, std::string* text);

    qel_options m_oOptions;
    CFeatureTable& m_rTable;
    int m_nCalls = 0;
};

#endif
