#include "source/CFeatureLoader.h"

#include "server/log/log.h"
#include "source/events.h"

#include <fmt/core.h>

#include <algorithm>
#include <unordered_map>

namespace {

constexpr size_t nMaxLoggedErrors = 50; // of one list; a faulty generator must not flood the log

// The line is left out: a comment or a blank line more makes no new list.
bool isSameContent(const SFeatureRecord& one, const SFeatureRecord& other) {
    return one.m_nCode == other.m_nCode && one.m_nData == other.m_nData &&
           one.m_bSourced == other.m_bSourced && one.m_vComponents == other.m_vComponents;
}

// By code, the record that is the only one with it; null where several records have the code.
std::unordered_map<uint32_t, const SFeatureRecord*>
singleRecords(const std::vector<SFeatureRecord>& records) {
    std::unordered_map<uint32_t, const SFeatureRecord*> singles;
    singles.reserve(records.size());
    for (const SFeatureRecord& record : records) {
        const auto [place, isNew] = singles.try_emplace(record.m_nCode, &record);
        if (!isNew) {
            place->second = nullptr;
        }
    }
    return singles;
}

} // namespace

// Everything that can be wrong is found before anything is handed over, so a faulty list changes nothing.
// Lists are compared in order: the order of features is the order in which components are told, so another
// order is another list.
SLoaded CFeatureLoader::load(CMediator& mediator) {
    SLoaded loaded;
    SFeatureList list = readFeatureList(m_sPath);
    if (list.m_bPassing) {
        loaded.m_sFailure = std::move(list.m_vErrors.at(0).m_sText);
        return loaded;
    }
    if (list.isGood()) {
        findUndeliverable(list);
    }
    if (!list.isGood()) {
        refuse(list);
        return loaded;
    }
    if (m_bAccepted && std::equal(m_vAccepted.begin(), m_vAccepted.end(), list.m_vFeatures.begin(),
                                  list.m_vFeatures.end(), isSameContent)) {
        logEvent(svInfo, evListUnchanged, "feature list %s: unchanged, %zu features", m_sPath.c_str(),
                 m_vAccepted.size());
        return loaded;
    }
    loaded.m_vList.reserve(list.m_vFeatures.size());
    for (const SFeatureRecord& record : list.m_vFeatures) {
        loaded.m_vList.push_back(build(record, mediator));
    }
    m_oEntryNames.giveTo(loaded.m_vList);
    // Last: a list that ran out of memory above must not count as unchanged when it is read again.
    m_vAccepted = std::move(list.m_vFeatures);
    m_bAccepted = true;
    loaded.m_bNew = true;
    return loaded;
}

void CFeatureLoader::refuse(const SFeatureList& list) const {
    const size_t logged = std::min(list.m_vErrors.size(), nMaxLoggedErrors);
    for (size_t i = 0; i < logged; ++i) {
        logEvent(svError, evListError, "%s", printListError(m_sPath, list.m_vErrors[i]).c_str());
    }
    logEvent(svError, evListRefused, "feature list %s refused: %zu errors, %zu of them told; %s",
             m_sPath.c_str(), list.m_nErrors, logged,
             m_bAccepted ? "the list in force stays in force" : "no list is in force");
}

// A modification to 0 cannot be told, because pending data of 0 means that none is pending. Only a sourced
// feature is modified, and only if its code stands once before and after. Any other change of data is a
// withdrawal and a new feature, for which 0 is as good as any value.
void CFeatureLoader::findUndeliverable(SFeatureList& list) const {
    const auto accepted = singleRecords(m_vAccepted);
    const auto fresh = singleRecords(list.m_vFeatures);
    for (const SFeatureRecord& record : list.m_vFeatures) {
        const auto before = accepted.find(record.m_nCode);
        if (!record.m_bSourced || record.m_nData != 0 || fresh.at(record.m_nCode) == nullptr ||
            before == accepted.end() || before->second == nullptr) {
            continue;
        }
        if (before->second->m_bSourced && before->second->m_nData != 0) {
            list.add(
                {record.m_nLine, fmt::format("the data of sourced feature {} cannot change from {} to 0: "
                                             "withdraw it with one list, bring it back with the next",
                                             record.m_nCode, before->second->m_nData)});
        }
    }
}

// The names go into the pool: the record dies with the next list, while the entry may stay in force.
SFreshFeature CFeatureLoader::build(const SFeatureRecord& record, CMediator& mediator) {
    auto entry = std::make_unique<CFeatureEntry>(&mediator);
    entry->m_nCode = record.m_nCode;
    entry->m_nData = record.m_nData;
    for (const std::string& name : record.m_vComponents) {
        entry->addCompName(m_oNames.intern(name));
    }
    return {std::move(entry), record.m_bSourced};
}
