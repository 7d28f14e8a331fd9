// qelctl apply, qelctl undo
#include "ctl/apply_report.h"
#include "ctl/commands.h"
#include "ctl/list_errors.h"
#include "ctl/list_signer.h"
#include "ctl/terminal.h"
#include "source/list/CListStore.h"
#include "source/list/list_changes.h"
#include "source/list/list_digest.h"
#include "source/list/list_paths.h"
#include "source/list/list_signature.h"
#include "source/list/whole_file.h"
#include "source/trust/sealed_list.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <optional>

namespace {

// A file as it was at one moment, checked: what is put in place is exactly what was checked.
struct SListFile {
    explicit SListFile(const std::string& path) {
        SWholeFile file = readWholeFile(path, nMaxListFileSize);
        m_sText = std::move(file.m_sText);
        if (file.m_sError.empty()) {
            m_oList = parseFeatureList(m_sText);
        } else {
            m_bRead = false;
            m_oList.add({0, std::move(file.m_sError)});
        }
    }
    // As the daemon would judge it.
    SSealedList judged(CListTrust& trust) const {
        return judgeList({m_sText, "", false}, trust, CListTrust::now);
    }
    bool m_bRead = true;
    std::string m_sText;
    SFeatureList m_oList;
};

// One run of either command.
class CListUpdate {
public:
    CListUpdate(const SApplyOptions& options, bool isUndo)
        : m_oOptions(options), m_bUndo(isUndo),
          m_oStore(options.m_sList.empty() ? featureListPath() : options.m_sList) {
        m_oReport.m_szCommand = isUndo ? "undo" : "apply";
        m_oReport.m_sFile = options.m_sFile;
        m_oReport.m_sList = m_oStore.path();
    }
    int run();

private:
    EApplyResult attempt();
    bool readNew();
    bool isGood();
    bool readBefore();
    void readKept();
    bool seal();
    bool findFloor(SSerialFloor& floor);
    bool isSignedBy(const std::string& keyId);
    bool sign(const SSerialFloor& floor);
    void compare();
    bool isMeant();
    EApplyResult carryOut();
    std::string goBack();
    int wait();
    bool complainOf(std::string error);
    void tell(const std::string& text) const;

    const SApplyOptions& m_oOptions;
    const bool m_bUndo;
    CListStore m_oStore;
    CListTrust m_oTrust{trustPath()};
    std::optional<SListFile> m_oBefore; // nothing: there is no list in place
    std::optional<SListFile> m_oAfter;
    std::vector<SFeatureRecord> m_vInForce;
    std::optional<CListChange> m_oChange;
    std::optional<CApplyWait> m_oWait; // nothing: it is not waited for
    SApplyReport m_oReport;
};

int CListUpdate::run() {
    m_oReport.m_eResult = attempt();
    m_oStore.unlock();
    int status = m_oReport.m_eResult < EApplyResult::refused ? exitOk : exitFailed;
    if (m_oReport.m_eResult == EApplyResult::applied && m_oWait) {
        status = wait();
    }
    if (m_oOptions.m_bJson && !m_oOptions.m_bQuiet) {
        printApplyJson(m_oReport);
    }
    return flushOutput() ? status : exitFailed;
}

// A list that is no other for the daemon has nobody told anything.
int CListUpdate::wait() {
    if (m_oChange->isNothing()) {
        return exitOk;
    }
    const int status = m_oWait->run(
        {m_oAfter->m_oList.m_vFeatures, listDigest(m_oAfter->m_sText), m_oChange->toldAgain() != 0});
    m_oReport.m_pWait = &*m_oWait;
    if (m_oWait->hasAnswered()) {
        tell(m_oWait->text());
    }
    return status;
}

// Locked before anything is read: what is compared is what is replaced.
EApplyResult CListUpdate::attempt() {
    if (std::string trouble = m_oOptions.m_bDryRun ? "" : m_oStore.lock(); !trouble.empty()) {
        complainOf(std::move(trouble));
        return EApplyResult::failed;
    }
    if (!readNew()) {
        return EApplyResult::refused;
    }
    if (!readBefore()) {
        return EApplyResult::failed;
    }
    if (!seal()) {
        return EApplyResult::refused;
    }
    findUndeliverable(m_vInForce, m_oAfter->m_oList);
    if (!isGood()) {
        return EApplyResult::refused;
    }
    compare();
    if (!isMeant()) {
        return EApplyResult::refused;
    }
    return carryOut();
}

bool CListUpdate::readNew() {
    if (m_bUndo) {
        const std::optional<int> number = m_oStore.latest();
        if (!number) {
            return complainOf(fmt::format("no list before {} is kept", m_oStore.path()));
        }
        m_oReport.m_sFile = m_oStore.kept(*number);
    }
    m_oAfter.emplace(m_oReport.m_sFile);
    return isGood();
}

bool CListUpdate::isGood() {
    const SFeatureList& list = m_oAfter->m_oList;
    if (list.isGood()) {
        return true;
    }
    m_oReport.m_oFaults = list;
    printErrors(m_oReport.m_sFile, list.m_vErrors, list.m_nErrors);
    return !m_bUndo ? false
                    : complainOf(fmt::format("the daemon would refuse {}; to go further back, remove it",
                                             m_oReport.m_sFile));
}

bool CListUpdate::readBefore() {
    std::error_code error;
    if (const auto type = std::filesystem::symlink_status(m_oStore.path(), error).type();
        type != std::filesystem::file_type::not_found) {
        m_oBefore.emplace(m_oStore.path());
    }
    if (m_oBefore && !m_oBefore->m_bRead) {
        return complainOf(printListError(m_oStore.path(), m_oBefore->m_oList.m_vErrors.at(0)));
    }
    if (m_oBefore && m_oBefore->m_oList.isGood()) {
        m_vInForce = std::move(m_oBefore->m_oList.m_vFeatures);
    } else {
        readKept();
    }
    return true;
}

// A list in place that is faulty is not in force. The daemon's own copy of the one that is can be had where
// it is the daemon's list that is to be changed.
void CListUpdate::readKept() {
    const std::string directory = m_oOptions.m_sList.empty() ? stateDirectory() : "";
    const std::string path = keptListPath(directory);
    SFeatureList kept;
    const bool isKept = !directory.empty() && (kept = readFeatureList(path)).isGood();
    if (isKept) {
        m_vInForce = std::move(kept.m_vFeatures);
    }
    if (m_oBefore || isKept) {
        complain(fmt::format("{} is {}: {}", m_oStore.path(), m_oBefore ? "faulty" : "missing",
                             isKept ? "compared with the list taken last, " + path
                                    : "there is nothing to compare with"));
    }
}

// With a key, the list goes signed, and with a serial that the daemon takes. Where the daemon takes no list
// but a signed one, it is verified here as it will be there; a list of another place is none of the daemon's.
bool CListUpdate::seal() {
    SSerialFloor floor;
    const bool isOn = m_oOptions.m_sList.empty() && m_oTrust.isOn();
    if (isOn && m_bUndo && m_oOptions.m_sKey.empty()) {
        return complainOf(
            fmt::format("lists are taken with a higher serial only ({}): undo --key KEY signs {} anew, "
                        "with one",
                        m_oTrust.directory(), m_oReport.m_sFile));
    }
    if ((isOn || !m_oOptions.m_sKey.empty()) && !findFloor(floor)) {
        return false;
    }
    if (!m_oOptions.m_sKey.empty() && !sign(floor)) {
        return false;
    }
    if (isOn) {
        SSealedList sealed = m_oAfter->judged(m_oTrust);
        checkSerial(sealed, floor);
        m_oAfter->m_oList = std::move(sealed.m_oList);
    }
    return true;
}

// Of the list that the daemon took last, or of the one in place, if that would be taken after it. Without
// trust the one in place says enough.
bool CListUpdate::findFloor(SSerialFloor& floor) {
    const bool isOn = m_oOptions.m_sList.empty() && m_oTrust.isOn();
    const std::string directory = isOn ? stateDirectory() : "";
    if (!directory.empty()) {
        const std::optional<SSerialFloor> kept = floorOf(keptListPath(directory), m_oTrust);
        if (!kept) {
            return complainOf(fmt::format("{} cannot be read or verified", keptListPath(directory)));
        }
        floor = *kept;
    }
    if (m_oBefore && !isOn) {
        floor = {m_oBefore->m_oList.m_oHead.m_nSerial, 0};
    } else if (m_oBefore) {
        const SSerialFloor before = m_oBefore->judged(m_oTrust).m_oFloor;
        floor = before.m_nSerial > floor.m_nSerial ? before : floor;
    }
    return true;
}

// The list in place, with a signature that holds, as far as that can be told here.
bool CListUpdate::isSignedBy(const std::string& keyId) {
    const SListSignature signature = readSignature(m_oBefore->m_sText);
    return signature.m_sFault.empty() && signature.m_sKeyId == keyId &&
           (!m_oTrust.isOn() || m_oBefore->judged(m_oTrust).m_bVerified);
}

// What is in place already, and signed by this key, stays as it is; where only the signature is another's, the serial
// stays. Unless a newer list has been in force since.
bool CListUpdate::sign(const SSerialFloor& floor) {
    const bool isSame = m_oBefore &&
                        m_oBefore->m_oList.m_oHead.m_nSerial >= std::max<uint64_t>(floor.m_nSerial, 1) &&
                        withoutSignature(m_oBefore->m_sText) == withoutSignature(m_oAfter->m_sText);
    const bool isHigher = isSame || m_oAfter->m_oList.m_oHead.m_nSerial > floor.m_nSerial;
    SSignedList list = signText(m_oAfter->m_sText, m_oOptions.m_sKey,
                                isHigher ? std::nullopt : std::optional(floor.m_nSerial + 1));
    if (!list.isSigned()) {
        return complainOf(list.m_sError);
    }
    if (isSame && isSignedBy(list.m_sKeyId)) {
        m_oAfter->m_sText = m_oBefore->m_sText;
        return true;
    }
    m_oAfter->m_sText = std::move(list.m_sText);
    m_oAfter->m_oList = std::move(list.m_oList);
    tell(fmt::format("signed with key {}, serial {}", list.m_sKeyId, m_oAfter->m_oList.m_oHead.m_nSerial));
    return true;
}

void CListUpdate::compare() {
    const std::vector<SFeatureRecord>& after = m_oAfter->m_oList.m_vFeatures;
    m_oChange.emplace(m_vInForce, after);
    m_oReport.m_pChange = &*m_oChange;
    m_oReport.m_nBefore = m_vInForce.size();
    m_oReport.m_nAfter = after.size();
    if (!m_oOptions.m_bQuiet && !m_oOptions.m_bJson) {
        printChange(*m_oChange);
    }
}

// To go back is meant: what it withdraws, an apply has brought.
bool CListUpdate::isMeant() {
    const size_t withdrawn = m_oChange->withdrawn();
    if (m_bUndo || m_oOptions.m_bForce || !isMuch(withdrawn, m_oReport.m_nBefore)) {
        return true;
    }
    return complainOf(fmt::format("{} of {} would be withdrawn, more than a fifth: nothing was changed "
                                  "(--force does it)",
                                  withdrawn, counted(m_oReport.m_nBefore, "feature")));
}

EApplyResult CListUpdate::carryOut() {
    if (m_oOptions.m_bDryRun) {
        tell("nothing was changed (--dry-run)");
        return EApplyResult::dryRun;
    }
    const bool isSame = m_oBefore && m_oBefore->m_sText == m_oAfter->m_sText;
    if (isSame && !m_bUndo) {
        tell(fmt::format("{} is like that already", m_oStore.path()));
        return EApplyResult::unchanged;
    }
    // Another list than the daemon's own is nothing that the daemon takes.
    if (m_oOptions.m_bWait && m_oOptions.m_sList.empty()) {
        setProcessName("");
        m_oWait.emplace(m_oOptions.m_nSeconds, !m_oOptions.m_bQuiet && !m_oOptions.m_bJson);
    }
    std::string trouble =
        m_bUndo ? goBack() : m_oStore.put(m_oAfter->m_sText, m_oBefore ? &m_oBefore->m_sText : nullptr);
    if (!trouble.empty()) {
        complainOf(std::move(trouble));
        return EApplyResult::failed;
    }
    tell(m_bUndo ? fmt::format("{} is now what {} was", m_oStore.path(), m_oReport.m_sFile)
                 : fmt::format("{} is in place", m_oStore.path()));
    return EApplyResult::applied;
}

// What was signed anew takes the kept one's place first: the list in place is replaced in one step.
std::string CListUpdate::goBack() {
    const std::string trouble =
        m_oOptions.m_sKey.empty() ? "" : CListStore::replace(m_oReport.m_sFile, m_oAfter->m_sText);
    return trouble.empty() ? m_oStore.goBack() : trouble;
}

// False, for the caller to return.
bool CListUpdate::complainOf(std::string error) {
    complain(error);
    m_oReport.m_sError = std::move(error);
    return false;
}

void CListUpdate::tell(const std::string& text) const {
    if (!m_oOptions.m_bQuiet && !m_oOptions.m_bJson) {
        fmt::print("{}\n", text);
    }
}

} // namespace

int runApply(const SApplyOptions& options) {
    return CListUpdate(options, false).run();
}

int runUndo(const SApplyOptions& options) {
    return CListUpdate(options, true).run();
}
