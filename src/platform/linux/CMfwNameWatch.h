// Watches the runtime directory for a process of one name (inotify(7)), so that who waits for it need not read
// all names again and again.
#ifndef QEL_PLATFORM_LINUX_CMFWNAMEWATCH_H
#define QEL_PLATFORM_LINUX_CMFWNAMEWATCH_H

#include "platform/linux/CRuntimeDirectory.h"

#include <string>

// A process writes its name into a file of its own when it can be reached (mfw_names.h); of each file written
// the watch reads that one alone. It ends by itself when the directory goes. Not thread-safe; the endpoint's
// mutex guards it.
class CMfwNameWatch {
public:
    // Instead of what was watched for so far. On failure nothing is.
    [[nodiscard]] int begin(const CRuntimeDirectory& directory, const char* processName);
    void end() { m_oEvents.close(); }
    bool isOf(const char* processName) const { return m_oEvents && m_sName == processName; }

    // Takes some of the events that are there. Whether the process may have come: its name was written, or
    // events were lost, or the directory has gone, or there was no memory to look.
    [[nodiscard]] bool hasCome(const CRuntimeDirectory& directory);

    int fd() const { return m_oEvents.get(); }

private:
    CFileDescriptor m_oEvents;
    std::string m_sName;
};

#endif
