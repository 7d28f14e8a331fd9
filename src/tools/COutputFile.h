// A file that is written under another name and takes its place only when it is whole.
#ifndef QEL_TOOLS_COUTPUTFILE_H
#define QEL_TOOLS_COUTPUTFILE_H

#include "tools/handles.h"

#include <string>

// What is not published leaves nothing behind when the object goes. Replaces regular files and symbolic links
// to such, the link itself; anything else stays.
class COutputFile {
public:
    enum EAccess {
        acOwner, // 0600, whatever the umask, from the first byte on
        acUmask  // as for any new file
    };

    COutputFile(std::string path, EAccess access);
    ~COutputFile();
    COutputFile(const COutputFile&) = delete;
    COutputFile& operator=(const COutputFile&) = delete;

    // Brings all that was written to the disk. No more can be written then.
    [[nodiscard]] bool finish();
    // After finish().
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
