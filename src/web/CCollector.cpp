#include "web/CCollector.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <fmt/format.h>

namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds tBetweenRounds{1000};
constexpr milliseconds tInterest{5000}; // so long after a look the rounds go on
constexpr milliseconds tFresh{2500};    // a copy up to this age is served as that of now
constexpr milliseconds tPatience{2000}; // of whoever looks at the page
constexpr milliseconds tScrape{8000};   // of a collector of metrics, which is told all or nothing
constexpr milliseconds tAnswer{3000};   // for each answer of the daemon
constexpr seconds tPause{6};            // what was not asked for in this time is asked for at once
constexpr seconds tBetweenPatrols{60};
constexpr seconds tBetweenFeatures{3};
constexpr int nPatrolPages = 2;
constexpr int nOwedPages = 16;
constexpr int nStepPages = 8; // more than the daemon keeps

std::string whyNotAnswered(EAsked asked) {
    switch (asked) {
    case EAsked::noDaemon:
        return "The daemon is not running";
    case EAsked::noEndpoint:
        return "qelweb has no endpoint on the message framework";
    case EAsked::damaged:
        return "The daemon's answer is damaged";
    case EAsked::unknown:
        return "The daemon is older than qelweb and does not know the question";
    case EAsked::changing:
        return "The daemon has not answered yet";
    case EAsked::answered:
    case EAsked::noAnswer:
        break;
    }
    return "The daemon does not answer";
}

} // namespace

CCollector::CCollector()
    : m_sRun(fmt::format("{:x}", CClock::now().time_since_epoch().count())), m_oThread([this] { run(); }) {}

CCollector::~CCollector() {
    end();
    m_oThread.join();
}

void CCollector::end() {
    {
        const std::lock_guard lock(m_oMutex);
        m_bEnding = true;
    }
    m_oLooked.notify_all();
    m_oRound.notify_all();
}

// --- Asking ---

void CCollector::run() {
    while (awaitLook()) {
        EAsked asked = EAsked::changing;
        bool isShort = false;
        try {
            asked = round();
        } catch (const std::exception&) { // nothing but memory that has run out throws there
            isShort = true;
            giveUp();
        }
        conclude(asked, isShort);
    }
    m_pQuery.reset(); // on the thread that opened it
}

// Where there is no copy yet, and reading goes on, the next round does not wait.
bool CCollector::awaitLook() {
    std::unique_lock lock(m_oMutex);
    const bool isReading = !m_oView.isWhole() && m_pReading != nullptr && m_eAsked == EAsked::answered;
    const CClock::time_point next = m_tRound + (isReading ? milliseconds(0) : tBetweenRounds);
    m_oLooked.wait_until(lock, next, [this] { return m_bEnding.load(); });
    m_oLooked.wait(lock, [this] { return m_bEnding || CClock::now() - m_tLooked < tInterest; });
    m_tRound = CClock::now();
    m_bAwaited = true;
    return !m_bEnding;
}

EAsked CCollector::round() {
    if (!m_pQuery) {
        m_pQuery = std::make_unique<CStatusQuery>(tAnswer);
    }
    EAsked asked = askSummary();
    if (asked == EAsked::noDaemon && m_pQuery->handle() != nNoHandle) {
        asked = askSummary(); // another has come in its place
    }
    if (goesOn(asked)) {
        asked = askSteps();
    }
    if (asked == EAsked::answered) {
        const std::lock_guard lock(m_oMutex); // the rest may take a while
        m_tFollowed = CClock::now();
        m_tLength = m_tFollowed - m_tRound;
        m_tSilent = 0;
        publish();
        m_oRound.notify_all();
    }
    if (goesOn(asked)) {
        asked = askTurns();
    }
    return goesOn(asked) ? payDebts() : asked;
}

EAsked CCollector::askSummary() {
    SSummaryView summary;
    const EAsked asked = readSummary(*m_pQuery, summary);
    if (asked != EAsked::answered) {
        return asked;
    }
    const std::lock_guard lock(m_oMutex);
    const CStatusSummary& before = m_oView.snapshot().m_oView.m_oSummary;
    if (m_pQuery->handle() != m_nDaemon || summary.m_tStarted != before.m_tStarted) {
        m_nDaemon = m_pQuery->handle();
        m_oSteps.restart();
        m_oView.forget();
        m_oHour.clear();
        m_oStates = {};
        m_pReading.reset();
        m_aAsked.fill({});
        m_tReadLength = {};
    }
    m_oView.takeSummary(std::move(summary));
    return EAsked::answered;
}

EAsked CCollector::askSteps() {
    const uint64_t known = m_oView.lastStep(); // this thread alone changes it
    if (number(m_oView.snapshot().m_oView.m_oSummary.m_aLastTransition) == known) {
        return EAsked::answered;
    }
    for (int page = 0; page < nStepPages && !m_bEnding; ++page) {
        if (const EAsked asked = m_oSteps.read(*m_pQuery); asked != EAsked::answered) {
            return asked;
        }
        const std::lock_guard lock(m_oMutex);
        if (m_oSteps.isRestarted()) {
            m_oView.forget(); // the next summary tells the rest
            m_oSteps.restart();
            m_nDaemon = nNoHandle;
            return EAsked::changing;
        }
        m_oView.takeSteps(m_oSteps.page(), m_oSteps.lost());
        if (m_oSteps.lost() != 0 && CClock::now() - m_tFollowed > tPause) {
            m_oView.hide(); // what is held of deliveries is of before the pause
            m_pReading.reset();
        }
        if (!m_oSteps.hasMore()) {
            break;
        }
    }
    return EAsked::answered;
}

// That which was asked for longest ago; and each whose time has passed.
EAsked CCollector::askTurns() {
    const auto oldest = std::min_element(m_aAsked.begin(), m_aAsked.end()) - m_aAsked.begin();
    EAsked asked = EAsked::answered;
    for (int turn = 0; turn < nTurns && goesOn(asked); ++turn) {
        const auto place = static_cast<size_t>(turn);
        if (turn == oldest || CClock::now() - m_aAsked[place] > tPause) {
            m_aAsked[place] = CClock::now();
            asked = askTurn(static_cast<ETurn>(turn));
        }
    }
    return asked;
}

EAsked CCollector::askTurn(ETurn turn) {
    std::vector<SComponentView> components;
    std::vector<SCounterView> counters;
    std::optional<SListView> list;
    const EAsked asked = turn == tuComponents ? m_pQuery->askAll(makeQuestion(sqComponents), components)
                         : turn == tuCounters ? m_pQuery->askAll(makeQuestion(sqCounters), counters)
                                              : readListState(*m_pQuery, list);
    if (asked != EAsked::answered) {
        return asked;
    }
    const std::lock_guard lock(m_oMutex);
    if (turn == tuComponents && m_oView.isWhole()) {
        m_oView.takeComponents(std::move(components));
    } else if (turn == tuCounters) {
        m_oHour.add(m_oView.snapshot().m_oView.m_oSummary.m_tNow, counters);
        m_oView.takeCounters(std::move(counters));
    } else if (turn == tuList) {
        m_oView.takeList(std::move(list));
    }
    return EAsked::answered;
}

// What is owed waits for a reading that is owed too, or supersedes a patrol. Readings do not follow each other
// without a rest, so that a daemon in which much is happening is not kept busy by being looked at.
EAsked CCollector::payDebts() {
    SDebts debts;
    {
        const std::lock_guard lock(m_oMutex);
        debts = m_oView.takeDebts();
    }
    const auto now = CClock::now();
    const bool isRested = !m_oView.isWhole() || now - m_tRead > 2 * m_tReadLength;
    if (debts.m_bAll && isRested && !(m_pReading && m_bOwed)) {
        m_pReading.reset();
        if (const EAsked asked = beginReading(true); asked != EAsked::answered) {
            return asked;
        }
    } else if (debts.m_bAll) {
        const std::lock_guard lock(m_oMutex);
        m_oView.oweAll();
    } else if (m_oView.isWhole()) {
        for (const std::string& name : debts.m_oComponents) {
            if (m_bEnding) {
                break;
            }
            if (const EAsked asked = readComponent(name); asked != EAsked::answered) {
                return asked;
            }
        }
    }
    if (debts.m_bFeatures && !m_bEnding && !debts.m_bAll && !m_pReading && m_oView.isWhole()) {
        if (const EAsked asked = readFeatures(); asked != EAsked::answered) {
            return asked;
        }
    }
    if (!m_pReading && !m_bEnding && m_oView.isWhole() && now - m_tRead > tBetweenPatrols) {
        if (const EAsked asked = beginReading(false); asked != EAsked::answered) {
            return asked;
        }
    }
    return m_pReading ? readOn() : EAsked::answered;
}

// What a patrol has read of it before is out of date.
EAsked CCollector::readComponent(const std::string& name) {
    CStatusQuestion question = makeQuestion(sqDeliveries);
    question.m_nFilter = sfComponent;
    name.copy(question.m_szComponent, nNameFieldSize);
    std::vector<SComponentView> components;
    std::vector<SDeliveryView> deliveries;
    EAsked asked = m_pQuery->askAll(makeQuestion(sqComponents), components);
    if (asked == EAsked::answered) {
        asked = m_pQuery->askAll(question, deliveries);
    }
    const std::lock_guard lock(m_oMutex);
    if (asked != EAsked::answered) {
        m_oView.oweAll();
        return asked;
    }
    if (!m_bOwed) {
        m_pReading.reset();
    }
    m_oView.takeComponent(name, std::move(components), std::move(deliveries));
    return EAsked::answered;
}

// Their states change together while a list is told, so they are not read each time.
EAsked CCollector::readFeatures() {
    std::vector<TStatus<CStatusFeature>> features;
    EAsked asked = EAsked::answered;
    const bool isRested = CClock::now() - m_tFeaturesRead > tBetweenFeatures;
    if (isRested) {
        asked = m_pQuery->askAll(makeQuestion(sqFeatures), features);
        m_tFeaturesRead = CClock::now();
    }
    const std::lock_guard lock(m_oMutex);
    if (isRested && asked == EAsked::answered) {
        m_oView.takeFeatures(std::move(features));
    } else {
        m_oView.oweFeatures();
    }
    return asked;
}

EAsked CCollector::beginReading(bool isOwed) {
    auto reading = std::make_unique<SReading>();
    reading->m_nAfter = m_oView.lastStep();
    EAsked asked = m_pQuery->askAll(makeQuestion(sqComponents), reading->m_vComponents);
    if (asked == EAsked::answered) {
        asked = m_pQuery->askAll(makeQuestion(sqFeatures), reading->m_vFeatures);
    }
    if (asked == EAsked::answered) {
        m_pReading = std::move(reading);
        m_bOwed = isOwed;
        m_oReadCursor = {};
        m_tReadBegun = CClock::now();
        return asked;
    }
    const std::lock_guard lock(m_oMutex);
    m_oView.oweAll();
    return asked;
}

EAsked CCollector::readOn() {
    CStatusQuestion question = makeQuestion(sqDeliveries);
    for (int i = 0; i < (m_bOwed ? nOwedPages : nPatrolPages) && !m_bEnding; ++i) {
        question.m_oCursor = m_oReadCursor;
        SStatusPage page;
        if (const EAsked asked = m_pQuery->askPage(question, page); asked != EAsked::answered) {
            return asked;
        }
        if (page.m_oHead.m_nResult == srChanged) {
            m_pReading.reset();
            const std::lock_guard lock(m_oMutex);
            m_oView.oweAll();
            return EAsked::answered;
        }
        for (const SStatusRecord& record : page.m_vRecords) {
            m_pReading->m_vDeliveries.push_back(
                {readRecord<CStatusDelivery>(record), std::string(record.m_sText)});
        }
        m_oReadCursor = page.m_oHead.m_oCursor;
        if (page.m_oHead.m_nMore == 0) {
            m_tRead = CClock::now();
            m_tReadLength = m_bOwed ? m_tRead - m_tReadBegun : CClock::duration{};
            const std::lock_guard lock(m_oMutex);
            m_oView.takeAll(std::move(*m_pReading));
            m_pReading.reset();
            break;
        }
    }
    return EAsked::answered;
}

// Whatever was being changed may be half changed. With nothing known, all is begun anew.
void CCollector::giveUp() {
    m_pReading.reset();
    m_nDaemon = nNoHandle;
    const std::lock_guard lock(m_oMutex);
    m_oView.forget();
}

// What a round that failed had read counts all the same.
void CCollector::conclude(EAsked asked, bool isShort) {
    {
        const std::lock_guard lock(m_oMutex);
        m_eAsked = asked;
        m_bShort = isShort;
        m_nQuestions = m_pQuery ? m_pQuery->asked() : 0;
        if (!isShort && (asked == EAsked::answered || asked == EAsked::changing)) {
            m_tSilent = 0;
        } else if (m_tSilent == 0) {
            m_tSilent = std::time(nullptr);
        }
        publish();
    }
    m_oRound.notify_all();
}

void CCollector::publish() {
    m_bAwaited = false;
    m_tTold = CClock::now();
    renew();
}

void CCollector::renew() {
    m_nVersion = m_oView.publish();
    m_oChanges.clear();
    m_pWhole.reset();
    m_aMetrics = {};
}

// --- Serving ---

void CCollector::look(std::unique_lock<std::mutex>& lock, milliseconds patience) {
    m_tLooked = CClock::now();
    m_oLooked.notify_all();
    m_oRound.wait_until(lock, m_tLooked + patience,
                        [&] { return m_bEnding || (isOfNow() && (m_oView.isWhole() || m_tSilent != 0)); });
    if (!isOfNow() && m_tSilent == 0) { // so it seems; the round will tell
        m_eAsked = EAsked::changing;
        m_tSilent = std::time(nullptr);
        renew();
    }
}

// The steps of the next round are there about as long after its beginning as those of this one.
milliseconds CCollector::untilNext() const {
    const auto ends =
        m_tRound + (m_bAwaited ? milliseconds(0) : tBetweenRounds) + m_tLength + milliseconds(20);
    return std::clamp(duration_cast<milliseconds>(ends - CClock::now()), milliseconds(100),
                      milliseconds(1500));
}

bool CCollector::isOfNow() const {
    return CClock::now() - m_tTold < tFresh;
}

std::string CCollector::whyNot() const {
    return m_tSilent == 0 ? "Reading what the daemon tells"
           : m_bShort     ? "qelweb is out of memory"
                          : whyNotAnswered(m_eAsked);
}

SServed CCollector::status(const std::string& since) {
    std::unique_lock lock(m_oMutex);
    look(lock, tPatience);
    const milliseconds next = untilNext();
    if (!m_oView.isWhole()) {
        return {nullptr, whyNot(), next};
    }
    uint64_t seen = 0;
    if (since.starts_with(m_sRun + ".")) {
        std::from_chars(since.data() + m_sRun.size() + 1, since.data() + since.size(), seen);
    }
    if (seen >= m_nVersion) {
        return {nullptr, "", next};
    }
    if (!m_oView.isFollowed(seen)) {
        if (!m_pWhole) {
            m_pWhole = std::make_shared<std::string>(wholeText());
        }
        return {m_pWhole, "", next};
    }
    // Viewers are one or two versions behind. Who is not gets a text that nobody shares.
    constexpr size_t nSharedChanges = 8;
    if (const auto found = m_oChanges.find(seen); found != m_oChanges.end()) {
        return {found->second, "", next};
    }
    const auto text = std::make_shared<std::string>(changesText(seen));
    if (m_oChanges.size() < nSharedChanges) {
        m_oChanges[seen] = text;
    }
    return {text, "", next};
}

SServed CCollector::metrics(EMetricsFormat format) {
    std::unique_lock lock(m_oMutex);
    look(lock, tScrape);
    const bool isUp = m_tSilent == 0;
    const bool isDown = m_eAsked == EAsked::noDaemon || m_eAsked == EAsked::noAnswer;
    if (!(isUp ? m_oView.isWhole() : isDown)) {
        return {nullptr, whyNot(), untilNext()};
    }
    SharedText& text = m_aMetrics[static_cast<size_t>(format)];
    if (!text) {
        text = std::make_shared<std::string>(metricsText(isUp ? &m_oView.snapshot() : nullptr, format));
    }
    return {text, "", untilNext()};
}

// --- Texts ---

CJson CCollector::head() const {
    CJson document = jsonDocument("page");
    document["version"] = fmt::format("{}.{}", m_sRun, m_nVersion);
    document["questions"] = m_nQuestions;
    document["silent_since"] = m_tSilent == 0 ? CJson() : CJson(m_tSilent);
    document["silent_why"] = m_tSilent == 0 ? CJson() : CJson(whyNot());
    return document;
}

std::string CCollector::wholeText() {
    CJson document = pageData(m_oView.snapshot(), m_oView.history(), m_oStates);
    document.update(head());
    document["hour"] = m_oHour.json();
    return document.dump(-1, ' ', false, CJson::error_handler_t::replace);
}

std::string CCollector::changesText(uint64_t since) {
    const SSnapshot& snapshot = m_oView.snapshot();
    CJson document = head();
    const auto add = [&](CLiveView::EPart part, const char* key, auto make) {
        if (m_oView.isNewer(part, since)) {
            document[key] = make();
        }
    };
    add(CLiveView::paSummary, "daemon", [&] { return toJson(snapshot.m_oView.m_oSummary); });
    add(CLiveView::paFeatures, "features", [&] { return pageFeatures(snapshot.m_oView); });
    add(CLiveView::paComponents, "components", [&] { return pageComponents(snapshot.m_oView); });
    add(CLiveView::paCounters, "counters", [&] { return pageCounters(snapshot.m_vCounters); });
    add(CLiveView::paList, "list", [&] { return snapshot.m_oList ? toJson(*snapshot.m_oList) : CJson(); });
    CJson deliveries = pageDeliveries(snapshot.m_oView, m_oStates,
                                      [&](size_t pair) { return m_oView.isPairNewer(pair, since); });
    if (!deliveries["rows"].empty()) {
        document["states"] = m_oStates.all();
        document["deliveries"] = std::move(deliveries);
    }
    if (const auto steps = m_oView.stepsAfter(since); !steps.empty()) {
        document["transitions"] = pageTransitions(steps);
    }
    return document.dump(-1, ' ', false, CJson::error_handler_t::replace);
}
