// Named events: an event is the FIFO "event.<name>" in the runtime directory, and a signal is a byte in it.
// Everyone who has the event open holds both ends open (O_RDWR, which Linux allows for a FIFO, see fifo(7)).
// So opening never waits for the other side, and sending never finds a pipe without a reader (SIGPIPE). The
// kernel keeps the bytes as long as any process has the FIFO open.
#include "platform/linux/CDeadline.h"
#include "platform/linux/CRuntimeDirectory.h"
#include "platform/linux/errors.h"

#include <atomic>
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <sys/file.h>
#include <sys/stat.h>

namespace {

constexpr mode_t nEventMode = 0666;

class CNamedEvent {
public:
    [[nodiscard]] int create(const char* name);
    [[nodiscard]] int open(const char* name);
    [[nodiscard]] int send() const;
    [[nodiscard]] int receive(const CDeadline& deadline) const;
    void kill();

private:
    [[nodiscard]] int openFifo();
    bool takeSignal() const;

    // Opened once: kill() must find the name where it was made, even if the environment has changed since.
    CRuntimeDirectory m_oDirectory;
    std::string m_sFile;
    CFileDescriptor m_oFifo;
    std::atomic<bool> m_bKilled{false};
};

// mkfifoat(2) is atomic, so of two creators one gets OS_ERROR_EXISTS. It applies the umask, but other users'
// processes take part too, so the mode is set once more. An event that cannot be used goes again, or its name
// would be taken by something that nobody has open.
int CNamedEvent::create(const char* name) {
    m_sFile = std::string("event.") + name;
    if (const int error = m_oDirectory.open()) {
        return error;
    }
    if (mkfifoat(m_oDirectory.fd(), m_sFile.c_str(), nEventMode) != 0) {
        return errno == EEXIST ? OS_ERROR_EXISTS : lastError();
    }
    int error = m_oDirectory.setMode(m_sFile, nEventMode);
    if (error == 0) {
        error = openFifo();
    }
    if (error != 0) {
        m_oDirectory.remove(m_sFile);
    }
    return error;
}

int CNamedEvent::open(const char* name) {
    m_sFile = std::string("event.") + name;
    if (const int error = m_oDirectory.open()) {
        return error;
    }
    return openFifo();
}

int CNamedEvent::openFifo() {
    m_oFifo = m_oDirectory.openFile(m_sFile, O_RDWR, S_IFIFO);
    return m_oFifo ? 0 : lastError();
}

// A full FIFO (EAGAIN) holds signals that nobody has received yet. They count as one, and so does this one
// with them: that is a success.
int CNamedEvent::send() const {
    const char signal = 1;
    for (;;) {
        if (write(m_oFifo.get(), &signal, 1) == 1 || errno == EAGAIN) {
            return 0;
        }
        if (errno != EINTR) {
            return lastError();
        }
    }
}

// Takes all bytes there are, since signals that nobody has received count as one. False: there were none, for
// another receiver was faster; poll(2) wakes all of them.
bool CNamedEvent::takeSignal() const {
    char signals[4096];
    bool found = false;
    for (;;) {
        const ssize_t count = read(m_oFifo.get(), signals, sizeof signals);
        found = found || count > 0;
        if (count < static_cast<ssize_t>(sizeof signals) && !(count < 0 && errno == EINTR)) {
            return found;
        }
    }
}

// kill() wakes nobody; the contract lets a waiting receiver return when its time is up. m_bKilled is looked
// at again after the wait, so that a signal is not reported by an event that was killed meanwhile.
int CNamedEvent::receive(const CDeadline& deadline) const {
    while (!m_bKilled && deadline.waitReadable(m_oFifo.get())) {
        if (!m_bKilled && takeSignal()) {
            return 0;
        }
    }
    if (!m_bKilled) {
        return ETIMEDOUT;
    }
    deadline.sleep();
    return EBADF;
}

// Another process may have killed this event and created a new one under the name, which must stay. unlink(2)
// knows only names, so whoever removes the name holds the FIFO's lock (flock(2)) while it compares and
// removes: the name cannot pass to a newer event in between. If the lock is taken, somebody else is removing
// this very event, and there is nothing left to do.
void CNamedEvent::kill() {
    m_bKilled = true;
    if (flock(m_oFifo.get(), LOCK_EX | LOCK_NB) != 0) {
        return;
    }
    if (m_oDirectory.isSameFile(m_sFile, m_oFifo.get())) {
        m_oDirectory.remove(m_sFile);
    }
    flock(m_oFifo.get(), LOCK_UN);
}

// The events that this process has open, by handle. Handles count upwards, so that the handle of a killed
// event does not mean a newer one. The table is never destroyed, since another thread may be ending the
// process. A thread inside an operation shares ownership of its event, so that a kill by another thread does
// not close the descriptor, and let its number be reused, in the middle of a call.
class CEventTable {
public:
    // Skips 0, all ones (the contract's "none"), and what is still in use after 2^32 events.
    uint32_t add(std::shared_ptr<CNamedEvent> event) {
        const std::lock_guard<std::mutex> guard(m_oMutex);
        while (m_nNext == 0 || m_nNext == OS_EVENT_NONE || m_oEvents.count(m_nNext) != 0) {
            ++m_nNext;
        }
        m_oEvents.emplace(m_nNext, std::move(event));
        return m_nNext++;
    }

    std::shared_ptr<CNamedEvent> find(uint32_t handle) {
        const std::lock_guard<std::mutex> guard(m_oMutex);
        const auto found = m_oEvents.find(handle);
        return found == m_oEvents.end() ? nullptr : found->second;
    }

    std::shared_ptr<CNamedEvent> remove(uint32_t handle) {
        const std::lock_guard<std::mutex> guard(m_oMutex);
        const auto found = m_oEvents.find(handle);
        if (found == m_oEvents.end()) {
            return nullptr;
        }
        std::shared_ptr<CNamedEvent> event = std::move(found->second);
        m_oEvents.erase(found);
        return event;
    }

private:
    std::mutex m_oMutex;
    std::map<uint32_t, std::shared_ptr<CNamedEvent>> m_oEvents;
    uint32_t m_nNext = 1;
};

[[gnu::hot]] CEventTable& events() {
    static CEventTable& instance = *new CEventTable;
    return instance;
}

int addEvent(const char* name, uint32_t* handle, int (CNamedEvent::*begin)(const char*)) {
    if (!isFileNamePart(name) || handle == nullptr) {
        return EINVAL;
    }
    // Its place in the table comes first: an event that is created, but found no memory there, would keep its
    // name taken.
    return guarded([&] {
        const auto event = std::make_shared<CNamedEvent>();
        const uint32_t added = events().add(event);
        const int error = guarded([&] { return (event.get()->*begin)(name); });
        if (error == 0) {
            *handle = added;
        } else {
            events().remove(added);
        }
        return error;
    });
}

} // namespace

int osCreateEvent(const char* name, uint32_t flags, uint32_t* handle) {
    return flags != 0 ? EINVAL : addEvent(name, handle, &CNamedEvent::create);
}

int osOpenEvent(const char* name, uint32_t* handle) {
    return addEvent(name, handle, &CNamedEvent::open);
}

int osSendEvent(uint32_t handle) {
    return guarded([&] {
        const auto event = events().find(handle);
        return event == nullptr ? EBADF : event->send();
    });
}

// The deadline stands before the look-up, because a failure has to wait out the time: a loop around this call
// has no pause of its own.
[[gnu::hot]] int osReceiveEvent(uint32_t handle, uint32_t waitMs) {
    return guarded([&] {
        const CDeadline deadline(waitMs);
        const auto event = events().find(handle);
        if (event == nullptr) {
            deadline.sleep();
            return EBADF;
        }
        return event->receive(deadline);
    });
}

// Out of the table first: of two threads that kill one handle, one finds nothing.
int osKillEvent(uint32_t handle) {
    return guarded([&] {
        const auto event = events().remove(handle);
        if (event == nullptr) {
            return EBADF;
        }
        event->kill();
        return 0;
    });
}
