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

SListSeal sealOf(const SSealedList& sealed) {
    SListSeal seal;
    seal.m_bVerified = sealed.m_bVerified;
    seal.m_nSerial = sealed.m_oList.m_oHead.m_nSerial;
    sealed.m_oProof.m_sKeyId.copy(seal.m_szKeyId, sizeof seal.m_szKeyId);
    sealed.m_oProof.m_sSigner.copy(seal.m_szSigner, sizeof seal.m_szSigner);
    return seal;
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
    m_oTrustBefore = SFingerprint::of(m_oTrust.directory().c_str());
    SSealedList sealed = read(loaded);
    judgeSerial(sealed);
    SFeatureList& list = sealed.m_oList;
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
    reading.m_oSeal = sealOf(sealed);
    loaded.m_bKeptFirst = sealed.m_bVerified;
    if (m_bAccepted && isSameList(m_vAccepted, list.m_vFeatures)) {
        reading.m_eResult = lrUnchanged;
        m_oFloor = sealed.m_oFloor;
        logEvent(svInfo, evListUnchanged, "feature list %s: unchanged, %zu features", m_sPath.c_str(),
                 m_vAccepted.size());
        return loaded;
    }
    const size_t before = m_vAccepted.size();
    const size_t withdrawn = m_bAccepted ? countWithdrawn(m_vAccepted, list.m_vFeatures) : 0;
    accept(list, mediator, loaded);
    m_oFloor = sealed.m_oFloor;
    reading.m_nBefore = static_cast<uint32_t>(before);
    reading.m_nWithdrawn = static_cast<uint32_t>(withdrawn);
    reading.m_bMuch = isMuch(withdrawn, before);
    if (reading.m_bMuch) {
        logEvent(svWarning, evWithdrawn, "feature list %s: withdraws %zu of %zu features, more than a fifth",
                 m_sPath.c_str(), withdrawn, before);
    }
    return loaded;
}

SLoaded CFeatureLoader::loadKept(CMediator& mediator) {
    SLoaded loaded;
    const SWholeFile file = readWholeFile(m_sKeptPath, nMaxListFileSize);
    SSealedList sealed = judgeList(file, m_oTrust, CListTrust::ever);
    SFeatureList& list = sealed.m_oList;
    if (list.isGood()) {
        loaded.m_oReading = readingOf(file.m_sText);
        loaded.m_oReading.m_bKept = true;
        loaded.m_oReading.m_nFeatures = static_cast<uint32_t>(list.m_vFeatures.size());
        loaded.m_oReading.m_oSeal = sealOf(sealed);
        accept(list, mediator, loaded);
        m_oFloor = sealed.m_oFloor;
    } else {
        loaded.m_sFailure = printListError(m_sKeptPath, list.m_vErrors.at(0));
    }
    return loaded;
}

// A certificate that cannot be used is told once, though all goes well: the next list may
// be signed with its key.
SSealedList CFeatureLoader::read(SLoaded& loaded) {
    SWholeFile file = readWholeFile(m_sPath, nMaxListFileSize);
    SSealedList sealed = judgeList(file, m_oTrust, CListTrust::now);
    loaded.m_sText = std::move(file.m_sText);
    const std::string& warning = sealed.m_oProof.m_sWarning;
    if (!warning.empty() && warning != m_sWarned) {
        logEvent(svWarning, evTrouble, "feature list: a certificate is left out: %s", warning.c_str());
    }
    m_sWarned = warning;
    return sealed;
}

// Before a list was verified in this run, the one kept from an earlier run says what was in force. Where it
// cannot be read now, no list can be told from a lower one.
void CFeatureLoader::judgeSerial(SSealedList& sealed) {
    if (!sealed.m_bVerified) {
        return;
    }
    if (m_oFloor.m_nSerial == 0 && !m_sKeptPath.empty()) {
        const std::optional<SSerialFloor> kept = floorOf(m_sKeptPath, m_oTrust);
        if (!kept) {
            sealed.m_oList.add({0, "cannot be compared with the list taken last, " + m_sKeptPath});
            sealed.m_oList.m_bPassing = true;
            return;
        }
        m_oFloor = *kept;
    }
    checkSerial(sealed, m_oFloor);
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
