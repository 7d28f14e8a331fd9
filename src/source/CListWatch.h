// Notices that the feature list file changed.
#ifndef QEL_SOURCE_CLISTWATCH_H
#define QEL_SOURCE_CLISTWATCH_H

#include <chrono>
#include <string>
#include <sys/stat.h>

// Two ways: inotify on the file's directory tells at once that a writer closed the file, or that one was
// renamed over it. A look at the file's fingerprint at the end of every wait finds what inotify cannot tell:
// a symbolic link's target, a network file system, lost events, a directory that came later. Such a change
// counts once the fingerprint has stood still from one look to the next: the writer may still be at it.
//
// One thread at a time. Waits for the file's first change after construction.
class CListWatch {
public:
    explicit CListWatch(std::string path);
    ~CListWatch();
    CListWatch(const CListWatch&) = delete;
    CListWatch& operator=(const CListWatch&) = delete;

    // True as soon as the file changed and is to be read; false after `time` without that. A file that went
    // counts as changed too.
    bool wait(std::chrono::milliseconds time);

private:
    struct SFingerprint {
        bool operator==(const SFingerprint& other) const = default;
        dev_t m_nDevice = 0; // all zero: there is no file
        ino_t m_nInode = 0;
        off_t m_nSize = 0;
        time_t m_tModified = 0;
        long m_nModified = 0; // nanoseconds
        time_t m_tChanged = 0;
        long m_nChanged = 0;
    };

    SFingerprint look() const;
    void watchDirectory();
    bool waitForEvent(std::chrono::steady_clock::time_point end);
    bool takeEvents();

    std::string m_sPath;
    std::string m_sDirectory;
    std::string m_sName;
    int m_nEvents = -1; // inotify; -1 where there is none, and the fingerprint has to do
    int m_nWatch = -1;
    SFingerprint m_oReported; // what the caller knows of
    SFingerprint m_oLast;     // as of the last look
};

#endif
