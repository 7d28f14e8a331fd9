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
      m_sName(std::filesystem::path(m_sPath).filename().string()),
      m_nEvents(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    arm();
    m_oReported = m_oLast = look();
}

CListWatch::~CListWatch() {
    if (m_nEvents >= 0) {
        close(m_nEvents);
    }
}

// Arms before it looks: what comes after the look is an event.
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

bool CListWatch::isAtRest() const {
    return m_nDirectory >= 0 && m_oLast == m_oReported;
}

CListWatch::SFingerprint CListWatch::look() const {
    struct stat status {};
    if (stat(m_sPath.c_str(), &status) != 0) {
        return {};
    }
    return {status.st_dev,          status.st_ino,         status.st_size,        status.st_mtim.tv_sec,
            status.st_mtim.tv_nsec, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

// Done anew for every wait, since file and directory may come late, or go and come again. Where they are the same
// still, this changes nothing. The directory's other files may be written without end, a log for one: only
// where there is no file to watch is the directory asked for what is written in it.
void CListWatch::arm() {
    if (m_nEvents < 0) {
        return;
    }
    constexpr uint32_t nOfFile = IN_CLOSE_WRITE | IN_ATTRIB | IN_MOVE_SELF;
    watch(m_nFile, m_sPath, nOfFile);
    const uint32_t written = m_nFile < 0 ? uint32_t{IN_CLOSE_WRITE} : 0;
    watch(m_nDirectory, m_sDirectory, IN_MOVED_TO | IN_ONLYDIR | written);
}

void CListWatch::watch(int& known, const std::string& path, uint32_t events) const {
    const int now = inotify_add_watch(m_nEvents, path.c_str(), events);
    if (known >= 0 && now != known) {
        inotify_rm_watch(m_nEvents, known);
    }
    known = now;
}

CListWatch::ENews CListWatch::waitForNews(std::chrono::steady_clock::time_point end) const {
    using std::chrono::milliseconds;
    for (auto now = std::chrono::steady_clock::now(); now < end; now = std::chrono::steady_clock::now()) {
        pollfd events{m_nEvents, POLLIN, 0};
        const auto left = std::chrono::ceil<milliseconds>(end - now).count();
        const ENews news = poll(&events, 1, static_cast<int>(left)) > 0 ? takeEvents() : ENews::None;
        if (news != ENews::None) {
            std::this_thread::sleep_for(oSettleTime);
            return std::max(news, takeEvents());
        }
    }
    return ENews::None;
}

// The best of the events that are there.
CListWatch::ENews CListWatch::takeEvents() const {
    alignas(inotify_event) char buffer[4096];
    ENews news = ENews::None;
    ssize_t length = 0;
    while ((length = read(m_nEvents, buffer, sizeof buffer)) > 0) {
        for (ssize_t at = 0; at < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            news = std::max(news, meaning(*event));
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
    return news;
}

// Lost events count as the best.
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
