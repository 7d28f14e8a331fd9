// Signs the text of a feature list.
#ifndef QEL_CTL_LIST_SIGNER_H
#define QEL_CTL_LIST_SIGNER_H

#include "source/list/feature_list.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

struct SSignedList {
    std::string m_sText;  // with its signature, in place of an older one
    SFeatureList m_oList; // what it holds; its errors, if that is why it was not signed
    std::string m_sKeyId;
    std::string m_sError; // not empty: why it was not signed, if it was not for errors of the list

    bool isSigned() const { return !m_sKeyId.empty(); }
};

// With a serial, that is written into the list, and `issued` with the time of now. A list with errors or
// without a serial is not signed. The key is a file with a private key, PEM.
SSignedList signText(std::string_view text, const std::string& keyFile, std::optional<uint64_t> serial);

#endif
