#include "fleet/rollout_rules.h"

#include "source/list/list_digest.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <set>

namespace {

constexpr double nSlack = 1e-9; // for per cents that no binary fraction can hold

bool isOnline(const CReports& reports, const std::string& name) {
    const auto found = reports.find(name);
    return found != reports.end() && found->second.m_bOnline;
}

SRolloutCounts count(const SRollout& rollout, const CReports& reports, int64_t now) {
    SRolloutCounts counts;
    counts.m_nReached = reachOf(rollout, rollout.m_nStep);
    const bool isLate = now - rollout.m_tStep >= rollout.m_nPatience;
    const std::set<std::string_view> away(rollout.m_vAway.begin(), rollout.m_vAway.end());
    for (size_t i = 0; i < counts.m_nReached; ++i) {
        const auto found = reports.find(rollout.m_vAppliances[i]);
        const EListAnswer answer =
            found == reports.end() ? EListAnswer::offline : answerOf(found->second, rollout.m_sDigest);
        switch (answer) {
        case EListAnswer::delivered:
            ++counts.m_nDelivered;
            break;
        case EListAnswer::refused:
            ++counts.m_nRefused;
            break;
        case EListAnswer::gaveUp:
            ++counts.m_nGaveUp;
            break;
        case EListAnswer::offline:
            ++(away.count(rollout.m_vAppliances[i]) != 0 ? counts.m_nAway : counts.m_nSilent);
            break;
        case EListAnswer::pending:
            ++(isLate ? counts.m_nSilent : counts.m_nPending);
            break;
        }
    }
    return counts;
}

double share(size_t part, size_t whole) {
    return 100.0 * static_cast<double>(part) / static_cast<double>(whole);
}

std::string badText(const SRolloutCounts& counts) {
    return fmt::format("{} refused, {} gave up, {} fell silent", counts.m_nRefused, counts.m_nGaveUp,
                       counts.m_nSilent);
}

} // namespace

std::string SRolloutCounts::text() const {
    std::string text = fmt::format("{} of {} delivered", m_nDelivered, m_nReached);
    const auto add = [&](size_t number, const char* word) {
        text += number == 0 ? "" : fmt::format(", {} {}", number, word);
    };
    add(m_nRefused, "refused");
    add(m_nGaveUp, "gave up");
    add(m_nSilent, "fell silent");
    add(m_nAway, "away");
    add(m_nPending, "under way");
    return text;
}

size_t reachOf(const SRollout& rollout, size_t step) {
    const size_t all = rollout.m_vAppliances.size();
    const double exact = static_cast<double>(all) * rollout.m_vSteps[step] / 100;
    return std::min(all, static_cast<size_t>(std::ceil(exact - nSlack)));
}

void orderAppliances(SRollout& rollout, const CReports& reports) {
    const auto rank = [&](const std::string& name) {
        return std::pair(!isOnline(reports, name), listDigest(rollout.m_sId + name));
    };
    std::sort(rollout.m_vAppliances.begin(), rollout.m_vAppliances.end(),
              [&](const std::string& one, const std::string& other) { return rank(one) < rank(other); });
}

bool noteAway(SRollout& rollout, const CReports& reports, size_t from) {
    const size_t before = rollout.m_vAway.size();
    for (size_t i = from; i < reachOf(rollout, rollout.m_nStep); ++i) {
        if (!isOnline(reports, rollout.m_vAppliances[i])) {
            rollout.m_vAway.push_back(rollout.m_vAppliances[i]);
        }
    }
    return rollout.m_vAway.size() != before;
}

bool noteReturned(SRollout& rollout, const CReports& reports) {
    return std::erase_if(rollout.m_vAway, [&](const std::string& name) { return isOnline(reports, name); }) !=
           0;
}

SJudgement judge(const SRollout& rollout, const CReports& reports, int64_t now) {
    SJudgement judgement{EVerdict::wait, "", count(rollout, reports, now)};
    const SRolloutCounts& counts = judgement.m_oCounts;
    const size_t judged = counts.m_nReached - counts.m_nAway;
    if (judged == 0) {
        judgement.m_sReason = "nobody of this step is there";
        return judgement;
    }
    const size_t answered = counts.answered();
    const bool isEnough = answered >= std::min<uint64_t>(rollout.m_nAtLeast, judged);
    if (isEnough && answered != 0 && share(counts.bad(), answered) > rollout.m_nStopAt + nSlack) {
        judgement.m_eVerdict = EVerdict::stop;
        judgement.m_sReason = fmt::format("{} of {} that answered: more than {:g} %", badText(counts),
                                          answered, rollout.m_nStopAt);
    } else if (share(counts.m_nDelivered, judged) >= rollout.m_nSuccess - nSlack) {
        const bool isLast = rollout.m_nStep + 1 == rollout.m_vSteps.size();
        judgement.m_eVerdict = isLast ? EVerdict::finish : EVerdict::next;
    } else if (answered == judged) {
        judgement.m_eVerdict = EVerdict::stop;
        judgement.m_sReason =
            fmt::format("{} of {}: {:g} % cannot be reached", badText(counts), judged, rollout.m_nSuccess);
    }
    return judgement;
}

std::vector<std::string> inCommon(const SRollout& one, const SRollout& other) {
    const std::set<std::string_view> names(one.m_vAppliances.begin(), one.m_vAppliances.end());
    std::vector<std::string> common;
    std::copy_if(other.m_vAppliances.begin(), other.m_vAppliances.end(), std::back_inserter(common),
                 [&](const std::string& name) { return names.count(name) != 0; });
    return common;
}
