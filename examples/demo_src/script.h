// The script of the demonstration: who plays, what happens when, and what has to have happened in the end.
#ifndef QEL_DEMO_SCRIPT_H
#define QEL_DEMO_SCRIPT_H

#include "source/list/feature_list.h"

#include <string>
#include <string_view>
#include <vector>

inline constexpr char sIntroduction[] =
    R"(A daemon tells five components which features are theirs. One fetches its list and answers well, and
so does the example component; one refuses a feature; one holds two already; one never answers. While they
run the list changes: one feature comes, one changes, one goes. Giving the silent one up takes longest: a minute
and a half in all. Exit status 0 only if everything happened that had to happen.

By hand, in this directory, each program in a shell of its own, all with this environment:
  export QEL_RUNTIME_DIR=/tmp/qel QEL_DIAG=off QEL_DESCRIPTION={names}
  export QEL_FEATURE_LIST=/tmp/qel/features.toml QEL_LOG_FILE=/tmp/qel/qelserver.log
the list, with one feature more, for the door phone:
  mkdir $QEL_RUNTIME_DIR
  (grep -v ^count {list}; printf '{feature}') > $QEL_FEATURE_LIST
the daemon, the components (each ends with Ctrl-C), the features in force:
  {players}{programs}/qelctl list
another list, at any time; what came of it; and the end:
  sed '/^code = 102$/,/^data/ s/^data.*/data = 96/' $QEL_FEATURE_LIST > /tmp/qel/new
  {programs}/qelctl apply /tmp/qel/new
  {programs}/qelctl status
  {programs}/qelserver -stop

The demonstration uses a directory of its own. Its copy of the list has, besides the door phone's, a feature
100, which concerns the four that answer and stands first: the daemon pushes one feature every 8 to 12 s, each
answer brings on the next one, and so the changed list reaches all four at once.)";

using CFeatures = std::vector<SFeatureRecord>;

// Added to the example list; the first one at its front.
inline const SFeatureRecord oCommonFeature{100, 49, {"Telephony", "Gateway", "Voice", "Tracing"}, false, 0};
inline const SFeatureRecord oSilentFeature{161, 1, {"Doorphone"}, false, 0};

// What becomes of the list later: 102 changes from 64.
inline void change(CFeatures& list) {
    std::erase_if(list, [](const SFeatureRecord& feature) { return feature.m_nCode == 115; });
    for (SFeatureRecord& feature : list) {
        feature.m_nData = feature.m_nCode == 102 ? 96 : feature.m_nData;
    }
    list.push_back({134, 1, {"Telephony", "Voice"}, false, 0});
}

struct SPart {
    std::string_view m_sName;
    const char* m_szCommand; // for a shell; {} stands for the programs' directory
    bool m_bStays;           // until it is asked to end
};

inline constexpr SPart aParts[] = {
    {"daemon", "{}/qelserver -run", true},
    {"Telephony", "{}/qelctl component Telephony --process telephony --monitor --fetch", true},
    {"Gateway", "{}/qelctl component Gateway --process gateway --monitor --refuse 202", true},
    {"Voice", "{}/example-component Voice", true},
    {"Tracing", "{}/qelctl component Tracing --process tracing --monitor --hold 401:1 403:1", true},
    {"Doorphone", "{}/qelctl component Doorphone --process doorphone --monitor --answer none", true},
    {"before", "{}/qelctl list", false},
    {"apply", R"({}/qelctl apply --no-wait "$QEL_FEATURE_LIST.changed")", false},
    {"after", "{}/qelctl list", false},
    {"wait", "{}/qelctl wait 134 --timeout 5", false},
    {"status", "{}/qelctl status", false},
    {"why", "{}/qelctl why 202 Gateway", false},
    {"watch", "{}/qelctl watch Doorphone --since 0 --for 0.3", false},
    {"undo", "{}/qelctl undo --no-wait", false},
    {"stop", "{}/qelserver -stop", false},
};

// A pattern is a regular expression for lines of the chronicle. With {} for code and data it stands for
// several: one for each feature that concerns the speaker, or, where `qelctl list` speaks, that it must show.
// {count} is the number of these.
struct SStep {
    std::string_view m_sEnters; // of the parts, or nobody
    const char* m_szAwaited;
    const char* m_szUntil;             // a pattern
    const char* m_szChapter = nullptr; // that begins here
    int m_nSeconds = 20;               // generous, for machines that have more to do
};

inline constexpr char sPush[] = "the daemon to push what changed: one feature every 8 to 12 s";
inline constexpr char sGivingUp[] = "the door phone to be given up: a send every 8 to 12 s, three in all";

inline constexpr SStep aSteps[] = {
    {"daemon", "the daemon to take in its list", "daemon: feature list .* handed over", "The daemon"},
    {"before", "the list to be shown", "before: ended"},
    {"Telephony", "Telephony to fetch its list", "Telephony: -> monitor", "The components"},
    {"Gateway", "Gateway to answer about all its features", "Gateway: <- notify code {} data {} -> reply"},
    {"Voice", "Voice to take up its features", "Voice: enable {} with {}"},
    {"Tracing", "the daemon to pass over what Tracing holds", "daemon: already has .* at comp Tracing"},
    {"apply", "the daemon to take in the list", "daemon: newadd feature 134 1", "The list changes"},
    // Enters when the list has changed, as the change begins the delivery of each feature anew, and before
    // the next audit pass, which takes a feature that nobody waits for as settled.
    {"Doorphone", "the door phone to get its feature", "Doorphone: <- notify code 161"},
    {"", sPush, "daemon: remove deleted feature 115", nullptr, 90}, // three audit passes
    {"", sPush, R"(daemon: feature \(134\): got reply ok from comp \(Voice)", nullptr, 90},
    {"", sGivingUp, "daemon: feature: failed comp Doorphone", "The silent one", 120},
};

// Whatever went before. No pattern: the components are asked to end, and have done so.
inline constexpr SStep aEnding[] = {
    {"after", "the list to be shown", "after: ended", "The operator asks"},
    {"wait", "the new feature to be delivered", "wait: ended"},
    {"status", "an answer", "status: ended"},
    {"why", "an answer", "why: ended"},
    {"watch", "an answer", "watch: ended"},
    {"", "the components to end", "", "The end"},
    {"stop", "qelserver -stop to end", "stop: ended"},
    {"", "the daemon to end", "daemon: ended"},
    {"undo", "the list before to be put back", "undo: ended"},
};

struct SLines {
    std::string m_sPattern;
    int m_nTimes = -1; // so many of them; -1: at least one
};

inline const SLines oNobodyDead{"\\w+: ended before its time", 0};

struct SExpectation {
    const char* m_szText; // {} for the number of features
    std::vector<SLines> m_vLines;
};

// By the daemon's log, and where the component shows its messages, by those as well. Refusal: what must not
// be.
inline std::vector<SLines> answered(const std::string& who, const std::string& replies) {
    return {{"daemon: .* comp " + who + ".* answered"},
            {"daemon: (?:notifying|audit|modifying|disabling) (?!.* answered).* comp " + who, 0},
            {who + ": <- (?:notify|modify|disable) (?!.* -> reply)", 0},
            {"daemon: " + replies + " got reply (?!ok)", 0}};
}

inline const SExpectation aExpectations[] = {
    {"the list before shows the {} features in force", {{"before: {} {}"}, {"before: {count} features:"}}},
    {"the list after shows the {} features in force, all active",
     {{"after: {} {} active"}, {"after: {count} features: {count} active"}}},
    {"Telephony fetched the {} features that concern it", {{"Telephony: -> fetch .* code {} data {}"}}},
    {"Voice took up the {} features that concern it", {{"Voice: enable {} with {}"}}},
    {"Gateway was notified of the {} features that concern it", {{"Gateway: <- notify code {} data {}"}}},
    {"Tracing holds 401:1 and 403:1, and was sent neither",
     {{R"(daemon: already has .*, 401, 1\) at comp Tracing)"},
      {R"(daemon: already has .*, 403, 1\) at comp Tracing)"},
      {"Tracing: <- notify code 40[13]", 0}}},
    {"134:1 came: Telephony and Voice took it up",
     {{"Telephony: <- notify code 134 data 1 -> reply ok"},
      {"Voice: enable 134 with 1"},
      {"wait: delivered after"}}},
    {"102 changed from 64 to 96: Telephony and Gateway were told, and changed it",
     {{"(?:Telephony|Gateway): <- modify code 102 data 64 new data 96 -> reply ok", 2}}},
    {"115 went: Telephony was told, and gave it up", {{"Telephony: <- disable code 115 .* -> reply ok"}}},
    {"115 has left the daemon's table", {{"daemon: remove deleted feature 115"}}},
    {"every notification that Telephony got was answered ok", answered("Telephony", "(?=.*Telephony).*")},
    {"every notification that Tracing got was answered ok", answered("Tracing", "(?=.*Tracing).*")},
    {"every notification that Voice got was answered ok", answered("Voice", "(?=.*Voice).*")},
    {"Gateway's refusal of 202 is in the log as a failed reply",
     {{"Gateway: <- notify code 202 .* -> reply failed"},
      {R"(daemon: feature \(202\): got reply failed from comp \(Gateway\))"}}},
    {"nothing else was refused, and Gateway answered all the rest ok",
     answered("Gateway", R"(feature \((?!202\).*Gateway).*)")},
    {"Doorphone was told that its answer is overdue",
     {{"daemon: timeout feature 161 for comp Doorphone"}, {"Doorphone: <- overdue code 161"}}},
    {"Doorphone was sent 161 again, three times, and given up after that",
     {{R"(daemon: feature: check comp Doorphone \d+ at feature 161)", 3},
      {"Doorphone: <- notify code 161", 4},
      {R"(daemon: feature: failed comp Doorphone \d+ at feature 161)", 1}}},
    {"qelctl shows the refusal and the giving up, and no other problem",
     {{"status: 161 1 .* GAVE UP 3 sends"},
      {"status: 202 1 .* REFUSED \"refused at the prompt\""},
      {"status: 2 problems,.* delivered"},
      {"status: ended, status 3"},
      {"why: Now: Gateway refused"},
      {"watch: 161:1 Doorphone sent -> gave up"}}},
    {"qelctl undo put the first list back", {{"undo: .* is now what"}, {"undo: ended, status 0"}}},
    {"no process ended before its time", {oNobodyDead}},
    {"nothing had to be waited for in vain", {{R"(\.\.\.: no longer)", 0}}},
    {"each component ended with exit status 0", {{R"([A-Z]\w+: ended, status 0)", 5}}},
    {"qelserver -stop and the daemon ended with exit status 0",
     {{"stop: ended, status 0"}, {"daemon: ended, status 0"}, {"daemon: main thread exited"}}},
};

#endif
