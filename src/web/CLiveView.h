// What the daemon tells, kept up to date piece by piece. Knows no query, no thread and no socket.
//
// A large table (40,000 deliveries are some fifty pages, and the daemon answers one page a turn) cannot be read
// every second. So this lives on the daemon's record of transitions, which has every step of every delivery,
// numbered: a page of that each second, mostly an empty one, tells which deliveries have changed and to what.
// The rules:
//
// - The deliveries are read whole at the beginning, and then only patrolled: a few pages a second, so that
//   what steps do not tell (how often something was sent) comes right within a minute or so.
// - A step sets state, time, reason and count of its delivery as the daemon does (features/delivery.h). The
//   daemon's own word, read later, goes before that.
// - Steps may come while the deliveries are being read. Those later than the reading's beginning are applied
//   once more to what was read: they tell states, not differences, so twice does no harm.
// - Where a step cannot be applied, something is owed, and debts() says what is to be read: all, where a
//   feature came or went, steps were lost, or it is another daemon; one component, which came or went; or the
//   features alone, whose own states no step tells.
//
// Versions count what was published. Each part has the version with which it changed last, so whoever has
// seen one version is told what is newer and no more. Deliveries name feature and component by their place;
// where places change, all that was seen before is void: since().
#ifndef QEL_WEB_CLIVEVIEW_H
#define QEL_WEB_CLIVEVIEW_H

#include "ctl/CSnapshot.h"
#include "ctl/history.h"

#include <cstdint>
#include <set>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

// What has to be read, for steps do not tell it.
struct SDebts {
    bool m_bAll = false;
    bool m_bFeatures = false;
    std::set<std::string> m_oComponents; // they themselves and their deliveries
};

// A reading of all features, components and deliveries.
struct SReading {
    std::vector<SComponentView> m_vComponents;
    std::vector<TStatus<CStatusFeature>> m_vFeatures;
    std::vector<SDeliveryView> m_vDeliveries;
    uint64_t m_nAfter = 0; // the last step that was known when it began
};

class CLiveView {
public:
    CLiveView() = default;
    CLiveView(const CLiveView&) = delete; // the view's pairs point into it
    CLiveView& operator=(const CLiveView&) = delete;

    // --- What came from the daemon; it counts for the version to come ---

    void takeSummary(SSummaryView summary);
    // `lost` as CTransitions tells it.
    void takeSteps(std::vector<STransitionView> steps, uint64_t lost);
    void takeComponents(std::vector<SComponentView> components);
    void takeList(std::optional<SListView> list);
    void takeCounters(std::vector<SCounterView> counters);
    void takeFeatures(std::vector<TStatus<CStatusFeature>> features);
    void takeAll(SReading reading);
    // Who is no longer among the components has left.
    void takeComponent(const std::string& name, std::vector<SComponentView> components,
                       std::vector<SDeliveryView> deliveries);
    // Another daemon answers: nothing of the one before holds. Needs no memory.
    void forget();
    // What is held is too old to be shown until all has been read.
    void hide() { m_bWhole = false; }
    // What is owed, to be read from now on; it is owed no longer.
    SDebts takeDebts() { return std::exchange(m_oDebts, {}); }
    void oweAll() { m_oDebts.m_bAll = true; }
    void oweFeatures() { m_oDebts.m_bFeatures = true; }
    // Whatever was taken is now seen. Returns the version.
    uint64_t publish() { return m_nVersion++; }

    // --- Queries ---

    const SDebts& debts() const { return m_oDebts; }
    bool isWhole() const { return m_bWhole; } // there is something to show
    uint64_t lastStep() const { return m_nLastStep; }
    const SSnapshot& snapshot() const { return m_oSnapshot; }
    const SHistory& history() const { return m_oHistory; }

    // Whether somebody who has seen `version` needs only what is newer.
    bool isFollowed(uint64_t version) const { return m_bWhole && version >= m_nBase; }
    // What has changed after it.
    enum EPart { paSummary, paComponents, paFeatures, paList, paCounters, nParts };
    bool isNewer(EPart part, uint64_t version) const { return m_aChanged[part] > version; }
    bool isPairNewer(size_t pair, uint64_t version) const { return m_vChanged[pair] > version; }
    std::span<const STransitionView> stepsAfter(uint64_t version) const;

private:
    CDaemonView& view() { return m_oSnapshot.m_oView; }
    void mark(EPart part) { m_aChanged[part] = m_nVersion; }
    void owe(const std::string& component);
    void keep(std::vector<STransitionView> steps);
    void apply(const STransitionView& step);
    void applyTo(SPair& pair, const STransitionView& step);
    void replace(std::vector<SComponentView> components, std::vector<TStatus<CStatusFeature>> features,
                 std::vector<SDeliveryView> deliveries);
    void makePairs();
    void markChanges(const CDaemonView& before);

    SSnapshot m_oSnapshot;
    SHistory m_oHistory;
    std::vector<uint64_t> m_vArrived; // of each step of the history, with which version
    uint64_t m_nLastStep = 0;
    bool m_bWhole = false;
    SDebts m_oDebts{true, false, {}};

    uint64_t m_nVersion = 1; // the one to come
    uint64_t m_nBase = 1;    // before it, places were others
    uint64_t m_aChanged[nParts] = {};
    std::vector<uint64_t> m_vChanged;                           // by pair
    std::unordered_map<uint64_t, std::vector<size_t>> m_oPairs; // by the feature's code and data
};

#endif
