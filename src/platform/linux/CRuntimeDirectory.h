// The one directory in which all processes of the appliance meet. Its owner and mode alone decide who takes
// part; the files inside are open to whoever gets that far. docs/platform.md lists them.
#ifndef QEL_PLATFORM_LINUX_CRUNTIMEDIRECTORY_H
#define QEL_PLATFORM_LINUX_CRUNTIMEDIRECTORY_H

#include "base/CFileDescriptor.h"

#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/un.h>
#include <vector>

// Everything goes by the open directory, so the object keeps to it even if its path is renamed or the
// environment changes. After open() the object is not changed, so several threads may use it. Failures are
// numbers as in errors.h where a function returns int.
class CRuntimeDirectory {
public:
    // Opens the directory that the environment names at this moment: QEL_RUNTIME_DIR, else /run/qel for root
    // and whoever else may enter it and write there, else $XDG_RUNTIME_DIR/qel, else /tmp/qel-<uid>. If it is
    // missing, it is created with mode 0700; its parents are not. EACCES: the one in /tmp is not the user's
    // own, or anybody may write to it.
    [[nodiscard]] int open();

    // The same, but ENOENT if it is missing.
    [[nodiscard]] int openExisting();

    // Opens in `found` what this directory's path means by now: another directory, where this one was removed
    // or renamed and one made anew. It is not created: whoever removed it may want to make it himself.
    [[nodiscard]] int openAgain(CRuntimeDirectory& found) const;

    // Opens an existing file with the flags of open(2), to which it adds close-on-exec, that symbolic links
    // are refused, and that nothing is waited for. `kind` is S_IFREG or S_IFIFO: what is no such file is not
    // ours, whatever it is called (EINVAL). On failure the result is empty and errno is set.
    [[nodiscard]] CFileDescriptor openFile(const std::string& name, int flags, mode_t kind) const;

    // Opens a regular file for reading and writing, and creates it with mode 0666 if it is missing. On
    // failure as openFile().
    [[nodiscard]] CFileDescriptor openOrCreateFile(const std::string& name) const;

    // Creates a regular file likewise. EEXIST: the name is taken.
    [[nodiscard]] CFileDescriptor createFile(const std::string& name) const;

    // Sets a file's mode, by name: a socket or a FIFO need not be opened for it. The umask does not matter.
    // `name` must not be a symbolic link, since it would be followed.
    [[nodiscard]] int setMode(const std::string& name, unsigned int mode) const;

    // Removes a file. Failures are not reported: a file that is gone already is what the caller wanted.
    void remove(const std::string& name) const;

    // Whether `name` still means the file that `fd` has open. The inode's number decides, which the kernel
    // does not give to another file while this one is open.
    [[nodiscard]] bool isSameFile(const std::string& name, int fd) const;

    // Names of all files that begin with `prefix`, in no order. Empty if the directory cannot be read.
    [[nodiscard]] std::vector<std::string> list(std::string_view prefix) const;

    // Address of a socket in this directory, for bind(2) and connect(2). sun_path has room for 108 bytes only
    // (unix(7)), so the address goes by way of the open directory in /proc and fits however long the
    // directory's path is. It is valid in this process only, and while this object lives.
    [[nodiscard]] sockaddr_un socketAddress(const std::string& name) const;

    int fd() const { return m_oDirectory.get(); }
    const std::string& path() const { return m_sPath; } // at which it was opened

private:
    [[nodiscard]] int openPath();

    std::string m_sPath;
    bool m_bInSharedPlace = false; // anybody could have made it before us
    CFileDescriptor m_oDirectory;
};

// Whether a name given by a caller can be part of a file name here: not null, not empty, no slash, at most
// 200 bytes.
[[nodiscard]] bool isFileNamePart(const char* name);

#endif
