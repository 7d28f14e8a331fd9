#include "CDemoList.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <fstream>
#include <stdexcept>

CDemoList CDemoList::read(const std::string& path) {
    SFeatureList file = readFeatureList(path);
    if (!file.isGood()) {
        throw std::runtime_error(printListError(path, file.m_vErrors.front()));
    }
    CDemoList list;
    list.m_vFeatures = std::move(file.m_vFeatures);
    return list;
}

void CDemoList::write(const std::string& path) const {
    const std::string fresh = path + ".new";
    std::ofstream file(fresh);
    file << fmt::format("count = {}\n", m_vFeatures.size());
    for (const SFeatureRecord& feature : m_vFeatures) {
        file << '\n' << printFeature(feature);
    }
    file.close();
    if (!file) {
        throw std::runtime_error(fresh + " cannot be written");
    }
    std::filesystem::rename(fresh, path);
}

SFeatureRecord& CDemoList::find(uint32_t code) {
    const auto found = std::ranges::find(m_vFeatures, code, &SFeatureRecord::m_nCode);
    if (std::ranges::count(m_vFeatures, code, &SFeatureRecord::m_nCode) != 1) {
        throw std::runtime_error(fmt::format("the example list must have one feature {}", code));
    }
    return *found;
}

void CDemoList::insert(bool atFront, SFeatureRecord feature) {
    if (std::ranges::count(m_vFeatures, feature.m_nCode, &SFeatureRecord::m_nCode) != 0) {
        throw std::runtime_error(fmt::format("the example list must not have a feature {}", feature.m_nCode));
    }
    m_vFeatures.insert(atFront ? m_vFeatures.begin() : m_vFeatures.end(), std::move(feature));
}

void CDemoList::remove(uint32_t code) {
    find(code);
    std::erase_if(m_vFeatures, [code](const SFeatureRecord& feature) { return feature.m_nCode == code; });
}

std::set<CDemoList::CPair> CDemoList::concerning(const std::string& component) const {
    std::set<CPair> pairs;
    for (const SFeatureRecord& feature : m_vFeatures) {
        if (std::ranges::count(feature.m_vComponents, component) != 0) {
            pairs.emplace(feature.m_nCode, feature.m_nData);
        }
    }
    return pairs;
}

std::set<CDemoList::CPair> CDemoList::shown() const {
    std::set<CPair> pairs;
    for (const SFeatureRecord& feature : m_vFeatures) {
        if (!feature.m_bSourced) {
            pairs.emplace(feature.m_nCode, feature.m_nData);
        }
    }
    return pairs;
}

std::string printFeature(const SFeatureRecord& feature) {
    const std::string names = feature.m_vComponents.empty()
                                  ? ""
                                  : fmt::format("\"{}\"", fmt::join(feature.m_vComponents, "\", \""));
    return fmt::format("[[feature]]\ncode = {}\ndata = {}\ncomponents = [{}]\n{}", feature.m_nCode,
                       feature.m_nData, names, feature.m_bSourced ? "sourced = true\n" : "");
}
