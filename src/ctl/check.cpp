// qelctl check
#include "ctl/CFeatureNames.h"
#include "ctl/check_names.h"
#include "ctl/commands.h"
#include "ctl/terminal.h"
#include "source/list/feature_list.h"
#include "source/list/whole_file.h"

#include <algorithm>
#include <fmt/format.h>
#include <set>
#include <span>

namespace {

void printSummary(const std::string& path, const std::vector<SFeatureRecord>& features) {
    std::set<std::string> components;
    for (const auto& feature : features) {
        components.insert(feature.m_vComponents.begin(), feature.m_vComponents.end());
    }
    auto sourced =
        std::count_if(features.begin(), features.end(), [](const auto& f) { return f.m_bSourced; });
    fmt::print("{}: good, {} ({} kept from list to list) for {}\n", path, counted(features.size(), "feature"),
               sourced, counted(components.size(), "component"));
}

// To stderr, while summaries go to stdout. The lists may have more errors than were kept.
void printErrors(const std::string& path, std::span<const SListError> errors, size_t all) {
    for (const SListError& error : errors) {
        fmt::print(stderr, "{}\n", paint(printListError(path, error), EColour::red, stderr));
    }
    if (all > errors.size()) {
        const std::string more = counted(all - errors.size(), "more error");
        fmt::print(stderr, "{}\n", paint(fmt::format("{}: {}", path, more), EColour::red, stderr));
    }
}

// The daemon checks a list with the same function. So what is good here is good there, except for changes
// that only the daemon can judge, since it knows the list before.
bool checkList(const std::string& path, std::vector<SFeatureRecord>& features) {
    SFeatureList list = readFeatureList(path);
    if (!list.isGood()) {
        printErrors(path, list.m_vErrors, list.m_nErrors);
        return false;
    }
    printSummary(path, list.m_vFeatures);
    features = std::move(list.m_vFeatures);
    return true;
}

// Features without a name are told, but are no fault.
bool checkNames(const std::string& path, const std::vector<SFeatureRecord>& features) {
    const SWholeFile file = readWholeFile(path, nMaxListFileSize);
    const std::vector<SListError> errors =
        file.m_sError.empty() ? checkDescriptions(file.m_sText) : std::vector<SListError>{{0, file.m_sError}};
    if (!errors.empty()) {
        printErrors(path, std::span(errors).first(std::min(errors.size(), nMaxListErrors)), errors.size());
        return false;
    }
    const CFeatureNames names = CFeatureNames::parse(file.m_sText);
    const auto nameless = std::count_if(features.begin(), features.end(), [&names](const auto& feature) {
        return names.find(feature.m_nCode).empty();
    });
    const std::string more = nameless != 0 ? fmt::format("; {} of the list without one",
                                                         counted(static_cast<size_t>(nameless), "feature"))
                                           : "";
    fmt::print("{}: good, {}{}\n", path, counted(names.size(), "name"), more);
    return true;
}

} // namespace

int runCheck(const SCheckOptions& options) {
    std::vector<SFeatureRecord> features;
    const bool isListGood = options.m_sList.empty() || checkList(options.m_sList, features);
    const bool areNamesGood =
        options.m_sDescriptions.empty() || checkNames(options.m_sDescriptions, features);
    return isListGood && areNamesGood ? exitOk : exitFailed;
}
