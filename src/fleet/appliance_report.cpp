#include "fleet/appliance_report.h"

#include "ctl/json.h"
#include "ctl/pairs.h"
#include "ctl/terminal.h"

#include <algorithm>
#include <ctime>
#include <fmt/format.h>

namespace {

constexpr size_t nMaxState = size_t{1} << 20; // bytes: many times what an agent tells
constexpr size_t nMaxText = 200;

// Null where the key is missing or `object` is none.
const CJson& at(const CJson& object, const char* key) {
    static const CJson none;
    const auto found = object.is_object() ? object.find(key) : object.end();
    return object.is_object() && found != object.end() ? *found : none;
}

std::string textAt(const CJson& object, const char* key) {
    const CJson& value = at(object, key);
    return value.is_string() ? cut(printable(value.get_ref<const std::string&>()), nMaxText) : "";
}

uint64_t numberAt(const CJson& object, const char* key) {
    const CJson& value = at(object, key);
    return value.is_number_unsigned() ? value.get<uint64_t>() : 0;
}

bool flagAt(const CJson& object, const char* key) {
    const CJson& value = at(object, key);
    return value.is_boolean() && value.get<bool>();
}

// "2026-11-23T20:02:36Z" in seconds since the epoch; 0: it is no time.
int64_t timeAt(const CJson& object, const char* key) {
    std::tm time{};
    const std::string text = textAt(object, key);
    const char* end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &time);
    return end != nullptr && *end == 0 ? std::max<int64_t>(timegm(&time), 0) : 0;
}

std::string firstError(const CJson& errors) {
    return errors.is_array() && !errors.empty() ? textAt(errors.front(), "text") : "";
}

std::string describeProblem(const CJson& problem) {
    const std::string why = textAt(problem, "why");
    const std::string reason = textAt(problem, "reason");
    return fmt::format("{} {} {}{}", textAt(problem, "component"),
                       why == "refused"     ? "refuses"
                       : why == "no answer" ? "does not answer to"
                                            : "does not keep",
                       numberAt(problem, "code"), reason.empty() ? "" : fmt::format(" \"{}\"", reason));
}

void readDaemon(SApplianceReport& report, const CJson& state) {
    const CJson& list = at(state, "list");
    report.m_bInForce = flagAt(list, "in_force");
    report.m_sDigest = textAt(list, "digest");
    report.m_nSerial = numberAt(list, "serial");
    report.m_sSigner = textAt(list, "signer");
    report.m_sReadDigest = textAt(list, "read_digest");
    report.m_sReadResult = textAt(list, "result");
    report.m_sReadError = firstError(at(list, "errors"));
    const CJson& deliveries = at(state, "deliveries");
    report.m_nDelivered = numberAt(deliveries, "delivered");
    report.m_nFailed = numberAt(deliveries, "failed");
    report.m_nUnderWay = numberAt(deliveries, "under_way");
    report.m_nIdle = numberAt(deliveries, "idle");
    report.m_nProblems = numberAt(state, "problem_count");
    const CJson& problems = at(state, "problems");
    if (problems.is_array() && !problems.empty()) {
        report.m_sFirstProblem = describeProblem(problems.front());
        report.m_bRefusal = std::any_of(problems.begin(), problems.end(), [](const CJson& problem) {
            return textAt(problem, "why") == "refused";
        });
    }
}

// Times in a state may be any; one that is yet to come is now.
std::string ageOf(int64_t since, int64_t now) {
    const auto seconds = [](int64_t time) {
        return static_cast<uint32_t>(std::clamp<int64_t>(time, 0, UINT32_MAX));
    };
    return age(seconds(since), seconds(now));
}

} // namespace

std::optional<SApplianceReport> readReport(std::string_view text) {
    if (text.size() > nMaxState) {
        return std::nullopt;
    }
    const CJson state = CJson::parse(text, nullptr, false);
    if (!state.is_object() || !at(state, "online").is_boolean()) {
        return std::nullopt;
    }
    SApplianceReport report;
    report.m_bOnline = flagAt(state, "online");
    report.m_tLeft = timeAt(state, "left");
    report.m_tConnected = timeAt(state, "connected");
    for (const CJson& group : at(state, "groups")) {
        if (group.is_string()) {
            report.m_vGroups.push_back(cut(printable(group.get_ref<const std::string&>()), nMaxText));
        }
    }
    const CJson& desired = at(state, "desired");
    report.m_sTopic = textAt(desired, "topic");
    report.m_sDesired = textAt(desired, "digest");
    report.m_sResult = textAt(desired, "result");
    report.m_sTrouble = textAt(desired, "trouble");
    if (report.m_sTrouble.empty()) {
        report.m_sTrouble = firstError(at(desired, "errors"));
    }
    report.m_bDaemon = report.m_bOnline && flagAt(at(state, "daemon"), "running");
    if (report.m_bDaemon) {
        readDaemon(report, state);
    }
    return report;
}

bool SApplianceReport::hasInForce(std::string_view digest) const {
    const bool isRead = m_sReadDigest == digest && (m_sReadResult == "taken" || m_sReadResult == "unchanged");
    return m_bInForce && (m_sDigest == digest || isRead);
}

// The daemon has the last word: what it holds in force was placed before, whatever became of a later attempt.
EListAnswer answerOf(const SApplianceReport& report, std::string_view digest) {
    if (!report.m_bOnline) {
        return EListAnswer::offline;
    }
    if (report.hasInForce(digest)) {
        const bool hasFailed = report.m_nFailed != 0 || report.m_nProblems != 0;
        return hasFailed && report.m_bRefusal ? EListAnswer::refused
               : hasFailed                    ? EListAnswer::gaveUp
               : report.m_nUnderWay != 0      ? EListAnswer::pending
                                              : EListAnswer::delivered;
    }
    const bool isOurs = report.m_sDesired == digest;
    if ((isOurs && report.m_sResult == "refused") ||
        (report.m_sReadDigest == digest && report.m_sReadResult == "refused")) {
        return EListAnswer::refused;
    }
    return isOurs && report.m_sResult == "failed" ? EListAnswer::gaveUp : EListAnswer::pending;
}

std::string problemOf(const SApplianceReport& report) {
    if (!report.m_bOnline) {
        return "offline";
    }
    if (report.m_sResult == "refused") {
        return "refuses the list: " + report.m_sTrouble;
    }
    if (report.m_sResult == "failed") {
        return "cannot place the list: " + report.m_sTrouble;
    }
    if (!report.m_bDaemon) {
        return "no daemon";
    }
    if (report.m_sReadResult == "refused") {
        return "its daemon refuses the list: " + report.m_sReadError;
    }
    if (!report.m_bInForce) {
        return "no list in force";
    }
    if (report.m_nProblems > 1) {
        return fmt::format("{} and {} more", report.m_sFirstProblem, report.m_nProblems - 1);
    }
    return report.m_sFirstProblem;
}

std::string sourceOf(const SApplianceReport& report) {
    const std::string& topic = report.m_sTopic;
    if (const size_t group = topic.find("/desired/group/"); group != std::string::npos) {
        return "group " + topic.substr(group + std::string_view("/desired/group/").size());
    }
    return topic.find("/desired/appliance/") != std::string::npos ? "own" : "";
}

std::string seenOf(const SApplianceReport& report, int64_t now) {
    if (report.m_bOnline) {
        return "now";
    }
    if (report.m_tLeft != 0) {
        return ageOf(report.m_tLeft, now);
    }
    return report.m_tConnected != 0 ? "<" + ageOf(report.m_tConnected, now) : "";
}
