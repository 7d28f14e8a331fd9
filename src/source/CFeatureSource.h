// The daemon's feature source: supplies the first feature list, then watches its file for changes.
#ifndef QEL_SOURCE_CFEATURESOURCE_H
#define QEL_SOURCE_CFEATURESOURCE_H

#include "features/CFeatureSupply.h"
#include "source/CFeatureLoader.h"
#include "source/CHandOver.h"
#include "source/CListWatch.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

class CQelControl;

// The file is QEL_FEATURE_LIST of the environment, else the path compiled in.
//
// A thread of the source's own waits for changes, reads and checks the file, and builds the entries. It puts
// them into a mailbox and sends the own process a note, a message of framework type 7; the note's callback,
// on the main loop's thread, hands over what the mailbox holds. The note itself says nothing: one that a
// stranger sent finds an empty mailbox. As long as the mailbox is full, or features wait in the hand-over, a
// note goes out every second.
//
// The object and its thread live until the process ends, and are never destroyed: the process may exit at any
// moment, from any thread.
class CFeatureSource final : public CFeatureSupply {
public:
    static CFeatureSource& instance();

    bool supply(CQelControl& control) override;
    void startWatching() override;

private:
    explicit CFeatureSource(std::string path);

    void startThread();
    [[noreturn]] void watch();
    std::optional<CFreshList> readList();
    void post(CFreshList list);
    bool isWorkLeft();
    void sendNote();

    void takeMail();
    void handOver(CFreshList list);
    void carryOn();
    void setWaiting();

    // Written before the thread starts.
    CQelControl* m_pControl = nullptr;

    // The thread's, once it runs.
    CFeatureLoader m_oLoader;
    CListWatch m_oWatch;
    bool m_bNoteFailed = false; // and that was logged

    // The main thread's.
    bool m_bThread = false;
    bool m_bInForce = false; // some list was handed over
    std::unique_ptr<CHandOver> m_pHandOver;

    // Both threads'.
    std::mutex m_oMailMutex;
    std::unique_ptr<CFreshList> m_pMail; // newest list that waits to be handed over
    std::atomic<bool> m_bWaiting = false;
};

#endif
