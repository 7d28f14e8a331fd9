// What qelctl tells programs; docs/json.md describes it. One kind of thing is the same object in every command.
#ifndef QEL_CTL_JSON_H
#define QEL_CTL_JSON_H

#include "ctl/CDaemonView.h"
#include "ctl/list_state.h"
#include "ctl/pairs.h"

#include <nlohmann/json.hpp>
#include <string_view>

// Ordered: keys come out as they were put in, and not by the alphabet.
using CJson = nlohmann::ordered_json;

// Raised when a key changes its meaning or goes. New keys may come at any time.
inline constexpr int nJsonSchema = 1;

// How every document of a command begins.
CJson jsonDocument(std::string_view command);
CJson toJson(const SSummaryView& summary);
CJson toJson(const SFeatureView& feature);
CJson toJson(const SComponentView& component);
CJson toJson(const SPair& pair);
CJson toJson(const STransitionView& transition);
CJson toJson(const SPairCounts& counts);
CJson toJson(const SListView& list);
CJson toJson(const std::vector<SListError>& errors);
// A number of seconds since the epoch; null for never.
CJson jsonTime(uint32_t seconds);
// For progress: "queued", "sent", "delivered", "failed", "overdue", or null where nothing is to happen.
CJson jsonProgress(const SPair& pair);

// On standard output: a document over several lines, or one of a sequence in a line of its own.
void printJson(const CJson& document);
void printJsonLine(const CJson& document);

#endif
