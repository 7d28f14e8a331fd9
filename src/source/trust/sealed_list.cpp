#include "source/trust/sealed_list.h"

#include "source/list/list_digest.h"
#include "source/list/list_signature.h"
#include "source/trust/appliance.h"

#include <algorithm>
#include <fmt/format.h>

namespace {

SSerialFloor floorOfText(std::string_view text, const SListHead& head) {
    return {head.m_nSerial, listDigest(readSignature(text).m_sBody)};
}

// A list that cannot tell whether it is meant is for somebody else.
void checkScope(SFeatureList& list) {
    if (list.m_oHead.m_vScope.empty()) {
        return;
    }
    const SAppliance appliance = readAppliance(appliancePath());
    if (!appliance.m_sError.empty()) {
        list.add({0, fmt::format("has a scope, but it cannot be told which appliance this is: {}",
                                 appliance.m_sError)});
        list.m_bPassing = true;
    } else if (!appliance.isMeantBy(list.m_oHead.m_vScope)) {
        constexpr size_t nShown = 10;
        std::vector<std::string> scope = list.m_oHead.m_vScope;
        scope.resize(std::min(scope.size(), nShown));
        list.add({0, fmt::format("is for {}{}, not for this appliance, {}", fmt::join(scope, ", "),
                                 scope.size() < list.m_oHead.m_vScope.size() ? " and others" : "",
                                 appliance.text())});
    }
}

} // namespace

SSealedList judgeList(const SWholeFile& file, CListTrust& trust, CListTrust::EWhen when) {
    SSealedList sealed;
    SFeatureList& list = sealed.m_oList;
    if (!file.m_sError.empty()) {
        list.add({0, file.m_sError});
        list.m_bPassing = file.m_bPassing;
        return sealed;
    }
    const bool isOn = trust.isOn();
    if (isOn) { // before the parser: it sees only bytes that somebody answers for
        sealed.m_oProof = trust.verify(file.m_sText, when);
        if (!sealed.m_oProof.isGood()) {
            list.add({0, sealed.m_oProof.m_sFault});
            list.m_bPassing = sealed.m_oProof.m_bPassing;
            return sealed;
        }
    }
    list = parseFeatureList(file.m_sText);
    // Serial and scope mean something only under a signature: without one anybody could have written them.
    if (!isOn || !list.isGood()) {
        return sealed;
    }
    sealed.m_oFloor = floorOfText(file.m_sText, list.m_oHead);
    if (list.m_oHead.m_nSerial == 0) {
        list.add({0, "has no 'serial', which a list must have to be verified (qelctl sign --serial next)"});
    }
    checkScope(list);
    sealed.m_bVerified = list.isGood();
    return sealed;
}

// The same serial with the same body is the list in force read again, which is good; with another body it is a
// second list under a number that was given away.
void checkSerial(SSealedList& sealed, const SSerialFloor& floor) {
    const uint64_t serial = sealed.m_oFloor.m_nSerial;
    if (!sealed.m_bVerified || serial > floor.m_nSerial ||
        (serial == floor.m_nSerial && sealed.m_oFloor.m_nDigest == floor.m_nDigest)) {
        return;
    }
    sealed.m_bVerified = false;
    const std::string what =
        serial < floor.m_nSerial
            ? fmt::format("its serial {} is lower than {}, which is in force", serial, floor.m_nSerial)
            : fmt::format("its serial {} is that of another list, which is in force", serial);
    sealed.m_oList.add({0, what + ": raise it and sign anew (qelctl sign --serial next)"});
}

std::optional<SSerialFloor> floorOf(const std::string& path, CListTrust& trust) {
    if (!trust.isOn()) {
        return SSerialFloor{};
    }
    const SWholeFile file = readWholeFile(path, nMaxListFileSize);
    const SListProof proof =
        file.m_sError.empty() ? trust.verify(file.m_sText, CListTrust::ever) : SListProof{};
    // It cannot be told for now. No floor at all would let an old list in.
    if (file.m_bPassing || proof.m_bPassing) {
        return std::nullopt;
    }
    const bool isVerified = file.m_sError.empty() && proof.isGood();
    return isVerified ? floorOfText(file.m_sText, parseListHead(file.m_sText).m_oHead) : SSerialFloor{};
}
