// qelctl check
#include "ctl/CFeatureNames.h"
#include "ctl/check_names.h"
#include "ctl/commands.h"
#include "ctl/json.h"
#include "ctl/list_errors.h"
#include "ctl/terminal.h"
#include "source/list/list_paths.h"
#include "source/list/whole_file.h"
#include "source/trust/sealed_list.h"

#include <algorithm>
#include <fmt/format.h>
#include <optional>
#include <set>

namespace {

// What became of one file.
struct SChecked {
    std::string m_sPath;
    const char* m_szKind;
    size_t m_nCount = 0;                  // of what it holds, if it is good
    std::vector<SListError> m_vErrors;    // those that are told
    size_t m_nErrors = 0;                 // all
    std::string m_sSummary;               // if it is good
    std::optional<std::string> m_oSigner; // of a list, where it was verified

    bool isGood() const { return m_nErrors == 0; }
};

std::string summarise(const std::vector<SFeatureRecord>& features) {
    std::set<std::string> components;
    for (const auto& feature : features) {
        components.insert(feature.m_vComponents.begin(), feature.m_vComponents.end());
    }
    auto sourced =
        std::count_if(features.begin(), features.end(), [](const auto& f) { return f.m_bSourced; });
    return fmt::format("{} ({} kept from list to list) for {}", counted(features.size(), "feature"), sourced,
                       counted(components.size(), "component"));
}

// The daemon checks a list with the same functions. So what is good here is good there, except for changes
// that only the daemon can judge, since it knows the list before. Of a list whose signature is none, it would
// not read a line; here the other faults are told as well.
SChecked checkList(const std::string& path, std::vector<SFeatureRecord>& features) {
    const SWholeFile file = readWholeFile(path, nMaxListFileSize);
    CListTrust trust(trustPath());
    SSealedList sealed = judgeList(file, trust, CListTrust::now);
    if (const std::string directory = stateDirectory(); !directory.empty()) {
        checkSerial(sealed, floorOf(keptListPath(directory), trust).value_or(SSerialFloor()));
    }
    SFeatureList list = std::move(sealed.m_oList);
    if (!sealed.m_oProof.isGood()) {
        list = parseFeatureList(file.m_sText);
        list.add({0, sealed.m_oProof.m_sFault});
    }
    SChecked checked{path, "list", 0, std::move(list.m_vErrors), list.m_nErrors, "", {}};
    if (list.isGood()) {
        features = std::move(list.m_vFeatures);
        checked.m_nCount = features.size();
        checked.m_sSummary = summarise(features);
    }
    if (sealed.m_bVerified) {
        checked.m_sSummary += fmt::format("; serial {}, signed by {} (key {})", list.m_oHead.m_nSerial,
                                          printable(sealed.m_oProof.m_sSigner), sealed.m_oProof.m_sKeyId);
        checked.m_oSigner = std::move(sealed.m_oProof.m_sSigner);
    }
    return checked;
}

// Features without a name are told, but are no fault.
SChecked checkNames(const std::string& path, const std::vector<SFeatureRecord>& features) {
    const SWholeFile file = readWholeFile(path, nMaxListFileSize);
    SChecked checked{path, "descriptions", 0, {}, 0, "", {}};
    checked.m_vErrors =
        file.m_sError.empty() ? checkDescriptions(file.m_sText) : std::vector<SListError>{{0, file.m_sError}};
    checked.m_nErrors = checked.m_vErrors.size();
    checked.m_vErrors.resize(std::min(checked.m_nErrors, nMaxListErrors));
    const CFeatureNames names = CFeatureNames::parse(file.m_sText);
    const auto nameless = std::count_if(features.begin(), features.end(), [&names](const auto& feature) {
        return names.find(feature.m_nCode).empty();
    });
    checked.m_nCount = checked.isGood() ? names.size() : 0;
    checked.m_sSummary = counted(names.size(), "name");
    checked.m_sSummary += nameless != 0 ? fmt::format("; {} of the list without one",
                                                      counted(static_cast<size_t>(nameless), "feature"))
                                        : "";
    return checked;
}

void print(const SChecked& checked, bool isQuiet) {
    printErrors(checked.m_sPath, checked.m_vErrors, checked.m_nErrors);
    if (checked.isGood() && !isQuiet) {
        fmt::print("{}: good, {}\n", checked.m_sPath, checked.m_sSummary);
    }
}

void printAsJson(const std::vector<SChecked>& all) {
    CJson files = CJson::array();
    for (const SChecked& checked : all) {
        files.push_back({{"file", checked.m_sPath},
                         {"kind", checked.m_szKind},
                         {"good", checked.isGood()},
                         {"count", checked.isGood() ? CJson(checked.m_nCount) : CJson()},
                         {"signer", checked.m_oSigner ? CJson(*checked.m_oSigner) : CJson()},
                         {"error_count", checked.m_nErrors},
                         {"errors", toJson(checked.m_vErrors)}});
    }
    CJson document = jsonDocument("check");
    document["files"] = std::move(files);
    printJson(document);
}

} // namespace

int runCheck(const SCheckOptions& options) {
    std::vector<SFeatureRecord> features;
    std::vector<SChecked> all;
    if (!options.m_sList.empty()) {
        all.push_back(checkList(options.m_sList, features));
    }
    if (!options.m_sDescriptions.empty()) {
        all.push_back(checkNames(options.m_sDescriptions, features));
    }
    const bool isJson = options.m_bJson && !options.m_bQuiet;
    if (isJson) {
        printAsJson(all);
    }
    for (const SChecked& checked : all) {
        print(checked, isJson || options.m_bQuiet);
    }
    const bool isGood =
        std::all_of(all.begin(), all.end(), [](const auto& checked) { return checked.isGood(); });
    return flushOutput() && isGood ? exitOk : exitFailed;
}
