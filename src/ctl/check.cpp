// qelctl check
#include "ctl/commands.h"
#include "ctl/terminal.h"
#include "source/list/feature_list.h"

#include <algorithm>
#include <fmt/format.h>
#include <set>

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

} // namespace

// The daemon checks a list with the same function. So what is good here is good there, except for changes
// that only the daemon can judge, since it knows the list before. Errors go to stderr, the summary to stdout.
int runCheck(const std::string& path) {
    SFeatureList list = readFeatureList(path);
    if (list.isGood()) {
        printSummary(path, list.m_vFeatures);
        return exitOk;
    }
    for (const auto& error : list.m_vErrors) {
        fmt::print(stderr, "{}\n", paint(printListError(path, error), EColour::red, stderr));
    }
    if (list.m_nErrors > list.m_vErrors.size()) {
        const std::string more = counted(list.m_nErrors - list.m_vErrors.size(), "more error");
        fmt::print(stderr, "{}\n", paint(fmt::format("{}: {}", path, more), EColour::red, stderr));
    }
    return exitFailed;
}
