#include "features/description.h"

#include "base/CFile.h"
#include "features/CFeatureEntry.h"
#include "server/log/log.h"

#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

namespace {

// The file's text up to its first NUL; null where there is no memory for it.
std::unique_ptr<char[]> readText(CFile& file) {
    std::unique_ptr<char[]> text(new (std::nothrow) char[size_t{file.size()} + 1]());
    if (text != nullptr) {
        file.read(text.get(), file.size());
    }
    return text;
}

} // namespace

const char* descriptionPath() {
    static const char* const path = [] {
        const char* configured = std::getenv("QEL_DESCRIPTION");
        return configured != nullptr ? configured : QEL_DESCRIPTION_FILE;
    }();
    return path;
}

bool CFeatureEntry::hasDescriptionFile() {
    return *descriptionPath() != '\0';
}

int CFeatureEntry::setupName() {
    CFile file(descriptionPath(), CFile::nReadOnly, CFile::nText);
    if (file.isOpen() == 0) {
        logEvent(svInfo, 31142, "cannot open %s", descriptionPath());
        return 0;
    }
    const std::unique_ptr<char[]> text = readText(file);
    if (text == nullptr) {
        return 0;
    }
    for (const CString& line : CString(text.get()).tokenize("\r\n", CString::eSkipDelimiters)) {
        const std::vector<CString> fields = line.tokenize(",", CString::eSkipDelimiters);
        if (fields.size() >= 2 && static_cast<uint32_t>(doC2N(fields[0].c_str())) == m_nCode) {
            m_sName = fields[1];
        }
    }
    return 1;
}

int CFeatureEntry::doC2N(const char* text) {
    while (*text == ' ') {
        ++text;
    }
    const bool negative = *text == '-';
    if (*text == '-' || *text == '+') {
        ++text;
    }
    uint32_t value = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        value = value * 10 + static_cast<uint32_t>(*text - '0');
    }
    return static_cast<int>(negative ? 0 - value : value);
}
