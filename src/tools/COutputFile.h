// A file that is written under a temporary name and gets its real name only when it is whole.
#ifndef QEL_TOOLS_COUTPUTFILE_H
#define QEL_TOOLS_COUTPUTFILE_H

#include "tools/handles.h"

#include <string>

// Order of calls: construction, writing to bio(), finish(), publish(). A file that is not published by the
// end of the object's life is removed, and what had its name before is untouched.
//
// Replaces regular files. Of a symbolic link to a regular file it replaces the link itself. Anything else
// (a directory, a device, a pipe) stays, and bio() is null.
class COutputFile {
public:
    enum EAccess {
        acOwner, // mode 0600, whatever the umask, from the first byte on
        acUmask  // mode 0666 less the umask, as any new file has
    };

    COutputFile(std::string path, EAccess access);
    ~COutputFile();
    COutputFile(const COutputFile&) = delete;
    COutputFile& operator=(const COutputFile&) = delete;

    // Flushes everything to the disk and closes the file, so nothing more can be written. False: the file is
    // incomplete and must not be published.
    [[nodiscard]] bool finish();
    // Gives the finished file its real name. False: the name is as it was.
    [[nodiscard]] bool publish();

    const char* path() const { return m_sPath.c_str(); }
    BIO* bio() const { return m_pBio.get(); } // null where the file cannot be created, and after finish()

private:
    void create(EAccess access);

    std::string m_sPath;
    std::string m_sTemporary; // empty: there is none
    CBioHandle m_pBio;
};

#endif
