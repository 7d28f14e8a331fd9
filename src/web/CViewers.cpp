#include "web/CViewers.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr size_t nMaxRequest = size_t{16} * 1024; // bytes, all of it
constexpr seconds tRequest{5};
constexpr seconds tAnswer{20};
constexpr milliseconds tLeave{200};  // to be gone after the answer
constexpr milliseconds tCutOff{500}; // nobody is cut off before

} // namespace

// --- One connection ---

bool CViewer::await(short events, CClock::time_point deadline) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - CClock::now()).count();
    if (left <= 0) {
        return false;
    }
    pollfd waiting = {m_nFd, events, 0};
    m_fnWaits(true);
    const int ready = ::poll(&waiting, 1, static_cast<int>(left));
    m_fnWaits(false);
    return ready > 0;
}

ssize_t CViewer::read(char* bytes, size_t size) {
    size = std::min(size, nMaxRequest - m_nRead);
    if (size == 0 || !await(POLLIN, m_tBegun + tRequest)) {
        return -1;
    }
    const ssize_t length = ::recv(m_nFd, bytes, size, MSG_DONTWAIT);
    m_nRead += length > 0 ? static_cast<size_t>(length) : 0;
    return length;
}

ssize_t CViewer::write(const char* bytes, size_t size) {
    if (m_tWriting == CClock::time_point{}) {
        m_tWriting = CClock::now();
    }
    while (await(POLLOUT, m_tWriting + tAnswer)) {
        const ssize_t length = ::send(m_nFd, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (length >= 0 || (errno != EAGAIN && errno != EINTR)) {
            return length;
        }
    }
    return -1;
}

void CViewer::finish() {
    ::shutdown(m_nFd, SHUT_WR);
    const auto deadline = CClock::now() + tLeave;
    char rest[4096];
    while (await(POLLIN, deadline) && ::recv(m_nFd, rest, sizeof rest, MSG_DONTWAIT) > 0) {
    }
}

// --- All ---

CViewers::CViewers(Serve serve) : m_fnServe(std::move(serve)) {
    m_vWaiting.reserve(nMaxWaiting + 1);
    try {
        for (size_t i = 0; i < nThreads; ++i) {
            m_aThreads[i] = std::thread([this, i] { run(m_aServed[i]); });
        }
    } catch (...) {
        end(); // those that run
        throw;
    }
}

CViewers::~CViewers() {
    end();
}

void CViewers::end() {
    {
        const std::lock_guard lock(m_oMutex);
        m_bEnding = true;
        m_vWaiting.clear();
        for (const SServed& served : m_aServed) {
            ::shutdown(served.m_nFd, SHUT_RDWR); // harmless where there is none
        }
    }
    m_oCome.notify_all();
    for (std::thread& thread : m_aThreads) {
        if (thread.joinable()) {
            thread.join();
        }
    }
}

// Where too many wait, the one that has waited longest goes: whoever looks again comes behind.
void CViewers::add(CFileDescriptor connection) {
    {
        const std::lock_guard lock(m_oMutex);
        m_vWaiting.push_back(std::move(connection));
        if (m_vWaiting.size() > nMaxWaiting) {
            m_vWaiting.erase(m_vWaiting.begin());
        }
    }
    m_oCome.notify_one();
}

bool CViewers::makeRoom() {
    const std::lock_guard lock(m_oMutex);
    const auto isIdle = [](const SServed& each) { return each.m_nFd < 0; };
    if (m_vWaiting.empty() || std::any_of(m_aServed.begin(), m_aServed.end(), isIdle)) {
        return false;
    }
    SServed* oldest = nullptr;
    for (SServed& each : m_aServed) {
        if (each.m_bWaits && (oldest == nullptr || each.m_tBegun < oldest->m_tBegun)) {
            oldest = &each;
        }
    }
    if (oldest != nullptr && CClock::now() - oldest->m_tBegun > tCutOff) {
        ::shutdown(oldest->m_nFd, SHUT_RDWR);
    }
    return true;
}

// The descriptor is closed behind its entry, so that no other connection is cut off that has got its number.
void CViewers::run(SServed& served) {
    std::unique_lock lock(m_oMutex);
    for (;;) {
        m_oCome.wait(lock, [this] { return m_bEnding || !m_vWaiting.empty(); });
        if (m_bEnding) {
            return;
        }
        const CFileDescriptor connection = std::move(m_vWaiting.front());
        m_vWaiting.erase(m_vWaiting.begin());
        served = {connection.get(), false, CClock::now()};
        lock.unlock();
        {
            CViewer viewer(connection.get(), [this, &served](bool waits) {
                const std::lock_guard guard(m_oMutex);
                served.m_bWaits = waits;
            });
            m_fnServe(viewer);
        }
        lock.lock();
        served = {};
    }
}
