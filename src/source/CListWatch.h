// Notices that the feature list file changed.
#ifndef QEL_SOURCE_CLISTWATCH_H
#define QEL_SOURCE_CLISTWATCH_H

#include "base/CFileDescriptor.h"
#include "source/SFingerprint.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <sys/inotify.h>

// It uses two ways:
//
// - inotify(7), on the file and on its directory, wakes the thread at once when a writer closes the file,
//   when another file is renamed over it, and when it is removed. Writers of other files in the directory do
//   not wake it.
// - The file's fingerprint, taken at the end of every wait, finds what inotify misses: changes made by
//   another host of a network file system, a symbolic link that points elsewhere, lost events, a directory
//   that is created later.
//
// A change that no writer has closed counts only when the fingerprint has stayed the same from one look to
// the next without an event in between, for the writer may not have finished.
//
// Used by one thread at a time. The file as it is at construction counts as known; the first wait() waits for
// a change from that.
class CListWatch {
public:
    explicit CListWatch(std::string path);

    // Waits at most `time`, and some 50 ms more if something happens. True: the file has changed and is to be
    // read now; its removal is a change too. False: nothing new, or a change that is not complete yet. The
    // latter may return early; the caller just waits again.
    bool wait(std::chrono::milliseconds time);

    // Whether a change is waiting to be complete.
    bool isChanging() const { return m_oLast != m_oReported; }
    // Whether the next wait may be a long one: inotify watches the directory, and nothing is changing.
    bool isAtRest() const { return m_nDirectory >= 0 && !isChanging(); }

private:
    // By rank: of several events the highest counts. Written: a writer is done, so the file
    // can be read at once.
    enum class ENews { None, Changed, Written };

    SFingerprint look() const { return SFingerprint::of(m_sPath.c_str()); }
    void arm();
    void watch(int& known, const std::string& path, uint32_t events) const;
    ENews waitForNews(std::chrono::steady_clock::time_point end) const;
    ENews takeEvents() const;
    ENews meaning(const inotify_event& event) const;

    std::string m_sPath;
    std::string m_sDirectory;
    std::string m_sName;
    CFileDescriptor m_oEvents; // inotify; none: the system has none to spare, the fingerprint must do
    int m_nFile = -1;          // inotify's watch on the file; -1: none, as when there is no file
    int m_nDirectory = -1;     // and on its directory
    SFingerprint m_oReported;  // of the file that the caller knows
    SFingerprint m_oLast;      // at the end of the last wait
};

#endif
