// Replaces a file as a whole: whoever opens it, at whatever moment, finds the old text or the new one, also
// after a power failure.
#ifndef QEL_BASE_CFILEREPLACEMENT_H
#define QEL_BASE_CFILEREPLACEMENT_H

#include <string>
#include <string_view>
#include <sys/stat.h>

// Order of calls: write(), then publish(). The text is written beside the file, as .NAME.partial. One that is not
// published goes with the object; one that a power failure has left is written over by the next. So there
// must be one writer of a path at a time, which is the callers' to see to.
//
// A symbolic link is replaced, not what it leads to. The results say which step failed and why, in one line
// for people; empty: it is done.
class CFileReplacement {
public:
    explicit CFileReplacement(std::string path);
    ~CFileReplacement();
    CFileReplacement(const CFileReplacement&) = delete;
    CFileReplacement& operator=(const CFileReplacement&) = delete;

    // Writes the text to the disk, under the temporary name. Owner, group and mode are those of `like`; null:
    // the process's own and 0644, whatever the umask.
    [[nodiscard]] std::string write(std::string_view text, const struct stat* like);
    // Gives it its name. Lasting only with syncDirectory(), once for all that was done in a directory.
    [[nodiscard]] std::string publish();

private:
    std::string m_sPath;
    std::string m_sTemporary;
    bool m_bWritten = false; // the temporary file is this object's
};

// What was renamed and removed in the directory is so after a power failure, too.
[[nodiscard]] std::string syncDirectory(const std::string& path);

// "cannot WHAT PATH: REASON", the reason from errno.
std::string failure(std::string_view what, std::string_view path);

#endif
