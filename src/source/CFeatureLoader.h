// Turns the list file into entries that the control can take over.
#ifndef QEL_SOURCE_CFEATURELOADER_H
#define QEL_SOURCE_CFEATURELOADER_H

#include "source/CNamePool.h"
#include "source/fresh_list.h"
#include "source/list/feature_list.h"

#include <optional>
#include <string>
#include <vector>

class CMediator;

// Remembers the list that it accepted last, to tell whether a file's content is new and whether its changes
// can be delivered. Lives for as long as an entry that it built: their component names are its own. One
// thread at a time.
class CFeatureLoader {
public:
    explicit CFeatureLoader(std::string path) : m_sPath(std::move(path)) {}

    // Reads and checks the file. Nothing where the list is bad or what was accepted last; the log tells
    // which.
    std::optional<CFreshList> load(CMediator& mediator);

    const std::string& path() const { return m_sPath; }

private:
    void refuse(const std::vector<SListError>& errors) const;
    std::vector<SListError> findUndeliverable(const std::vector<SFeatureRecord>& records) const;
    SFreshFeature build(const SFeatureRecord& record, CMediator& mediator);

    std::string m_sPath;
    CNamePool m_oNames;
    bool m_bAccepted = false;
    std::vector<SFeatureRecord> m_vAccepted;
};

#endif
