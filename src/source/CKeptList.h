// The list taken last, kept on the disk for a start that finds no usable one.
#ifndef QEL_SOURCE_CKEPTLIST_H
#define QEL_SOURCE_CKEPTLIST_H

#include <optional>
#include <string>

// Used by one thread at a time: at start-up the main thread, then the source's own, which alone writes.
class CKeptList {
public:
    // The directory is made if only its last part is missing. Empty: nothing is kept.
    explicit CKeptList(std::string directory) : m_sDirectory(std::move(directory)) {}

    std::string path() const;
    bool isThere() const;

    // Remembers the text of a list that was taken, for save(); a later one replaces it.
    void take(std::string text);
    // Writes it, if there is one that is not kept yet. A failure leaves what was kept before, and is logged
    // unless the one before it was; the next list is the next attempt.
    void save();

private:
    std::string write(const std::string& text) const;

    std::string m_sDirectory;
    std::optional<std::string> m_sText;
    bool m_bFailed = false; // the last save() has, and the log says so
};

#endif
