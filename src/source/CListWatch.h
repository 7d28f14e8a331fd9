// Notices that the feature list file changed.
#ifndef QEL_SOURCE_CLISTWATCH_H
#define QEL_SOURCE_CLISTWATCH_H

#include <chrono>
#include <cstdint>
#include <string>
#include <sys/inotify.h>
#include <sys/stat.h>

// Two ways: inotify on the file and on its directory tells at once that a writer closed the file, that one was
// renamed over it, or that it went; writers of other files in the directory wake nobody. A look at the file's
// fingerprint at the end of every wait finds what inotify cannot tell: a network file system, a link that points
// elsewhere, lost events, a directory that came later. A change that no writer has closed counts once the
// fingerprint has stood still from one look to the next, and nothing happened in between: the writer may still
// be at it.
//
// One thread at a time. Waits for the file's first change after construction.
class CListWatch {
public:
    explicit CListWatch(std::string path);
    ~CListWatch();
    CListWatch(const CListWatch&) = delete;
    CListWatch& operator=(const CListWatch&) = delete;

    // True as soon as the file changed and is to be read; false after `time` without that, or earlier where it
    // may be about to come true. A file that went counts as changed too.
    bool wait(std::chrono::milliseconds time);

    // Whether the next wait may be a long one: inotify is at work, and the last look found nothing new.
    bool isAtRest() const;

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

    enum class ENews { None, Changed, Written }; // in the order of what they count

    SFingerprint look() const;
    void arm();
    void watch(int& known, const std::string& path, uint32_t events) const;
    ENews waitForNews(std::chrono::steady_clock::time_point end) const;
    ENews takeEvents() const;
    ENews meaning(const inotify_event& event) const;

    std::string m_sPath;
    std::string m_sDirectory;
    std::string m_sName;
    int m_nEvents = -1;       // inotify; -1 where there is none, and the fingerprint has to do
    int m_nFile = -1;         // inotify's watch; -1: none
    int m_nDirectory = -1;    // likewise
    SFingerprint m_oReported; // what the caller knows of
    SFingerprint m_oLast;     // as of the last look
};

#endif
