// What the daemon tells, as a page for a browser.
#ifndef QEL_CTL_PAGE_H
#define QEL_CTL_PAGE_H

#include "ctl/CSnapshot.h"
#include "ctl/history.h"
#include "ctl/json.h"

#include <functional>
#include <map>
#include <span>
#include <string>
#include <utility>
#include <vector>

// The states that occur. The tables name them by their place here, which none ever leaves.
class CPageStates {
public:
    size_t place(const SPair& pair);
    const CJson& all() const { return m_oStates; }

private:
    std::map<std::pair<std::string, uint32_t>, size_t> m_oPlaces;
    CJson m_oStates = CJson::array();
};

// What the page draws; docs/page.md describes it. Tables, which are long, are rows without keys.
CJson pageData(const SSnapshot& snapshot, const SHistory& history, CPageStates& states);
// Its parts. `wants`: the pairs whose deliveries are told, by their place in the view; null: all.
CJson pageFeatures(const CDaemonView& view);
CJson pageComponents(const CDaemonView& view);
CJson pageCounters(const std::vector<SCounterView>& all);
CJson pageDeliveries(const CDaemonView& view, CPageStates& states,
                     const std::function<bool(size_t pair)>& wants = nullptr);
CJson pageTransitions(std::span<const STransitionView> transitions);

// The page with that in it. Whatever names and texts hold, they stay data.
std::string pageWith(const CJson& data);

#endif
