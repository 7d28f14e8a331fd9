// The list in place and the lists before it, PATH.1 (the latest) to PATH.5.
#ifndef QEL_SOURCE_CLISTSTORE_H
#define QEL_SOURCE_CLISTSTORE_H

#include "base/CFileDescriptor.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

// The steps come in such an order that one that fails, or a power failure, leaves the list in place as it
// was, and loses no list before it but the oldest. It can leave a gap in the numbers, which does no harm.
//
// Where the path is a symbolic link, all this is about the file that it leads to, and beside it. Links are
// followed that root or the process's own user has made; of others, lock() tells.
//
// The results say which step failed and why, in one line for people; empty: it is done.
class CListStore {
public:
    static constexpr int nKept = 5;

    explicit CListStore(std::string path);

    static constexpr std::chrono::seconds tLockWait{5};

    // Waits until no other process changes the lists of this directory, but no longer than so. Held until the
    // object goes, which leaves nothing behind.
    [[nodiscard]] std::string lock(std::chrono::milliseconds wait = tLockWait);
    void unlock() { m_oLock.close(); }

    // Puts the text in place, with owner and mode of the list there. `before` is that one's text, kept as
    // PATH.1 unless it is there already; null: there is no list yet.
    [[nodiscard]] std::string put(std::string_view text, const std::string* before);
    // Puts the list of the latest() number in place; those behind it move up by one.
    [[nodiscard]] std::string goBack();

    // Writes over a file, with the owner and the mode that it has; the old text or the new one is there at
    // any time.
    [[nodiscard]] static std::string replace(const std::string& path, std::string_view text);

    // The lowest number that is kept; nothing: none is.
    std::optional<int> latest() const;
    std::string kept(int number) const; // its path
    const std::string& path() const { return m_sPath; }

private:
    std::string moveDown();

    std::string m_sPath;      // no link
    std::string m_sDirectory; // that it is in
    std::string m_sForeignLink;
    CFileDescriptor m_oLock;
};

#endif
