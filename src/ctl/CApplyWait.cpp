#include "ctl/CApplyWait.h"

#include "ctl/list_errors.h"
#include "ctl/terminal.h"

#include <algorithm>
#include <fmt/format.h>
#include <thread>
#include <unordered_map>

namespace {

constexpr std::chrono::milliseconds tPoll{250};
// Between readings of the tables while no transition tells that something has changed: components die without one.
constexpr std::chrono::seconds tReread{2};
constexpr std::chrono::seconds tAnswer{10};

uint64_t pairOf(uint32_t code, uint32_t data) {
    return uint64_t{code} << 32 | data;
}

bool isAlike(const SFeatureView& feature, const SFeatureRecord& record) {
    const auto names = feature.concerned();
    return (feature.m_nSourced != 0) == record.m_bSourced &&
           std::is_permutation(names.begin(), names.end(), record.m_vComponents.begin(),
                               record.m_vComponents.end());
}

} // namespace

CApplyWait::CApplyWait(double seconds, bool isProgress)
    : m_oQuery(tAnswer), m_tLimit(seconds), m_oProgress(isProgress) {
    SSummaryView summary;
    if (readSummary(m_oQuery, summary) == EAsked::answered) {
        m_oBefore = std::move(summary);
    }
}

// A daemon that goes meanwhile may be one that is restarted. Without one at the beginning there is nothing to
// wait for: it takes the list when it starts.
EExitStatus CApplyWait::run(const SWanted& wanted) {
    const auto start = CClock::now();
    const auto isOver = [&] { return CClock::now() - start >= m_tLimit; };
    EAsked asked = look(wanted);
    while (!isDone() && !isRefused(wanted) && m_oBefore && !isOver()) {
        m_oProgress.show(m_bRead ? progress() : "the daemon is starting");
        std::this_thread::sleep_for(tPoll);
        asked = look(wanted);
    }
    m_nSeconds = std::chrono::duration<double>(CClock::now() - start).count();
    m_oProgress.clear();
    if (asked != EAsked::answered && asked != EAsked::changing) {
        return static_cast<EExitStatus>(reportAsked(asked));
    }
    if (isRefused(wanted)) {
        complain("the daemon has refused the list");
        printErrors(m_oList->path(), m_oList->errors(), m_oList->m_nErrors);
        return exitRefused;
    }
    return !m_bTaken || m_oCounts.m_nUnderWay != 0 ? exitNotYet : m_oCounts.exitStatus();
}

EAsked CApplyWait::look(const SWanted& wanted) {
    SSummaryView summary;
    EAsked asked = readSummary(m_oQuery, summary);
    if (asked != EAsked::answered || !isDue(summary)) {
        return asked;
    }
    asked = m_oView.read(m_oQuery);
    if (asked == EAsked::answered) {
        asked = m_oView.readPairs(m_oQuery, {}, CDaemonView::EExtent::open);
    }
    if (asked == EAsked::answered) {
        asked = readListState(m_oQuery, m_oList);
    }
    if (asked == EAsked::answered) {
        m_bRead = true;
        m_tRead = CClock::now();
        m_oCounts = countPairs(m_oView.m_vPairs);
        m_bTaken = isInForce(wanted.m_vList) && judgeTaken(wanted);
    }
    return asked;
}

bool CApplyWait::judgeTaken(const SWanted& wanted) const {
    if (m_oList) {
        return number(m_oList->m_aDigest) == wanted.m_nDigest &&
               number(m_oList->m_aReadDigest) == wanted.m_nDigest;
    }
    const bool isMoved = !m_oBefore || m_oBefore->m_tStarted != m_oView.m_oSummary.m_tStarted ||
                         number(m_oBefore->m_aLastTransition) != number(m_oView.m_oSummary.m_aLastTransition);
    return isMoved || !wanted.m_bToldAgain || m_oView.m_vPairs.empty();
}

bool CApplyWait::isRefused(const SWanted& wanted) const {
    return m_oList && m_oList->isRefused() && number(m_oList->m_aReadDigest) == wanted.m_nDigest;
}

bool CApplyWait::isDue(const SSummaryView& summary) const {
    return !m_bRead || !m_bTaken || CClock::now() - m_tRead >= tReread || m_oView.isOutdated(summary);
}

// A feature that is being modified stands for its new data. What is withdrawn no longer counts.
bool CApplyWait::isInForce(const std::vector<SFeatureRecord>& list) const {
    std::unordered_map<uint64_t, const SFeatureView*> features;
    for (const SFeatureView& feature : m_oView.m_vFeatures) {
        const std::string_view status = featureWord(feature.m_nStatus);
        const bool isModified = status == "modify" && feature.m_nNewData != 0;
        if (status != "deleted") {
            features.emplace(pairOf(feature.m_nCode, isModified ? feature.m_nNewData : feature.m_nData),
                             &feature);
        }
    }
    return features.size() == list.size() &&
           std::all_of(list.begin(), list.end(), [&](const SFeatureRecord& record) {
               const auto found = features.find(pairOf(record.m_nCode, record.m_nData));
               return found != features.end() && isAlike(*found->second, record);
           });
}

std::string CApplyWait::text() const {
    const size_t all = m_oCounts.m_nDelivered + m_oCounts.m_nFailed + m_oCounts.m_nUnderWay;
    const std::string failed =
        m_oCounts.m_nFailed == 0 ? "" : fmt::format(", {}", counted(m_oCounts.m_nFailed, "problem"));
    return !m_bTaken ? fmt::format("not taken by the daemon after {:.1f} s", m_nSeconds)
                     : fmt::format("{} of {} delivered{} after {:.1f} s", m_oCounts.m_nDelivered, all, failed,
                                   m_nSeconds);
}

std::string CApplyWait::progress() const {
    if (!m_bTaken) {
        return "the daemon reads the list";
    }
    const size_t all = m_oCounts.m_nDelivered + m_oCounts.m_nFailed + m_oCounts.m_nUnderWay;
    return fmt::format("{} of {} delivered, next pass in {} s", m_oCounts.m_nDelivered, all,
                       (m_oView.m_oSummary.m_nNextPass + 500) / 1000);
}
