// A file that gets its new contents under its name in one step, once they are whole.
#ifndef QEL_TOOLS_COUTPUTFILE_H
#define QEL_TOOLS_COUTPUTFILE_H

#include "base/CFileDescriptor.h"

#include <span>
#include <string>
#include <string_view>
#include <sys/stat.h>

// Order of calls: construction, open(), fill(), publish(). A file that is not published by the end of the
// object's life leaves nothing behind, and what had its name before is untouched.
//
// The contents are written to a temporary file beside the old one, which hands its owner and mode on, and the
// two change places. Where that cannot be (the directory is not writable, or the owner cannot be handed on),
// they are written over the old file at publish(): not in one step, and there is no way back.
//
// Replaces regular files. Of a symbolic link to a regular file it replaces the link itself. Anything else
// (a directory, a device, a pipe) stays, and so does a stranger's file where strangers can create files, as
// in /tmp: whoever has planted it there would own what is written to it. open() fails for these.
class COutputFile {
public:
    enum EAccess {
        acOwner,  // mode 0600, whatever the umask, from the first byte on; an older file's mode, if narrower
        acUmask,  // mode 0666 less the umask, as any new file has, or an older file's mode
        acAnybody // likewise, and a stranger's file will do
    };

    COutputFile(std::string path, EAccess access);
    ~COutputFile();
    COutputFile(const COutputFile&) = delete;
    COutputFile& operator=(const COutputFile&) = delete;

    // False: the file cannot be written, neither beside the old one nor over it.
    [[nodiscard]] bool open();
    // Writes a temporary file to the disk. The contents must stay where they are until publish().
    [[nodiscard]] bool fill(std::string_view contents);
    // Gives the contents their real name. False: the name is as it was, unless the old file was written over.
    [[nodiscard]] bool publish();

    // All or none, where the file system can exchange two files (renameat2(2)) and none is written over. Null
    // for success, else the first file that failed.
    [[nodiscard]] static const COutputFile* publishAll(std::span<COutputFile> files);

    const char* path() const { return m_sPath.c_str(); }

private:
    bool isAcceptable(const struct stat& old) const;
    bool openTemporary();
    bool openInPlace();
    bool inherit(int file) const;
    bool write(int file) const;
    bool exchange() const;
    void withdraw();

    std::string m_sPath;
    EAccess m_eAccess;
    std::string m_sTemporary; // the new file's name, once exchanged the old one's; empty: there is none
    CFileDescriptor m_oFile;
    std::string_view m_oContents;
    bool m_bExchanged = false;
    bool m_bCreated = false; // published where nothing was before
};

#endif
