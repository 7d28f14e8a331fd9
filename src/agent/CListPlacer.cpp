#include "agent/CListPlacer.h"

#include "source/list/CListStore.h"
#include "source/list/list_changes.h"
#include "source/list/list_digest.h"
#include "source/list/list_paths.h"
#include "source/list/whole_file.h"
#include "source/trust/sealed_list.h"

#include <algorithm>
#include <utility>

namespace {

constexpr size_t nMaxTold = 20; // errors; whoever made the list has `qelctl check` for all of them

SPlacing refused(SPlacing placing, SFeatureList list) {
    placing.m_ePlaced = EPlaced::refused;
    placing.m_vErrors = std::move(list.m_vErrors);
    placing.m_vErrors.resize(std::min(placing.m_vErrors.size(), nMaxTold));
    return placing;
}

// No lower serial than those of the list that the daemon took last and of the one in place.
SSerialFloor floorHere(const SWholeFile& inPlace, CListTrust& trust) {
    const std::string directory = stateDirectory();
    const SSerialFloor kept =
        directory.empty() ? SSerialFloor() : floorOf(keptListPath(directory), trust).value_or(SSerialFloor());
    const SSerialFloor before = judgeList(inPlace, trust, CListTrust::ever).m_oFloor;
    return before.m_nSerial > kept.m_nSerial ? before : kept;
}

} // namespace

const char* wordOf(EPlaced placed) {
    switch (placed) {
    case EPlaced::inPlace:
        return "in place";
    case EPlaced::refused:
        return "refused";
    case EPlaced::failed:
        return "failed";
    }
    return "";
}

SPlacing placeList(const std::string& path, std::string_view text) {
    SPlacing placing;
    placing.m_nDigest = listDigest(text);
    CListTrust trust(trustPath());
    SSealedList sealed;
    if (text.size() > nMaxListFileSize) {
        sealed.m_oList.add({0, "longer than a list may be"});
    } else {
        sealed = judgeList({std::string(text), "", false}, trust, CListTrust::now);
    }
    if (sealed.m_oProof.m_bPassing) {
        placing.m_ePlaced = EPlaced::failed;
        placing.m_sTrouble = sealed.m_oProof.m_sFault;
        return placing;
    }
    if (!sealed.m_oList.isGood()) {
        return refused(std::move(placing), std::move(sealed.m_oList));
    }
    CListStore store(path);
    placing.m_sTrouble = store.lock();
    if (placing.m_sTrouble.empty()) {
        const SWholeFile before = readWholeFile(store.path(), nMaxListFileSize);
        if (before.m_sError.empty() && before.m_sText == text) {
            return placing;
        }
        findUndeliverable(parseFeatureList(before.m_sText).m_vFeatures, sealed.m_oList);
        checkSerial(sealed, floorHere(before, trust));
        if (!sealed.m_oList.isGood()) {
            return refused(std::move(placing), std::move(sealed.m_oList));
        }
        placing.m_sTrouble = store.put(text, before.m_sError.empty() ? &before.m_sText : nullptr);
    }
    placing.m_ePlaced = placing.m_sTrouble.empty() ? EPlaced::inPlace : EPlaced::failed;
    return placing;
}
