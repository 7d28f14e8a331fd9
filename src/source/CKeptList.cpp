#include "source/CKeptList.h"

#include "base/CFileReplacement.h"
#include "server/log/log.h"
#include "source/events.h"
#include "source/list/feature_list.h"
#include "source/list/list_paths.h"
#include "source/list/whole_file.h"

#include <new>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

std::string CKeptList::path() const {
    return keptListPath(m_sDirectory);
}

bool CKeptList::isThere() const {
    return !m_sDirectory.empty() && ::access(path().c_str(), F_OK) == 0;
}

void CKeptList::take(std::string text) {
    if (!m_sDirectory.empty()) {
        m_sText = std::move(text);
    }
}

void CKeptList::save() {
    if (!m_sText) {
        return;
    }
    std::string trouble;
    try {
        trouble = write(*m_sText);
    } catch (const std::bad_alloc&) {
        trouble = "out of memory"; // short enough to need none itself
    }
    m_sText.reset();
    if (!trouble.empty() && !m_bFailed) {
        logEvent(svWarning, evTrouble, "feature list: not kept for the next start: %s", trouble.c_str());
    }
    m_bFailed = !trouble.empty();
}

// A list that is there already is not written again: each start takes one, and flash wears out.
std::string CKeptList::write(const std::string& text) const {
    if (readWholeFile(path(), nMaxListFileSize).m_sText == text) {
        return "";
    }
    ::mkdir(m_sDirectory.c_str(), 0755); // a failure shows with the file
    CFileReplacement file(path());
    std::string trouble = file.write(text, nullptr);
    trouble = trouble.empty() ? file.publish() : trouble;
    return trouble.empty() ? syncDirectory(m_sDirectory) : trouble;
}
