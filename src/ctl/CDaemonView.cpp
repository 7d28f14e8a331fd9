#include "ctl/CDaemonView.h"

#include "ctl/terminal.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <fmt/format.h>
#include <numeric>

namespace {

bool isNumber(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789:") == std::string_view::npos;
}

template <typename T>
std::string_view wordOf(const T& words, uint32_t number) {
    return number < words.size() ? std::string_view(words[number]) : "unknown"; // of a newer daemon
}

// As the word of a failure, in place of "refused".
std::string failureWord(std::string_view word, std::string_view instead) {
    static constexpr std::string_view sRefused = "refused";
    const size_t at = word.find(sRefused);
    return at == std::string_view::npos ? std::string(word)
                                        : std::string(word).replace(at, sRefused.size(), instead);
}

std::string_view wordOfState(uint32_t state) {
    return state < aDeliveryStates.size() ? aDeliveryStates[state].m_sWord : "unknown";
}

// Of whoever has followed a feature that is in this status.
uint32_t settledState(uint32_t featureStatus) {
    enum : uint32_t { accepted = 2, disabled = 6, modified = 10 }; // CCompStatus::ECStatus
    const std::string_view word = featureWord(featureStatus);
    return word == "deleted" ? disabled : word == "modify" ? modified : accepted;
}

bool isRefusal(const STransitionView& transition) {
    return causeWord(transition.m_nCause) == "refused";
}

uint64_t placeOf(uint32_t code, uint32_t data) {
    return uint64_t{code} << 32 | data;
}

// The number at the start of a text, which is cut off it; nothing, if there is none within 32 bits.
std::optional<uint32_t> takeNumber(std::string_view& text) {
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return error == std::errc() ? std::optional(number) : std::nullopt;
}

// How many letters one word has to change to become the other (Levenshtein).
size_t distance(std::string_view from, std::string_view to) {
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < from.size(); ++i) {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < to.size(); ++j) {
            const size_t change = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({change, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

} // namespace

std::string nearest(std::string_view wrong, const std::vector<std::string_view>& words) {
    std::string_view best;
    size_t least = std::min<size_t>(wrong.size() / 2 + 1, 4); // from here on it is another word
    for (const std::string_view word : words) {
        if (const size_t steps = distance(wrong, word); steps < least) {
            least = steps;
            best = word;
        }
    }
    return std::string(best);
}

// --- Words ---

std::string stateWord(uint32_t state, uint32_t why) {
    const std::string_view word = wordOfState(state);
    return why == swNoAnswer  ? failureWord(word, "gave up")
           : why == swNotKept ? failureWord(word, "failed")
                              : std::string(word);
}

std::string stateAfter(const STransitionView& transition) {
    return stateWord(transition.m_nTo, isRefusal(transition) ? swRefused : swNoAnswer);
}

// How an earlier state came about is not told.
std::string stateBefore(const STransitionView& transition) {
    return stateWord(transition.m_nFrom, swNotKept);
}

std::string stepText(const STransitionView& transition) {
    const bool isOfAll = fieldText(transition.m_szComponent).empty();
    return (isOfAll ? "" : stateBefore(transition) + " ") + "-> " + stateAfter(transition);
}

std::string causeText(const STransitionView& transition) {
    const std::string words =
        transition.m_nWhy == swNotKept && isRefusal(transition) ? ", its words are not kept any more" : "";
    return fmt::format("({}{}){}", causeWord(transition.m_nCause), words,
                       transition.m_sText.empty() ? ""
                                                  : fmt::format(" \"{}\"", printable(transition.m_sText)));
}

std::string_view causeWord(uint32_t cause) {
    return wordOf(aCauseWords, cause);
}

std::string_view featureWord(uint32_t status) {
    return wordOf(aFeatureWords, status);
}

// --- Features and pairs ---

std::vector<std::string_view> textsBehind(std::string_view text) {
    std::vector<std::string_view> texts;
    for (size_t end = text.find('\0'); end != std::string_view::npos; end = text.find('\0')) {
        text.remove_prefix(end + 1);
        texts.push_back(text.substr(0, text.find('\0')));
    }
    return texts;
}

bool SFeatureView::concerns(const std::vector<std::string_view>& concerned, std::string_view component) {
    return component == "Anchor" || component == "ALL" ||
           std::find(concerned.begin(), concerned.end(), component) != concerned.end();
}

std::string SFeatureView::id() const {
    return fmt::format("{}:{}", uint32_t{m_nCode}, uint32_t{m_nData});
}

// The audit takes in whoever it finds missing, monitoring or not.
std::optional<EDeliveryWord> SPair::word() const {
    const bool isDead = m_pComponent->m_tDead != 0;
    if (m_bSettled) {
        return EDeliveryWord::delivered;
    }
    if (m_pDelivery == nullptr) {
        return isDead ? std::nullopt : std::optional(EDeliveryWord::queued);
    }
    if (m_pDelivery->m_nState >= aDeliveryStates.size()) {
        return EDeliveryWord::queued; // of a newer daemon
    }
    const EDeliveryWord word = aDeliveryStates[m_pDelivery->m_nState].m_eWord;
    return word == EDeliveryWord::queued && isDead ? std::nullopt : std::optional(word);
}

std::string SPair::state() const {
    if (!word()) {
        return "-";
    }
    const uint32_t unread = m_bSettled ? settledState(m_pFeature->m_nStatus) : 0;
    return m_pDelivery ? stateWord(m_pDelivery->m_nState, m_pDelivery->m_nWhy) : stateWord(unread, swNone);
}

bool SSelection::wants(const SFeatureView& feature) const {
    return wants(feature.m_nCode, feature.m_nData, feature.name());
}

bool SSelection::wants(uint32_t code, uint32_t data, std::string_view name) const {
    if (m_sFeature.empty() || !isNumber(m_sFeature)) {
        return m_sFeature.empty() || m_sFeature == name;
    }
    std::string_view rest(m_sFeature);
    const bool isCode = takeNumber(rest) == code;
    if (!isCode || rest.empty()) {
        return isCode;
    }
    rest.remove_prefix(1); // the colon
    return takeNumber(rest) == data && rest.empty();
}

// --- Reading ---

CStatusQuestion makeQuestion(EStatusQuestion question) {
    CStatusQuestion words;
    words.m_nQuestion = question;
    return words;
}

EAsked readSummary(CStatusQuery& query, SSummaryView& summary) {
    std::vector<SSummaryView> records;
    const EAsked asked = query.askAll(makeQuestion(sqSummary), records);
    if (asked == EAsked::answered && records.size() != 1) {
        return EAsked::damaged;
    }
    if (asked == EAsked::answered) {
        summary = records.front();
    }
    return asked;
}

EAsked CDaemonView::read(CStatusQuery& query) {
    m_vPairs.clear();
    std::vector<TStatus<CStatusFeature>> features;
    EAsked asked = readSummary(query, m_oSummary);
    if (asked == EAsked::answered) {
        asked = query.askAll(makeQuestion(sqComponents), m_vComponents);
    }
    if (asked == EAsked::answered) {
        asked = query.askAll(makeQuestion(sqFeatures), features);
    }
    setFeatures(std::move(features));
    return asked;
}

void CDaemonView::setFeatures(std::vector<TStatus<CStatusFeature>> features) {
    m_vPairs.clear();
    m_vFeatures.clear();
    m_oPlaces.clear();
    for (auto& feature : features) {
        m_oPlaces[placeOf(feature.m_nCode, feature.m_nData)] = m_vFeatures.size();
        m_vFeatures.push_back({std::move(feature)});
    }
}

bool CDaemonView::isOutdated(const SSummaryView& now) const {
    return m_oSummary.m_tStarted != now.m_tStarted ||
           number(m_oSummary.m_aLastTransition) != number(now.m_aLastTransition) ||
           std::memcmp(m_oSummary.m_aFeatures, now.m_aFeatures, sizeof now.m_aFeatures) != 0;
}

EAsked CDaemonView::readPairs(CStatusQuery& query, const SSelection& selection, EExtent extent) {
    bool isWhole = false;
    if (extent == EExtent::open && selection.isAll()) {
        const EAsked asked = readOpen(query, isWhole);
        if (isWhole || (asked != EAsked::answered && asked != EAsked::unknown)) {
            return asked;
        }
    }
    CStatusQuestion question = makeQuestion(sqDeliveries);
    if (std::string_view text(selection.m_sFeature); isNumber(text)) {
        question.m_nFilter = question.m_nFilter | sfCode;
        question.m_nCode = takeNumber(text).value_or(0);
    }
    if (!selection.m_sComponent.empty()) {
        question.m_nFilter = question.m_nFilter | sfComponent;
        selection.m_sComponent.copy(question.m_szComponent, nNameFieldSize);
    }
    m_vDeliveries.clear();
    makePairs(selection); // for their number
    const EAsked asked = query.askAll(question, m_vDeliveries, m_vPairs.size());
    if (asked == EAsked::answered) {
        makePairs(selection);
    }
    return asked;
}

EAsked CDaemonView::readFailed(CStatusQuery& query) {
    CStatusQuestion question = makeQuestion(sqDeliveries);
    question.m_nFilter = sfOpen | sfFailed;
    const EAsked asked = query.askAll(question, m_vDeliveries);
    makePairs({});
    std::erase_if(m_vPairs, [](const SPair& pair) { return pair.word() != EDeliveryWord::failed; });
    return asked;
}

// The tally counts the records. Where those that were not told are as many as the pairs without one, these are
// delivered; else a component waits to be taken in somewhere, and only the whole table shows where.
EAsked CDaemonView::readOpen(CStatusQuery& query, bool& isWhole) {
    CStatusQuestion question = makeQuestion(sqDeliveries);
    question.m_nFilter = sfOpen;
    std::vector<TStatus<CStatusTally>> pages;
    EAsked asked = query.askAll(question, m_vDeliveries);
    if (asked == EAsked::answered) {
        asked = query.askAll(makeQuestion(sqTally), pages);
    }
    if (asked != EAsked::answered) {
        return asked;
    }
    size_t records = 0;
    for (const auto& page : pages) {
        records = std::accumulate(std::begin(page.m_aDeliveries), std::end(page.m_aDeliveries), records);
    }
    makePairs({});
    size_t unread = 0;
    for (SPair& pair : m_vPairs) {
        pair.m_bSettled = pair.m_pDelivery == nullptr;
        unread += pair.m_bSettled ? 1 : 0;
    }
    isWhole = unread + m_vDeliveries.size() == records;
    return asked;
}

// Features and deliveries were read one after the other: a delivery of a feature that is new since then finds
// no place here, and waits for the next reading.
void CDaemonView::makePairs(const SSelection& selection) {
    // By feature. One that stands twice, in force and for those who leave it, has other components each time.
    std::unordered_map<uint64_t, std::vector<const SDeliveryView*>> deliveries;
    for (const SDeliveryView& delivery : m_vDeliveries) {
        deliveries[placeOf(delivery.m_nCode, delivery.m_nData)].push_back(&delivery);
    }
    m_vPairs.clear();
    for (const SFeatureView& feature : m_vFeatures) {
        if (!selection.wants(feature)) {
            continue;
        }
        const auto concerned = feature.concerned();
        const auto& told = deliveries[placeOf(feature.m_nCode, feature.m_nData)];
        for (const SComponentView& component : m_vComponents) {
            const std::string_view name = fieldText(component.m_szName);
            if (!selection.wantsComponent(name) || !SFeatureView::concerns(concerned, name)) {
                continue;
            }
            const auto found = std::find_if(told.begin(), told.end(), [name](const SDeliveryView* delivery) {
                return fieldText(delivery->m_szComponent) == name;
            });
            m_vPairs.push_back({&feature, &component, found == told.end() ? nullptr : *found});
        }
    }
}

// --- Looking up ---

bool CDaemonView::select(const std::string& argument, SSelection& selection, std::string& nearest) const {
    (!isNumber(argument) && hasComponent(argument) ? selection.m_sComponent : selection.m_sFeature) =
        argument;
    if (!selection.m_sComponent.empty() || hasFeature(selection)) {
        return true;
    }
    nearest = nearestTo(argument);
    return false;
}

bool CDaemonView::hasFeature(const SSelection& selection) const {
    return std::any_of(m_vFeatures.begin(), m_vFeatures.end(),
                       [&](const SFeatureView& feature) { return selection.wants(feature); });
}

bool CDaemonView::hasComponent(std::string_view name) const {
    return component(name) != nullptr ||
           std::any_of(m_vFeatures.begin(), m_vFeatures.end(), [&](const SFeatureView& feature) {
               const auto names = feature.concerned();
               return std::find(names.begin(), names.end(), name) != names.end();
           });
}

const SComponentView* CDaemonView::component(std::string_view name) const {
    const auto found = std::find_if(m_vComponents.begin(), m_vComponents.end(),
                                    [&](const auto& comp) { return fieldText(comp.m_szName) == name; });
    return found == m_vComponents.end() ? nullptr : &*found;
}

const SFeatureView* CDaemonView::feature(uint32_t code, uint32_t data) const {
    const auto found = m_oPlaces.find(placeOf(code, data));
    return found == m_oPlaces.end() ? nullptr : &m_vFeatures[found->second];
}

std::string CDaemonView::nearestTo(std::string_view text) const {
    std::vector<std::string_view> words;
    for (const SComponentView& comp : m_vComponents) {
        words.push_back(fieldText(comp.m_szName));
    }
    for (const SFeatureView& feature : m_vFeatures) {
        const auto names = feature.concerned();
        words.insert(words.end(), names.begin(), names.end());
        words.push_back(feature.name());
    }
    return ::nearest(text, words);
}
