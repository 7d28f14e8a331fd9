// The demonstration, chapter by chapter.
#ifndef QEL_DEMO_CSTORY_H
#define QEL_DEMO_CSTORY_H

#include "CDemoList.h"
#include "CNarrator.h"
#include "CRecord.h"
#include "CStage.h"

#include <csignal>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// The cast. Telephony fetches its list and answers everything well, and so does Voice, which is the example
// component; Gateway refuses one feature; Tracing announces two that it holds already; the door phone never
// answers.
class CStory {
public:
    // Programs: their directory. List: the example list. `interrupted` is set to a signal's number by its
    // handler. Throws std::system_error, std::runtime_error.
    CStory(const std::string& programs, const std::string& list, const volatile sig_atomic_t& interrupted);

    // Plays, and sums up. The exit status: 0 if everything happened that had to happen.
    int play();

private:
    void introduce();
    bool openStage();
    bool bringOnComponents();
    bool changeList();
    bool startSilent();
    bool awaitChanges();
    bool awaitGivingUp();
    void closeStage();
    int sumUp(bool played);

    bool startGood();
    bool startRefusing();
    bool startHolding();
    bool startExample();
    void startComponent(const std::string& name);
    // Of its program: what stands on the command line, split at the blanks by whoever needs it.
    std::string commandOf(const std::string& name);
    // Shows what `qelctl list` prints, and expects the features of the list; `settled`: all of them active.
    void showList(const std::string& when, bool settled);
    // Lets things happen until the condition holds. False: the time is over, or the story cannot go on.
    bool await(const std::string& what, int seconds, const std::function<bool()>& condition);
    void hearOut();
    void take(const SEvent& event);
    void expect(const std::string& text, bool met);

    void expectFirstDeliveries();
    void expectChanges();
    void expectTrouble();
    void expectEnd(bool played);
    bool hasAll(EEvent kind, const std::string& who) const;
    bool answersWell(const std::string& who) const;
    bool haveChangesArrived() const;

    const volatile sig_atomic_t& m_nInterrupted;
    CStage m_oStage;
    CNarrator m_oNarrator;
    CRecord m_oRecord;
    std::vector<SExpectation> m_vExpectations;
    std::string m_sExampleList; // path
    CDemoList m_oBefore;        // the list at first, and after the change
    CDemoList m_oAfter;
    size_t m_nChanged = 0; // mark of the record when the list was changed
    CProcess* m_pDaemon = nullptr;
    bool m_bClosing = false;          // from now on processes may end
    std::string m_sDied;              // a process that ended before its time
    std::optional<int> m_nStopStatus; // of `qelserver -stop`
    std::vector<CProcess*> m_vComponents;
};

#endif
