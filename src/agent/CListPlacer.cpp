#include "agent/CListPlacer.h"

#include "source/list/CListStore.h"
#include "source/list/list_changes.h"
#include "source/list/list_digest.h"
#include "source/list/list_paths.h"
#include "source/list/whole_file.h"
#include "source/trust/sealed_list.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <utility>

namespace {

constexpr size_t nMaxTold = 20; // errors; whoever made the list has `qelctl check` for all of them

SPlacing refused(SPlacing placing, SFeatureList list) {
    placing.m_ePlaced = EPlaced::refused;
    placing.m_vErrors = std::move(list.m_vErrors);
    placing.m_vErrors.resize(std::min(placing.m_vErrors.size(), nMaxTold));
    return placing;
}

SPlacing failed(SPlacing placing, std::string why) {
    placing.m_ePlaced = EPlaced::failed;
    placing.m_sTrouble = std::move(why);
    return placing;
}

// No lower serial than those of the list that the daemon took last and of the one in place. Nothing: that
// cannot be told now.
std::optional<SSerialFloor> floorHere(const SWholeFile& inPlace, CListTrust& trust) {
    const std::string directory = stateDirectory();
    const auto kept = directory.empty() ? SSerialFloor() : floorOf(keptListPath(directory), trust);
    const SSerialFloor before = judgeList(inPlace, trust, CListTrust::ever).m_oFloor;
    return kept && before.m_nSerial > kept->m_nSerial ? before : kept;
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
    if (sealed.m_oList.m_bPassing) {
        return failed(std::move(placing), sealed.m_oList.m_vErrors[0].m_sText);
    }
    if (!sealed.m_oList.isGood()) {
        return refused(std::move(placing), std::move(sealed.m_oList));
    }
    CListStore store(path);
    if (std::string trouble = store.lock(std::chrono::milliseconds{0}); !trouble.empty()) {
        return failed(std::move(placing), std::move(trouble));
    }
    const bool isThere = std::filesystem::exists(store.path());
    const SWholeFile before = readWholeFile(store.path(), nMaxListFileSize);
    const std::optional<SSerialFloor> floor = floorHere(before, trust);
    if ((isThere && !before.m_sError.empty()) || !floor) {
        return failed(std::move(placing),
                      "the list in place, or the one taken last, cannot be read: " + before.m_sError);
    }
    if (isThere && before.m_sText == text) {
        return placing;
    }
    findUndeliverable(parseFeatureList(before.m_sText).m_vFeatures, sealed.m_oList);
    checkSerial(sealed, *floor);
    if (!sealed.m_oList.isGood()) {
        return refused(std::move(placing), std::move(sealed.m_oList));
    }
    std::string trouble = store.put(text, isThere ? &before.m_sText : nullptr);
    return trouble.empty() ? placing : failed(std::move(placing), std::move(trouble));
}
