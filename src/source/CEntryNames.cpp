#include "source/CEntryNames.h"

#include "features/description.h"
#include "server/log/log.h"
#include "source/events.h"

#include <new>

namespace {

// What is not remembered is read again.
template <typename Names>
void remember(Names& names, const CFeatureEntry& entry) try {
    names.try_emplace(entry.id(), entry.m_sName);
} catch (const std::bad_alloc&) {
}

} // namespace

// The fingerprint is taken before the names are read: a change in between then shows the next time.
void CEntryNames::giveTo(CFreshList& list) noexcept {
    if (!CFeatureEntry::hasDescriptionFile()) {
        return;
    }
    const SFingerprint file = SFingerprint::of(descriptionPath());
    if (file != m_oNamesFile) {
        m_oNames.clear();
    }
    CNames names;
    size_t nameless = 0;
    for (const SFreshFeature& fresh : list) {
        if (giveTo(*fresh.m_pEntry)) {
            remember(names, *fresh.m_pEntry);
        } else {
            ++nameless;
        }
    }
    m_oNames.swap(names);
    m_oNamesFile = file;
    if (nameless != 0) {
        logEvent(svWarning, evTrouble, "description file %s: cannot be read; %zu features go without a name",
                 descriptionPath(), nameless);
    }
}

// False: the name could not be read, or there is no memory for it.
bool CEntryNames::giveTo(CFeatureEntry& entry) const try {
    const auto before = m_oNames.find(entry.id());
    if (before == m_oNames.end()) {
        return entry.setupName() != 0;
    }
    entry.m_sName = before->second;
    return true;
} catch (const std::bad_alloc&) {
    return false;
}
