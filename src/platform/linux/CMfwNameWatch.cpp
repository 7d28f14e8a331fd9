#include "platform/linux/CMfwNameWatch.h"

#include "platform/linux/errors.h"
#include "platform/linux/mfw_names.h"

#include <sys/inotify.h>

namespace {

constexpr uint32_t nGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;

} // namespace

int CMfwNameWatch::begin(const CRuntimeDirectory& directory, const char* processName) {
    end();
    m_sName = processName;
    CFileDescriptor events(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!events || inotify_add_watch(events.get(), directory.path().c_str(),
                                     IN_MODIFY | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR) < 0) {
        return lastError();
    }
    m_oEvents = std::move(events);
    return 0;
}

// The buffer has room for an event of the longest name, without which read(2) would fail with EINVAL.
bool CMfwNameWatch::hasCome(const CRuntimeDirectory& directory) {
    alignas(inotify_event) char buffer[4096];
    bool found = false;
    ssize_t size = 0;
    while (m_oEvents && (size = read(m_oEvents.get(), buffer, sizeof buffer)) > 0) {
        for (ssize_t at = 0; at < size;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            if ((event->mask & (nGone | IN_Q_OVERFLOW)) != 0) {
                found = true;
                if ((event->mask & nGone) != 0) {
                    end();
                    break;
                }
            } else {
                found = found || (event->len != 0 && isNameFileOf(directory, event->name, m_sName));
            }
        }
    }
    return found;
}
