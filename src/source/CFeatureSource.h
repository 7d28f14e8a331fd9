// The daemon's feature source: supplies the first feature list, then watches its file for changes.
#ifndef QEL_SOURCE_CFEATURESOURCE_H
#define QEL_SOURCE_CFEATURESOURCE_H

#include "features/CFeatureSupply.h"
#include "features/SListState.h"
#include "source/CFeatureLoader.h"
#include "source/CHandOver.h"
#include "source/CKeptList.h"
#include "source/CListWatch.h"
#include "source/CRetry.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

class CQelControl;

// The file is featureListPath() of source/list/list_paths.h.
//
// The source has a thread of its own, since reading a long list takes seconds, in which the main loop must
// serve the components. The thread waits for changes, reads and checks the file, and builds the entries. It
// puts them into a mailbox and sends its own process a note, a message of framework type 7. The note wakes
// the main loop, whose thread runs the callback, and that hands over what the mailbox holds. What became of a
// reading, for whoever looks, goes the same way. The note has no content: one from a stranger finds an empty
// mailbox and changes nothing. While the mailbox is full, or features wait in the hand-over, a note goes out
// every second, so a note that is lost costs a second.
//
// What fails for want of memory or of descriptors changes nothing and is tried again: the thread reads the
// file again, less and less often, and what the main loop could not hand over waits in the mailbox for the
// next note. The log has one line when that begins. Nothing is thrown to the server, nor to the framework.
//
// The list taken last is kept in the state directory. A start that finds no usable list takes that one, and the
// file when it has become good.
//
// The daemon has one object, and it lives until the process ends, as its thread does: any thread may end the
// process at any moment, and must not destroy what another one uses.
class CFeatureSource final : public CFeatureSupply {
public:
    static CFeatureSource& instance();

    // Without a state directory no list is kept. The period is how often the thread looks while there is
    // something to do.
    explicit CFeatureSource(std::string path, std::string stateDirectory = "",
                            std::chrono::milliseconds period = std::chrono::seconds(1));

    bool supply(CQelControl& control) override;
    void startWatching() override;
    const SListState& state() const override { return m_oState; }

    // What the thread does, over and over: waits for a change of the file for some periods at most, reads the
    // file if it has changed or is to be tried again, and sends a note if there is work left. For tests,
    // which have no thread; not before supply().
    void turn();
    // What a note has the main loop do.
    void takeMail();

private:
    struct SMail {
        CFreshList m_vList;
        SListReading m_oReading; // by which it was taken
    };
    using CMail = std::unique_ptr<SMail>;

    // What readings there were since the main loop took notice.
    struct SNews {
        SListReading m_oLatest; // lrNone: there were none
        uint32_t m_nTaken = 0;
        uint32_t m_nRefused = 0;
    };

    void startThread();
    [[noreturn]] void watch();
    void readList();
    void tellReading(const std::string& failure);
    void readKept();
    void post(SListReading reading, CMail mail);
    bool isWorkLeft();
    void sendNote();

    bool isInForce() const { return m_oState.m_oInForce.m_eResult != lrNone; }
    void takeNotice(SNews news, SListReading& accepted);
    void deliver(CMail mail);
    bool handOver(SMail& mail);
    void carryOn();
    void setWaiting();

    // Written before the thread starts, and only read afterwards; so it needs no lock. Not owned.
    CQelControl* m_pControl = nullptr;

    // The main thread's until the thread runs (it reads the first list), then the thread's alone.
    CFeatureLoader m_oLoader;
    CKeptList m_oKept;
    CListWatch m_oWatch;
    std::chrono::milliseconds m_nPeriod;
    CRetry m_oReading;
    bool m_bNoted = true;       // work was left; the first list, too, may have left some
    bool m_bNoteFailed = false; // the last note was not sent, and the log says so

    // The main thread's alone.
    bool m_bThread = false;               // the thread runs
    std::optional<CHandOver> m_oHandOver; // none before the first supply()
    bool m_bShort = false;                // no memory for the last hand-over, and the log says so
    SListState m_oState;

    // Both threads'.
    std::mutex m_oMailMutex; // guards the two that follow
    CMail m_pMail;           // the newest list, if it is not handed over yet
    SNews m_oNews;
    std::atomic<bool> m_bWaiting = false; // features wait in the hand-over; written by the main thread
};

#endif
