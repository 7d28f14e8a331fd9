// qelctl sign, qelctl verify
#include "ctl/commands.h"
#include "ctl/json.h"
#include "ctl/list_errors.h"
#include "ctl/list_signer.h"
#include "ctl/terminal.h"
#include "source/list/CListStore.h"
#include "source/list/list_fields.h"
#include "source/list/whole_file.h"
#include "source/trust/CListTrust.h"

#include <charconv>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace {

int fail(const std::string& file, const std::string& text) {
    complain(printListError(file, {0, text}));
    return exitFailed;
}

// False: the number after the list's own is none.
bool readSerial(const std::string& wish, std::string_view text, std::optional<uint64_t>& serial) {
    if (wish.empty()) {
        return true;
    }
    uint64_t number = parseListHead(text).m_oHead.m_nSerial + 1;
    if (wish != "next") {
        std::from_chars(wish.data(), wish.data() + wish.size(), number);
    }
    serial = number;
    return number <= nMaxListSerial;
}

CJson headToJson(const SListHead& head) {
    return {{"serial", head.m_nSerial != 0 ? CJson(head.m_nSerial) : CJson()},
            {"issued", head.m_sIssued.empty() ? CJson() : CJson(head.m_sIssued)},
            {"scope", head.m_vScope.empty() ? CJson() : CJson(head.m_vScope)}};
}

std::string describe(const SListHead& head) {
    return fmt::format("serial {}{}{}", head.m_nSerial,
                       head.m_sIssued.empty() ? "" : ", issued " + head.m_sIssued,
                       head.m_vScope.empty() ? "" : fmt::format(", for {}", fmt::join(head.m_vScope, ", ")));
}

} // namespace

// Locked, so that an apply of the same file does not come in between.
int runSign(const SSignOptions& options) {
    CListStore store(options.m_sFile);
    if (const std::string trouble = store.lock(); !trouble.empty()) {
        complain(trouble);
        return exitFailed;
    }
    const SWholeFile file = readWholeFile(store.path(), nMaxListFileSize);
    if (!file.m_sError.empty()) {
        return fail(options.m_sFile, file.m_sError);
    }
    std::optional<uint64_t> serial;
    if (!readSerial(options.m_sSerial, file.m_sText, serial)) {
        return fail(options.m_sFile, "its serial is the highest that there is");
    }
    const SSignedList list = signText(file.m_sText, options.m_sKey, serial);
    printErrors(options.m_sFile, list.m_oList.m_vErrors, list.m_oList.m_nErrors);
    if (!list.isSigned()) {
        return list.m_sError.empty() ? int{exitFailed} : fail(options.m_sFile, list.m_sError);
    }
    if (const std::string trouble = CListStore::replace(store.path(), list.m_sText); !trouble.empty()) {
        complain(trouble);
        return exitFailed;
    }
    if (options.m_bJson && !options.m_bQuiet) {
        CJson document = jsonDocument("sign");
        document["file"] = options.m_sFile;
        document["key_id"] = list.m_sKeyId;
        document.update(headToJson(list.m_oList.m_oHead));
        printJson(document);
    } else if (!options.m_bQuiet) {
        fmt::print("{}: signed with key {}, {}\n", options.m_sFile, list.m_sKeyId,
                   describe(list.m_oList.m_oHead));
    }
    return flushOutput() ? exitOk : exitFailed;
}

// What the head says is told of a good list alone: of another, somebody else may have written it.
int runVerify(const SVerifyOptions& options) {
    CListTrust trust(options.m_sTrust.empty() ? trustPath() : STrustPath{options.m_sTrust, true});
    if (!trust.isOn()) {
        complain(fmt::format("there is no trust directory {} (--trust names another)", trust.directory()));
        return exitFailed;
    }
    const SWholeFile file = readWholeFile(options.m_sFile, nMaxListFileSize);
    SListProof proof;
    proof.m_sFault = file.m_sError;
    if (file.m_sError.empty()) {
        proof = trust.verify(file.m_sText, CListTrust::now);
    }
    const SListHead head = proof.isGood() ? parseListHead(file.m_sText).m_oHead : SListHead();
    if (!proof.m_sWarning.empty()) {
        complain("a certificate is left out: " + proof.m_sWarning);
    }
    if (options.m_bJson && !options.m_bQuiet) {
        CJson document = jsonDocument("verify");
        document["file"] = options.m_sFile;
        document["good"] = proof.isGood();
        document["error"] = proof.isGood() ? CJson() : CJson(proof.m_sFault);
        document["key_id"] = proof.m_sKeyId.empty() ? CJson() : CJson(proof.m_sKeyId);
        document["signer"] = proof.m_sSigner.empty() ? CJson() : CJson(proof.m_sSigner);
        document.update(headToJson(head));
        printJson(document);
    } else if (proof.isGood() && !options.m_bQuiet) {
        fmt::print("{}: good, signed by {} (key {}), {}\n", options.m_sFile, printable(proof.m_sSigner),
                   proof.m_sKeyId, describe(head));
    }
    if (!proof.isGood()) {
        return fail(options.m_sFile, proof.m_sFault);
    }
    return flushOutput() ? exitOk : exitFailed;
}
