// The one directory that all processes of the appliance meet in. Its owner and mode alone say who takes part;
// the files inside are usable by whoever gets that far.
#ifndef QEL_PLATFORM_LINUX_CRUNTIMEDIRECTORY_H
#define QEL_PLATFORM_LINUX_CRUNTIMEDIRECTORY_H

#include "base/CFileDescriptor.h"

#include <string>
#include <string_view>
#include <sys/un.h>
#include <vector>

class CRuntimeDirectory {
public:
    // Opens the directory that the environment names at this moment: QEL_RUNTIME_DIR, else /run/qel for root,
    // else $XDG_RUNTIME_DIR/qel, else /tmp/qel-<uid>. Where it is missing it is made with mode 0700, its
    // parents are not.
    [[nodiscard]] int open();

    // Opens an existing file with the flags of open(2), close-on-exec added. Empty, and errno set, on
    // failure.
    [[nodiscard]] CFileDescriptor openFile(const std::string& name, int flags) const;

    // Opens a regular file for reading and writing, and makes it first where it is missing.
    [[nodiscard]] CFileDescriptor openOrCreateFile(const std::string& name) const;

    // Gives a file the mode whatever the umask. `name` must not be a symbolic link.
    [[nodiscard]] int setMode(const std::string& name, unsigned int mode) const;

    // Removing what is not there is no failure worth telling.
    void remove(const std::string& name) const;

    // Whether `name` still means the file that `fd` has open. Nobody reuses an inode that is open.
    [[nodiscard]] bool isSameFile(const std::string& name, int fd) const;

    // Names of all files that begin with `prefix`, in no order.
    [[nodiscard]] std::vector<std::string> list(std::string_view prefix) const;

    // Address of a socket in this directory. However long the directory's path, it fits: it goes through the
    // open directory, so it holds only while this object lives, and in this process.
    [[nodiscard]] sockaddr_un socketAddress(const std::string& name) const;

    int fd() const { return m_oDirectory.get(); }

private:
    CFileDescriptor m_oDirectory;
};

// Whether a name given by a caller can be part of a file name here: not null, not empty, no slash, at most
// 200 bytes.
[[nodiscard]] bool isFileNamePart(const char* name);

#endif
