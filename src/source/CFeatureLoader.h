// Turns the list file into entries that the control can take over.
#ifndef QEL_SOURCE_CFEATURELOADER_H
#define QEL_SOURCE_CFEATURELOADER_H

#include "features/SListState.h"
#include "source/CEntryNames.h"
#include "source/CNamePool.h"
#include "source/SFingerprint.h"
#include "source/fresh_list.h"
#include "source/trust/sealed_list.h"

#include <string>
#include <vector>

class CMediator;

struct SLoaded {
    bool m_bNew = false;     // m_vList is a list to be handed over
    CFreshList m_vList;      // the caller owns the entries
    std::string m_sText;     // of the file
    std::string m_sFailure;  // not empty: the file could not be read, but may be with the next attempt
    SListReading m_oReading; // all this for whoever looks
    // The text is to be kept before the list comes into force: no lower serial may do
    // so after a restart either.
    bool m_bKeptFirst = false;
};

// Remembers the list that it accepted last, to tell whether a file's content is new and whether its changes
// can be delivered. "Accepted" does not mean in force: the list may still wait to be handed over, or a newer
// one may take its place before that.
//
// Must outlive every entry that it built, since their component names belong to it. Used by one thread at a
// time: at start-up the main thread, then the source's own.
class CFeatureLoader {
public:
    // Where a list is kept from an earlier run, its path says which serials are too low; empty: nowhere.
    explicit CFeatureLoader(std::string path, std::string keptPath = "", STrustPath trust = trustPath())
        : m_sPath(std::move(path)), m_sKeptPath(std::move(keptPath)), m_oTrust(std::move(trust)) {}

    // Reads and checks the file. No new list if it is faulty or is the one accepted last; the log says which.
    // What m_sFailure tells is for the caller to log. May wait as readFeatureList() does. Throws
    // std::bad_alloc; the list accepted last is then still remembered, and the next attempt is a new one.
    SLoaded load(CMediator& mediator);

    // Reads the list kept from an earlier run. Before any other was accepted. If it is no good, why is in
    // m_sFailure. It must be signed like any other, but its certificate may have run out meanwhile. Throws as
    // load() does.
    SLoaded loadKept(CMediator& mediator);

    // Whether the files of the trust directory are others than at the last load().
    bool isTrustChanged() const { return SFingerprint::of(m_oTrust.directory().c_str()) != m_oTrustBefore; }

    bool hasAccepted() const { return m_bAccepted; }

    const std::string& path() const { return m_sPath; }

private:
    // Logs the errors, at most 50 of them, and what that means for the list in force.
    void refuse(const SFeatureList& list) const;
    void accept(SFeatureList& list, CMediator& mediator, SLoaded& loaded);
    SSealedList read(SLoaded& loaded);
    void judgeSerial(SSealedList& sealed);
    SFreshFeature build(const SFeatureRecord& record, CMediator& mediator);

    std::string m_sPath;
    std::string m_sKeptPath;
    CListTrust m_oTrust;
    SFingerprint m_oTrustBefore;
    std::string m_sWarned; // the certificate that was left out, told last
    SSerialFloor m_oFloor; // of the list accepted last, if it was verified, or of the kept one
    CNamePool m_oNames;    // of components
    CEntryNames m_oEntryNames;
    bool m_bAccepted = false; // m_vAccepted is a list; the empty one is a list too
    std::vector<SFeatureRecord> m_vAccepted;
};

#endif
