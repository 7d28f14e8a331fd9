#include "ctl/list_signer.h"

#include "source/list/list_blocks.h"
#include "source/list/list_changes.h"
#include "source/list/list_fields.h"
#include "source/list/list_signature.h"
#include "tools/module/load_module.h"
#include "tools/sign_module.h"

#include <algorithm>
#include <ctime>
#include <fmt/chrono.h>
#include <fmt/format.h>

namespace {

// Where the line "key = value" begins and how long it is, without its end; nothing: no line does.
std::optional<std::pair<size_t, size_t>> findKey(std::string_view text, std::string_view key) {
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        std::string_view line = text.substr(at, end - at);
        line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
        if (line.starts_with(key) && line.find_first_of(" \t=", key.size()) == key.size()) {
            const bool hasReturn = end > at && text[end - 1] == '\r';
            return std::pair{at, end - at - (hasReturn ? 1 : 0)};
        }
        at = end + 1;
    }
    return std::nullopt;
}

// Above the first feature: over the line of that key, or before all others. A value over several lines comes
// out wrong, which the check afterwards tells.
void setValue(std::string& text, std::string_view key, const std::string& value) {
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    const std::optional<SListBlock> first = CListBlocks(text).next();
    const std::string_view head = first && !first->m_bFeature ? first->m_sText : std::string_view();
    const std::string line = fmt::format("{} = {}", key, value);
    if (const auto place = findKey(head, key)) {
        text.replace(place->first, place->second, line);
    } else {
        text.insert(text.starts_with(byteOrderMark) ? byteOrderMark.size() : 0, line + "\n");
    }
}

std::string withSerial(std::string_view text, uint64_t serial) {
    std::string changed(text);
    setValue(changed, "issued", fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::time(nullptr))));
    setValue(changed, "serial", std::to_string(serial));
    return changed;
}

// Signs the body, and puts the signature behind it.
void sign(SSignedList& list, const std::string& keyFile) {
    const SModuleEntry entry = moduleEntry(sSignListEntry);
    if (entry.m_pFunction == nullptr) {
        list.m_sError = fmt::format("the signing tools cannot be loaded: {}", entry.m_szReason);
        return;
    }
    SSigned result;
    reinterpret_cast<decltype(&qelSignList)>(entry.m_pFunction)(keyFile.c_str(), list.m_sText.data(),
                                                                list.m_sText.size(), &result);
    if (result.m_nSignature == 0) {
        list.m_sError = result.m_szFailure;
        return;
    }
    list.m_sKeyId = result.m_szKeyId;
    list.m_sText += writeSignature(list.m_sKeyId,
                                   {reinterpret_cast<const char*>(result.m_aSignature), result.m_nSignature});
    list.m_sError = readSignature(list.m_sText).m_sFault;
    list.m_sKeyId = list.m_sError.empty() ? list.m_sKeyId : "";
}

} // namespace

SSignedList signText(std::string_view text, const std::string& keyFile, std::optional<uint64_t> serial) {
    SSignedList list;
    text = withoutSignature(text);
    const SFeatureList before = parseFeatureList(text);
    list.m_sText = serial ? withSerial(text, *serial) : std::string(text);
    list.m_sText += list.m_sText.ends_with('\n') ? "" : "\n";
    list.m_oList = serial && before.isGood() ? parseFeatureList(list.m_sText) : before;
    if (!before.isGood()) {
        return list;
    }
    const SListHead& head = list.m_oList.m_oHead;
    if (!list.m_oList.isGood() || (serial && head.m_nSerial != *serial) ||
        !isSameList(before.m_vFeatures, list.m_oList.m_vFeatures)) {
        list.m_sError =
            "the serial cannot be written into the list: write 'serial' and 'issued' in a line each";
        list.m_oList = before;
    } else if (head.m_nSerial == 0) {
        list.m_sError = "the list has no 'serial': add one, or let --serial next do so";
    } else {
        sign(list, keyFile);
    }
    return list;
}
