#include "source/CListWatch.h"

#include <algorithm>
#include <filesystem>
#include <poll.h>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr auto oSettleTime = std::chrono::milliseconds(50); // an editor that saves makes several events

std::string directoryOf(const std::string& path) {
    const auto directory = std::filesystem::path(path).parent_path();
    return directory.empty() ? "." : directory.string();
}

} // namespace

CListWatch::CListWatch(std::string path)
    : m_sPath(std::move(path)), m_sDirectory(directoryOf(m_sPath)),
      m_sName(std::filesystem::path(m_sPath).filename().string()) {
    arm();
    m_oReported = m_oLast = look();
}

// Arms before it looks, so no change is lost: what comes before the look is in the fingerprint, and what
// comes after it is an event for the next wait. Even an event says only when to look; whether there is news,
// the fingerprint decides, so a file that is saved unchanged (touch) is read once, and one that is opened for
// writing and closed is not read at all.
bool CListWatch::wait(std::chrono::milliseconds time) {
    const ENews news = waitForNews(std::chrono::steady_clock::now() + time);
    arm();
    const SFingerprint now = look();
    const bool isSettled = news == ENews::Written || (news == ENews::None && now == m_oLast);
    m_oLast = now;
    if (!isSettled || now == m_oReported) {
        return false;
    }
    m_oReported = now;
    return true;
}

// Called for every wait, since the file and the directory may be created late, or be removed and created
// again, and descriptors may have run out. For the same file inotify_add_watch(2) returns the watch that
// there is, so that costs two system calls.
//
// Other files of the directory may be written all the time, a log for example. So the directory is asked for
// writes only if there is no file to watch. Renames over the file are the directory's events in any case, for
// the file's own watch stays with the old inode.
void CListWatch::arm() {
    if (!m_oEvents) {
        m_oEvents = CFileDescriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    }
    if (!m_oEvents) {
        return;
    }
    constexpr uint32_t nOfFile = IN_CLOSE_WRITE | IN_ATTRIB | IN_MOVE_SELF;
    watch(m_nFile, m_sPath, nOfFile);
    const uint32_t written = m_nFile < 0 ? uint32_t{IN_CLOSE_WRITE} : 0;
    watch(m_nDirectory, m_sDirectory, IN_MOVED_TO | IN_ONLYDIR | written);
}

// A watch goes by inode. When the path means another file now, the old file's watch must go, or its events
// would still arrive. If that file was deleted, the kernel has removed the watch itself,
// and the call fails harmlessly.
void CListWatch::watch(int& known, const std::string& path, uint32_t events) const {
    const int now = inotify_add_watch(m_oEvents.get(), path.c_str(), events);
    if (known >= 0 && now != known) {
        inotify_rm_watch(m_oEvents.get(), known);
    }
    known = now;
}

// Goes on waiting after events that do not concern the list, and after a signal. poll(2) ignores a negative
// descriptor: without inotify this just waits out the time.
CListWatch::ENews CListWatch::waitForNews(std::chrono::steady_clock::time_point end) const {
    using std::chrono::milliseconds;
    for (auto now = std::chrono::steady_clock::now(); now < end; now = std::chrono::steady_clock::now()) {
        pollfd events{m_oEvents.get(), POLLIN, 0};
        const auto left = std::chrono::ceil<milliseconds>(end - now).count();
        const ENews news = poll(&events, 1, static_cast<int>(left)) > 0 ? takeEvents() : ENews::None;
        if (news != ENews::None) {
            std::this_thread::sleep_for(oSettleTime);
            return std::max(news, takeEvents());
        }
    }
    return ENews::None;
}

// Reads all events that are there, and returns the highest rank among them. The buffer takes at least one
// event of the longest name, without which read(2) would fail with EINVAL (inotify(7)); the descriptor does
// not block.
CListWatch::ENews CListWatch::takeEvents() const {
    alignas(inotify_event) char buffer[4096];
    ENews news = ENews::None;
    ssize_t length = 0;
    while ((length = read(m_oEvents.get(), buffer, sizeof buffer)) > 0) {
        for (ssize_t at = 0; at < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            news = std::max(news, meaning(*event));
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
    return news;
}

// If the queue has overflowed, events are lost, and one of them may have been the writer's close: so this
// counts as Written. A mistake costs one look too many. The directory's events carry the name of the file
// that they are about; those without a name are about the directory itself.
CListWatch::ENews CListWatch::meaning(const inotify_event& event) const {
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
        return ENews::Written;
    }
    const bool isOurs =
        event.wd == m_nFile || (event.wd == m_nDirectory && (event.len == 0 || m_sName == event.name));
    if (!isOurs) {
        return ENews::None;
    }
    return (event.mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) != 0 ? ENews::Written : ENews::Changed;
}
