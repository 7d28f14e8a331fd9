#include "source/trust/CListTrust.h"

#include "base/clock.h"
#include "source/list/list_signature.h"
#include "source/list/list_text.h"
#include "tools/module/load_module.h"
#include "tools/sign_module.h"

#include <cerrno>
#include <fmt/core.h>
#include <sys/stat.h>

namespace {

static_assert(sizeof SSigned::m_szKeyId == nListKeyId + 1);
static_assert(sizeof SSigned::m_aSignature == nMaxListSignature);

constexpr size_t nMaxWhy = 300; // bytes of a file's text in a line of the log

SListProof fault(std::string text, bool isPassing) {
    SListProof proof;
    proof.m_sFault = std::move(text);
    proof.m_bPassing = isPassing;
    return proof;
}

// Texts of certificates come from files, so they are shown, not trusted.
std::string faultOf(const SListAnswer& answer, const SListSignature& signature, const std::string& trust) {
    const std::string by =
        fmt::format("signed by {} (key {})", shown(answer.m_szSigner, nMaxWhy), signature.m_sKeyId);
    switch (static_cast<EListVerdict>(answer.m_nVerdict)) {
    case lvGood:
        return "";
    case lvUnknownKey:
        return fmt::format("signed by another key, {}: {} has no certificate of it", signature.m_sKeyId,
                           trust);
    case lvChanged:
        return fmt::format("was changed after key {} had signed it", signature.m_sKeyId);
    case lvNotYetValid:
        return fmt::format("{}, whose certificate {} is not valid before {}: is the clock right?", by,
                           shown(answer.m_szCertificate, nMaxWhy), answer.m_szTime);
    case lvExpired:
        return fmt::format("{}, whose certificate {} was valid until {}: sign it with another key, or is the "
                           "clock right?",
                           by, shown(answer.m_szCertificate, nMaxWhy), answer.m_szTime);
    case lvNoTrust:
        return fmt::format("cannot be verified: the trust directory {} {}", trust,
                           shown(answer.m_szLeftOut, nMaxWhy));
    case lvNoMemory:
        break;
    }
    return "cannot be verified: out of memory";
}

// What may be over at the next reading without a change of the list, so that it pays to try again: the clock is
// set, memory and the directory come back. An expired certificate does not.
bool isPassing(uint32_t verdict) {
    return verdict == lvNotYetValid || verdict == lvNoTrust || verdict == lvNoMemory;
}

} // namespace

// A directory that was once seen is missed if it goes: removing it must not switch the check off. Any failure but
// ENOENT counts as seen, for the same reason.
bool CListTrust::isOn() {
    struct stat status {};
    m_bSeen =
        m_bSeen || m_oPath.m_bNamed || ::lstat(m_oPath.m_sDirectory.c_str(), &status) == 0 || errno != ENOENT;
    return m_bSeen;
}

SListProof CListTrust::verify(std::string_view text, EWhen when) const {
    const SListSignature signature = readSignature(text);
    if (!signature.m_sFault.empty()) {
        return fault(signature.m_sFault, false);
    }
    const SModuleEntry entry = moduleEntry(sVerifyListEntry);
    if (entry.m_pFunction == nullptr) {
        return fault(fmt::format("cannot be verified: {}", shown(entry.m_szReason, nMaxWhy)), true);
    }
    // A list that is only looked up again, such as the one kept, was in its time when it came into force: no
    // clock is asked for it, so a wrong one cannot take it away.
    const SListQuestion question{m_oPath.m_sDirectory.c_str(),
                                 signature.m_sBody.data(),
                                 signature.m_sBody.size(),
                                 signature.m_sKeyId.c_str(),
                                 reinterpret_cast<const unsigned char*>(signature.m_sBytes.data()),
                                 signature.m_sBytes.size(),
                                 when == now ? int64_t{nowTimeOfDay().tv_sec} : -1};
    SListAnswer answer;
    reinterpret_cast<decltype(&qelVerifyList)>(entry.m_pFunction)(&question, &answer);
    restModule(); // a list comes once in days; the module's pages are of no use meanwhile
    SListProof proof = fault(faultOf(answer, signature, m_oPath.m_sDirectory), isPassing(answer.m_nVerdict));
    proof.m_sKeyId = signature.m_sKeyId;
    proof.m_sSigner = shown(answer.m_szSigner, nMaxWhy);
    // Where no certificate could be read, that is the fault itself and needs no warning beside it.
    proof.m_sWarning = answer.m_nVerdict == lvNoTrust ? "" : shown(answer.m_szLeftOut, nMaxWhy);
    return proof;
}
