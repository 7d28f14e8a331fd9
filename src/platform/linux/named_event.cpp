// Named events: an event is a FIFO "event.<name>", a signal a byte in it. Both ends are held open by everyone
// who has the event open, so neither side blocks nor is told of a broken pipe.
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

constexpr mode_t EVENT_MODE = 0666;

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

    CRuntimeDirectory
        m_oDirectory; // where the name stands, wherever the environment points by the time of the kill
    std::string m_sFile;
    CFileDescriptor m_oFifo;
    std::atomic<bool> m_bKilled{false};
};

int CNamedEvent::create(const char* name) {
    m_sFile = std::string("event.") + name;
    if (const int error = m_oDirectory.open()) {
        return error;
    }
    if (mkfifoat(m_oDirectory.fd(), m_sFile.c_str(), EVENT_MODE) != 0) {
        return errno == EEXIST ? OS_ERROR_EXISTS : lastError();
    }
    int error = m_oDirectory.setMode(m_sFile, EVENT_MODE);
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
    m_oFifo = m_oDirectory.openFile(m_sFile, O_RDWR | O_NONBLOCK);
    return m_oFifo ? 0 : lastError();
}

// A full FIFO holds signals that nobody has received: they count as one, and this one with them.
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

// Takes all bytes there are. False: another receiver was faster.
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

// Whoever removes an event's name holds the lock on the event, so the name cannot pass to a newer event
// between the comparison and the removal. Where the lock is taken, another is removing this very event.
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

// Handles count upwards, so that one of a killed event is not mistaken for a newer one. Never destroyed:
// another thread may be ending the process meanwhile. A thread inside an operation shares the event, so its
// descriptor is not closed, nor its number reused, under it.
class CEventTable {
public:
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

CEventTable& events() {
    static CEventTable& instance = *new CEventTable;
    return instance;
}

int addEvent(const char* name, uint32_t* handle, int (CNamedEvent::*begin)(const char*)) {
    if (!isFileNamePart(name) || handle == nullptr) {
        return EINVAL;
    }
    return guarded([&] {
        auto event = std::make_shared<CNamedEvent>();
        const int error = (event.get()->*begin)(name);
        if (error == 0) {
            *handle = events().add(std::move(event));
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

int osReceiveEvent(uint32_t handle, uint32_t waitMs) {
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
