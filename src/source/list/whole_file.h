// Reads a file as it stood at one moment.
#ifndef QEL_SOURCE_WHOLE_FILE_H
#define QEL_SOURCE_WHOLE_FILE_H

#include <cstddef>
#include <string>

struct SWholeFile {
    std::string m_sText;
    std::string m_sError; // why it cannot be used; empty: m_sText is the file
    // The error is none of the file: another attempt may succeed, though nobody has touched the file since.
    bool m_bPassing = false;
};

// A file that is written to while it is read is read again, a few times with a short pause, a tenth of a
// second in all. Only regular files of at most `limit` bytes are read; a device or a pipe is refused, not
// waited for. A rename over the path does no harm: the file that was opened stays whole.
SWholeFile readWholeFile(const std::string& path, size_t limit);

#endif
