#include "features/description.h"

#include "base/CDescriptions.h"
#include "base/CFile.h"
#include "features/CFeatureEntry.h"
#include "server/log/log.h"

#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <sys/stat.h>

namespace {

// What is no regular file is not opened: a pipe would hold up the daemon until somebody writes into it, and a
// directory opens like an empty file.
bool openText(CFile& file, const char* path) {
    struct stat status {};
    return stat(path, &status) == 0 && S_ISREG(status.st_mode) &&
           file.open(path, CFile::nReadOnly, CFile::nText) != 0;
}

// The file's text with a NUL behind it; null where there is no memory for it. A file that shrinks meanwhile
// leaves the rest of the buffer zero, so the text ends early.
std::unique_ptr<char[]> readText(CFile& file) {
    // The largest size stands for all larger ones too, and one byte more would wrap where size_t has 32 bits.
    if (file.size() == UINT32_MAX) {
        return nullptr;
    }
    std::unique_ptr<char[]> text(new (std::nothrow) char[size_t{file.size()} + 1]());
    if (text != nullptr) {
        file.read(text.get(), file.size());
    }
    return text;
}

} // namespace

// Initialised once, even if two threads come first (the language guarantees it). getenv(3) is safe here
// because nothing in the daemon changes the environment.
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

// Nothing is kept from one entry to the next. Called while a list is built, on the source's thread during
// operation, so it does not hold up the loop. The loop goes on after a match, since the last
// line of a code counts.
int CFeatureEntry::setupName() {
    CFile file;
    if (!openText(file, descriptionPath())) {
        logEvent(svInfo, 31142, "cannot open %s", descriptionPath());
        return 0;
    }
    const std::unique_ptr<char[]> text = readText(file);
    if (text == nullptr) {
        return 0;
    }
    int result = 1;
    for (CDescriptions lines(text.get()); lines.next();) {
        if (lines.code() == m_nCode) {
            result = takeName(lines.name()) ? 1 : 0;
        }
    }
    return result;
}

// Without memory the feature has no name. Names are for people, so it is delivered all the same.
bool CFeatureEntry::takeName(std::string_view name) try {
    m_sName = CString(std::string(name).c_str());
    return true;
} catch (const std::bad_alloc&) {
    m_sName = CString();
    return false;
}

int CFeatureEntry::doC2N(const char* text) {
    return static_cast<int>(CDescriptions::readNumber(text));
}
