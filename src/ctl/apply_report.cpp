#include "ctl/apply_report.h"

#include "ctl/CFeatureNames.h"
#include "ctl/json.h"
#include "ctl/terminal.h"

#include <array>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace {

// By EApplyResult.
constexpr std::array<const char*, 5> aResultWords = {"applied", "unchanged", "dry run", "refused", "failed"};

struct SKind {
    const char* m_szWord;
    char m_cSign;
    EColour m_eColour;
};

SKind kindOf(const SFeatureChange& change) {
    if (change.m_pBefore == nullptr) {
        return {"added", '+', EColour::green};
    }
    return change.m_pAfter == nullptr ? SKind{"withdrawn", '-', EColour::red}
                                      : SKind{"changed", '~', EColour::yellow};
}

// Who was there before and stays is named only where the data concerns them.
std::string whom(const SFeatureChange& change) {
    if (change.m_pBefore == nullptr || change.m_pAfter == nullptr) {
        return fmt::format("{}", fmt::join(change.record().m_vComponents, ", "));
    }
    std::vector<std::string> words = change.isOfData() ? change.kept() : std::vector<std::string>();
    for (const std::string& name : change.added()) {
        words.push_back("+" + name);
    }
    for (const std::string& name : change.dropped()) {
        words.push_back("-" + name);
    }
    return fmt::format("{}", fmt::join(words, ", "));
}

std::string describe(const SFeatureChange& change, std::string_view name) {
    const SFeatureRecord& record = change.record();
    std::string text = change.isOfData() ? fmt::format("{}: {} -> {}", record.m_nCode,
                                                       change.m_pBefore->m_nData, record.m_nData)
                                         : fmt::format("{}:{}", record.m_nCode, record.m_nData);
    if (!name.empty()) {
        text += " " + printable(name);
    }
    if (const std::string names = whom(change); !names.empty()) {
        text += " (" + names + ")";
    }
    if (change.m_pBefore != nullptr && change.m_pAfter != nullptr &&
        change.m_pBefore->m_bSourced != record.m_bSourced) {
        text += record.m_bSourced ? ", now sourced" : ", no longer sourced";
    }
    return text;
}

CJson jsonOf(const SFeatureChange& change, std::string_view name) {
    const SFeatureRecord& record = change.record();
    CJson object = {{"change", kindOf(change).m_szWord},
                    {"code", record.m_nCode},
                    {"data", record.m_nData},
                    {"name", name},
                    {"sourced", record.m_bSourced},
                    {"components", record.m_vComponents}};
    if (change.m_pBefore != nullptr && change.m_pAfter != nullptr) {
        object["data_before"] = change.m_pBefore->m_nData;
        object["sourced_before"] = change.m_pBefore->m_bSourced;
        object["components_added"] = change.added();
        object["components_dropped"] = change.dropped();
    }
    return object;
}

} // namespace

void printChange(const CListChange& change) {
    if (change.isNothing()) {
        fmt::print("no feature changes\n");
        return;
    }
    const CFeatureNames names = CFeatureNames::load();
    for (const SFeatureChange& one : change.changes()) {
        const SKind kind = kindOf(one);
        const std::string text =
            fmt::format("{} {}", kind.m_cSign, describe(one, names.find(one.record().m_nCode)));
        fmt::print("{}\n", paint(text, kind.m_eColour, stdout));
    }
    fmt::print("{} added, {} withdrawn, {} changed: {} told of {}; {} without 'sourced' told again\n",
               change.added(), change.withdrawn(), change.changed(),
               counted(change.told().size(), "component"), counted(change.toldOf(), "feature"),
               change.toldAgain());
}

void printApplyJson(const SApplyReport& report) {
    CJson document = jsonDocument(report.m_szCommand);
    document["file"] = report.m_sFile;
    document["list"] = report.m_sList;
    document["result"] = aResultWords[static_cast<size_t>(report.m_eResult)];
    document["error"] = report.m_sError.empty() ? CJson() : CJson(report.m_sError);
    document["errors"] = toJson(report.m_oFaults.m_vErrors);
    if (const CListChange* change = report.m_pChange; change != nullptr) {
        document["features"] = {{"before", report.m_nBefore},       {"after", report.m_nAfter},
                                {"added", change->added()},         {"withdrawn", change->withdrawn()},
                                {"changed", change->changed()},     {"told_of", change->toldOf()},
                                {"told_again", change->toldAgain()}};
        document["components_told"] = change->told();
        document["changes"] = CJson::array();
        const CFeatureNames names = CFeatureNames::load();
        for (const SFeatureChange& one : change->changes()) {
            document["changes"].push_back(jsonOf(one, names.find(one.record().m_nCode)));
        }
    }
    if (const CApplyWait* wait = report.m_pWait; wait != nullptr && wait->hasAnswered()) {
        document["delivery"] = {
            {"taken", wait->isTaken()}, {"seconds", wait->seconds()}, {"counts", toJson(wait->counts())}};
    }
    printJson(document);
}
