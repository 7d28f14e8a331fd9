#include "platform/linux/CMfwNameWatch.h"

#include "platform/linux/errors.h"
#include "platform/linux/mfw_names.h"

#include <new>
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

// One reading: who writes faster than this reads must not keep the endpoint, and what is left shows again. The
// buffer has room for an event of the longest name, without which read(2) would fail with EINVAL.
bool CMfwNameWatch::hasCome(const CRuntimeDirectory& directory) try {
    alignas(inotify_event) char buffer[4096];
    const ssize_t size = m_oEvents ? read(m_oEvents.get(), buffer, sizeof buffer) : 0;
    bool found = false;
    for (ssize_t at = 0; at < size;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        if ((event->mask & nGone) != 0) {
            end();
            return true;
        }
        found = found || (event->mask & IN_Q_OVERFLOW) != 0 ||
                (event->len != 0 && isNameFileOf(directory, event->name, m_sName));
    }
    return found;
} catch (const std::bad_alloc&) {
    return true; // it may have
}
