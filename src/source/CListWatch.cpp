#include "source/CListWatch.h"

#include <cerrno>
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
      m_sName(std::filesystem::path(m_sPath).filename().string()),
      m_nEvents(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)), m_oReported(look()), m_oLast(m_oReported) {
    watchDirectory();
}

CListWatch::~CListWatch() {
    if (m_nEvents >= 0) {
        close(m_nEvents);
    }
}

bool CListWatch::wait(std::chrono::milliseconds time) {
    watchDirectory();
    const bool isWritten = waitForEvent(std::chrono::steady_clock::now() + time);
    const SFingerprint now = look();
    const bool isSettled = isWritten || now == m_oLast;
    m_oLast = now;
    if (!isSettled || now == m_oReported) {
        return false;
    }
    m_oReported = now;
    return true;
}

CListWatch::SFingerprint CListWatch::look() const {
    struct stat status {};
    if (stat(m_sPath.c_str(), &status) != 0) {
        return {};
    }
    return {status.st_dev,          status.st_ino,         status.st_size,        status.st_mtim.tv_sec,
            status.st_mtim.tv_nsec, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

// Done anew for every wait, since the directory may come late, or go and come again. Where it is the same
// still, this changes nothing.
void CListWatch::watchDirectory() {
    if (m_nEvents < 0) {
        return;
    }
    const int watch =
        inotify_add_watch(m_nEvents, m_sDirectory.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO | IN_ONLYDIR);
    if (m_nWatch >= 0 && watch != m_nWatch) {
        inotify_rm_watch(m_nEvents, m_nWatch);
    }
    m_nWatch = watch;
}

bool CListWatch::waitForEvent(std::chrono::steady_clock::time_point end) {
    using std::chrono::milliseconds;
    for (auto now = std::chrono::steady_clock::now(); now < end; now = std::chrono::steady_clock::now()) {
        pollfd events{m_nEvents, POLLIN, 0};
        const auto left = std::chrono::ceil<milliseconds>(end - now).count();
        if (poll(&events, 1, static_cast<int>(left)) > 0 && takeEvents()) {
            std::this_thread::sleep_for(oSettleTime);
            takeEvents();
            return true;
        }
    }
    return false;
}

// True if one of the events that are there concerns the file, or if events were lost.
bool CListWatch::takeEvents() {
    alignas(inotify_event) char buffer[4096];
    bool isOurs = false;
    ssize_t length = 0;
    while ((length = read(m_nEvents, buffer, sizeof buffer)) > 0) {
        for (ssize_t at = 0; at < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            isOurs =
                isOurs || (event->mask & IN_Q_OVERFLOW) != 0 || (event->len > 0 && m_sName == event->name);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
    return isOurs;
}
