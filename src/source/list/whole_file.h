// Reads a file as it stood at one moment.
#ifndef QEL_SOURCE_WHOLE_FILE_H
#define QEL_SOURCE_WHOLE_FILE_H

#include <cstddef>
#include <string>

struct SWholeFile {
    std::string m_sText;
    std::string m_sError; // why there is no text; empty: there is
};

// A file that is written to while it is read is read again, a few times with a short pause. Only regular
// files of at most `limit` bytes are read; a device or a pipe is refused, not waited for.
SWholeFile readWholeFile(const std::string& path, size_t limit);

#endif
