// Turns the list file into entries that the control can take over.
#ifndef QEL_SOURCE_CFEATURELOADER_H
#define QEL_SOURCE_CFEATURELOADER_H

#include "source/CEntryNames.h"
#include "source/CNamePool.h"
#include "source/fresh_list.h"
#include "source/list/feature_list.h"

#include <optional>
#include <string>
#include <vector>

class CMediator;

// Remembers the list that it accepted last, to tell whether a file's content is new and whether its changes
// can be delivered. "Accepted" does not mean in force: the list may still wait to be handed over, or a newer
// one may take its place before that.
//
// Must outlive every entry that it built, since their component names belong to it. Used by one thread at a
// time: at start-up the main thread, then the source's own.
class CFeatureLoader {
public:
    explicit CFeatureLoader(std::string path) : m_sPath(std::move(path)) {}

    // Reads and checks the file; the caller owns the entries. Nothing if the list is faulty or is the one
    // accepted last; the log says which. May wait as readFeatureList() does. Throws std::bad_alloc; the list
    // accepted last is then still remembered.
    std::optional<CFreshList> load(CMediator& mediator);

    const std::string& path() const { return m_sPath; }

private:
    // Logs the errors, at most 50 of them, and what that means for the list in force.
    void refuse(const SFeatureList& list) const;
    void findUndeliverable(SFeatureList& list) const;
    SFreshFeature build(const SFeatureRecord& record, CMediator& mediator);

    std::string m_sPath;
    CNamePool m_oNames; // of components
    CEntryNames m_oEntryNames;
    bool m_bAccepted = false; // m_vAccepted is a list; the empty one is a list too
    std::vector<SFeatureRecord> m_vAccepted;
};

#endif
