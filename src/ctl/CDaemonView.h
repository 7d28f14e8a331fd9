// What the daemon knows, as it was when it was read: features, components, and how far each pair of them is.
#ifndef QEL_CTL_CDAEMONVIEW_H
#define QEL_CTL_CDAEMONVIEW_H

#include "ctl/CStatusQuery.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

using SSummaryView = TStatus<CStatusSummary>;
using SComponentView = TStatus<CStatusComponent>;
using SDeliveryView = TStatus<CStatusDelivery>;
using STransitionView = TStatus<CStatusTransition>;
using SCounterView = TStatus<CStatusCounter>;

// Of a record's text that holds several: all but the first.
std::vector<std::string_view> textsBehind(std::string_view text);

struct SFeatureView : TStatus<CStatusFeature> {
    // Like the names of all others they may hold anything: printable() before they are printed.
    std::string_view name() const { return std::string_view(m_sText).substr(0, m_sText.find('\0')); }
    std::vector<std::string_view> concerned() const { return textsBehind(m_sText); }
    // Anchor and ALL take part in every feature, named or not.
    bool concerns(std::string_view component) const { return concerns(concerned(), component); }
    static bool concerns(const std::vector<std::string_view>& concerned, std::string_view component);
    std::string id() const; // CODE:DATA
};

// A feature at a component that it concerns.
struct SPair {
    const SFeatureView* m_pFeature;
    const SComponentView* m_pComponent;
    const SDeliveryView*
        m_pDelivery;         // null: it was not read, or the daemon has not taken the component in yet
    bool m_bSettled = false; // it was not read because it is delivered

    // How far it has come; nothing where the component is dead and was not told.
    std::optional<EDeliveryWord> word() const;
    bool is(EDeliveryWord word) const { return this->word() == word; }
    bool isUnderWay() const { return word() && !is(EDeliveryWord::delivered) && !is(EDeliveryWord::failed); }
    std::string state() const; // as it is called everywhere; "-" where word() is nothing
};

// The one name of each state. A failure by refusal, by silence, and for a reason that is not kept any more
// have names of their own.
std::string stateWord(uint32_t state, uint32_t why);
// The same after a transition, which tells its cause.
std::string stateAfter(const STransitionView& transition);
std::string stateBefore(const STransitionView& transition);
// "sent -> refused"; of a step of all that have the feature, the state alone that all are in now.
std::string stepText(const STransitionView& transition);
// "(refused) "no module"": the cause, and the component's words where it refused.
std::string causeText(const STransitionView& transition);
std::string_view causeWord(uint32_t cause);
std::string_view featureWord(uint32_t status);

// What the arguments of a command ask for. Both may be empty, which means all.
struct SSelection {
    std::string m_sFeature; // CODE, CODE:DATA or a name
    std::string m_sComponent;

    bool isAll() const { return m_sFeature.empty() && m_sComponent.empty(); }
    bool wants(const SFeatureView& feature) const;
    bool wants(uint32_t code, uint32_t data, std::string_view name) const;
    bool wantsComponent(std::string_view name) const { return m_sComponent.empty() || m_sComponent == name; }
};

class CDaemonView {
public:
    // Reads all but the deliveries.
    EAsked read(CStatusQuery& query);
    // Whether this summary, asked for since, tells of another daemon, a transition or a change of features.
    bool isOutdated(const SSummaryView& now) const;
    // Then the deliveries that a selection takes, and makes the pairs of them, in the order of the daemon's
    // tables. `open`: where all are selected, records of those that are delivered are not read, if that can be
    // avoided; of a large table they are most of it.
    enum class EExtent { all, open };
    EAsked readPairs(CStatusQuery& query, const SSelection& selection, EExtent extent = EExtent::all);
    // Or those alone that have failed.
    EAsked readFailed(CStatusQuery& query);

    // For whoever reads piece by piece. Features and what they are found by; the pairs are void from here on,
    // as they are where m_vComponents or m_vDeliveries is changed, until makePairs() has made them anew.
    void setFeatures(std::vector<TStatus<CStatusFeature>> features);
    void makePairs(const SSelection& selection);

    // Tells which of the two a single argument means, where it may be either: a number is a feature, else a
    // component's name goes before a feature's. False if there is no such, and `nearest` is what comes
    // closest to it, or empty.
    bool select(const std::string& argument, SSelection& selection, std::string& nearest) const;
    bool hasFeature(const SSelection& selection) const;
    // Registered, or named by a feature.
    bool hasComponent(std::string_view name) const;
    const SComponentView* component(std::string_view name) const;
    const SFeatureView* feature(uint32_t code, uint32_t data) const;

    SSummaryView m_oSummary;
    std::vector<SComponentView> m_vComponents;
    std::vector<SFeatureView> m_vFeatures;
    std::vector<SDeliveryView> m_vDeliveries; // the pairs point into these three
    std::vector<SPair> m_vPairs;

private:
    EAsked readOpen(CStatusQuery& query, bool& isWhole);
    std::string nearestTo(std::string_view text) const;

    std::unordered_map<uint64_t, size_t> m_oPlaces; // in m_vFeatures, by code and data
};

CStatusQuestion makeQuestion(EStatusQuestion question);
EAsked readSummary(CStatusQuery& query, SSummaryView& summary);

// The word among those of a list that a wrong one was most likely meant to be; empty if none is near.
std::string nearest(std::string_view wrong, const std::vector<std::string_view>& words);

#endif
