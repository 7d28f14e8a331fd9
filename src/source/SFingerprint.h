// Tells whether a file has changed, without reading it.
#ifndef QEL_SOURCE_SFINGERPRINT_H
#define QEL_SOURCE_SFINGERPRINT_H

#include <ctime>
#include <sys/stat.h>

// The change time is there because a writer can set the modification time back (cp -p, rsync), but no call
// sets the change time.
struct SFingerprint {
    // By stat(2), which follows links.
    static SFingerprint of(const char* path) {
        struct stat status {};
        if (stat(path, &status) != 0) {
            return {};
        }
        return {status.st_dev,          status.st_ino,         status.st_size,        status.st_mtim.tv_sec,
                status.st_mtim.tv_nsec, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
    }

    bool operator==(const SFingerprint& other) const = default;

    dev_t m_nDevice = 0; // all zero: there is no file, or the system does not tell
    ino_t m_nInode = 0;
    off_t m_nSize = 0;
    time_t m_tModified = 0;
    long m_nModified = 0; // nanoseconds
    time_t m_tChanged = 0;
    long m_nChanged = 0;
};

#endif
