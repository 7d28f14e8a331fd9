#include "source/CFeatureLoader.h"

#include "base/clock.h"
#include "server/log/log.h"
#include "source/events.h"
#include "source/list/list_changes.h"
#include "source/list/list_digest.h"

#include <algorithm>
#include <fmt/core.h>

namespace {

constexpr size_t nMaxLoggedErrors = 50; // of one list; a faulty generator must not flood the log

SListReading readingOf(std::string_view text) {
    SListReading reading;
    reading.m_tRead = nowSeconds();
    reading.m_nDigest = listDigest(text);
    reading.m_nSize = static_cast<uint32_t>(text.size()); // nMaxListFileSize at most
    return reading;
}

// Notes that the list is no good, with the first errors.
void noteErrors(const SFeatureList& list, SListReading& reading) {
    reading.m_eResult = list.m_bPassing ? lrUnreadable : lrRefused;
    reading.m_nErrors = static_cast<uint32_t>(list.m_nErrors); // fewer than the file has bytes
    for (const SListError& error : list.m_vErrors) {
        const std::string text = fmt::format("{}: {}", error.m_nLine, error.m_sText);
        if (reading.m_sErrors.size() + text.size() >= nMaxErrorTexts) {
            return;
        }
        reading.m_sErrors.append(reading.m_sErrors.empty() ? 0 : 1, '\0').append(text);
    }
}

} // namespace

// Everything that can be wrong is found before anything is handed over, so a faulty list changes nothing.
// Lists are compared in order: the order of features is the order in which components are told, so another
// order is another list.
SLoaded CFeatureLoader::load(CMediator& mediator) {
    SLoaded loaded;
    SFeatureList list = readFeatureList(m_sPath, &loaded.m_sText);
    SListReading& reading = loaded.m_oReading = readingOf(loaded.m_sText);
    if (list.isGood()) {
        findUndeliverable(m_vAccepted, list);
    }
    if (!list.isGood()) {
        noteErrors(list, reading);
    }
    if (list.m_bPassing) {
        loaded.m_sFailure = std::move(list.m_vErrors.at(0).m_sText);
        return loaded;
    }
    if (!list.isGood()) {
        refuse(list);
        return loaded;
    }
    reading.m_nFeatures = static_cast<uint32_t>(list.m_vFeatures.size());
    if (m_bAccepted && isSameList(m_vAccepted, list.m_vFeatures)) {
        reading.m_eResult = lrUnchanged;
        logEvent(svInfo, evListUnchanged, "feature list %s: unchanged, %zu features", m_sPath.c_str(),
                 m_vAccepted.size());
        return loaded;
    }
    const size_t before = m_vAccepted.size();
    const size_t withdrawn = m_bAccepted ? countWithdrawn(m_vAccepted, list.m_vFeatures) : 0;
    accept(list, mediator, loaded);
    reading.m_nBefore = static_cast<uint32_t>(before);
    reading.m_nWithdrawn = static_cast<uint32_t>(withdrawn);
    reading.m_bMuch = isMuch(withdrawn, before);
    if (reading.m_bMuch) {
        logEvent(svWarning, evWithdrawn, "feature list %s: withdraws %zu of %zu features, more than a fifth",
                 m_sPath.c_str(), withdrawn, before);
    }
    return loaded;
}

SLoaded CFeatureLoader::loadKept(const std::string& path, CMediator& mediator) {
    SLoaded loaded;
    std::string text;
    SFeatureList list = readFeatureList(path, &text);
    if (list.isGood()) {
        loaded.m_oReading = readingOf(text);
        loaded.m_oReading.m_bKept = true;
        loaded.m_oReading.m_nFeatures = static_cast<uint32_t>(list.m_vFeatures.size());
        accept(list, mediator, loaded);
    } else {
        loaded.m_sFailure = printListError(path, list.m_vErrors.at(0));
    }
    return loaded;
}

void CFeatureLoader::accept(SFeatureList& list, CMediator& mediator, SLoaded& loaded) {
    loaded.m_vList.reserve(list.m_vFeatures.size());
    for (const SFeatureRecord& record : list.m_vFeatures) {
        loaded.m_vList.push_back(build(record, mediator));
    }
    m_oEntryNames.giveTo(loaded.m_vList);
    // Last: a list that ran out of memory above must not count as unchanged when it is read again.
    m_vAccepted = std::move(list.m_vFeatures);
    m_bAccepted = true;
    loaded.m_bNew = true;
    loaded.m_oReading.m_eResult = lrTaken;
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
