#include "features/description.h"

#include "base/CDescriptions.h"
#include "base/CFile.h"
#include "features/CFeatureEntry.h"
#include "server/log/log.h"

#include <cstdlib>
#include <memory>
#include <new>
#include <string>

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
    for (CDescriptions lines(text.get()); lines.next();) {
        if (lines.code() == m_nCode) {
            takeName(lines.name());
        }
    }
    return 1;
}

// Without memory for it the feature has no name; that is no reason to do without the feature.
void CFeatureEntry::takeName(std::string_view name) try {
    m_sName = CString(std::string(name).c_str());
} catch (const std::bad_alloc&) {
    m_sName = CString();
}

int CFeatureEntry::doC2N(const char* text) {
    return static_cast<int>(CDescriptions::readNumber(text));
}
