// Diagnostics: lines go to the systemd journal, as one datagram each in its native protocol. libsystemd's own
// call would wait for room where the journal does not read; this never does.
#include "platform/diag.h"

#include "base/CFileDescriptor.h"
#include "platform/linux/errors.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <vector>

namespace {

constexpr const char* JOURNAL_SOCKET = "/run/systemd/journal/socket";

enum { // of syslog, which the journal's PRIORITY follows
    PRIORITY_ERROR = 3,
    PRIORITY_WARNING = 4,
    PRIORITY_INFORMATION = 6
};

struct SModule {
    std::vector<std::string> m_asNames;
    std::string m_sLogName;

    bool operator==(const SModule& other) const {
        return m_asNames == other.m_asNames && m_sLogName == other.m_sLogName;
    }
};

// A module's handle is its place here, counted from 1. Never destroyed: another thread may be ending the
// process.
struct SModules {
    std::mutex m_oMutex;
    std::vector<SModule> m_oAll;
};

SModules& modules() {
    static SModules& instance = *new SModules;
    return instance;
}

// Address of the journal's socket; false: not wanted (QEL_DIAG=off), or a path that is no address. QEL_DIAG
// may also name another socket to write to.
bool journalAddress(sockaddr_un& address) {
    const char* setting = std::getenv("QEL_DIAG");
    const std::string_view path = setting == nullptr || *setting == '\0' ? JOURNAL_SOCKET : setting;
    if (path == "off" || path.size() >= sizeof address.sun_path) {
        return false;
    }
    address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    return true;
}

// Connects to the journal. The descriptor is for one line: a journal that was started anew is another socket.
int openJournal(CFileDescriptor& journal) {
    sockaddr_un address;
    if (!journalAddress(address)) {
        return ENOTSUP;
    }
    if (access(address.sun_path, W_OK) != 0) { // the cheap way to find that there is none
        return lastError();
    }
    journal = CFileDescriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!journal) {
        return lastError();
    }
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    return connect(journal.get(), generic, sizeof address) == 0 ? 0 : lastError();
}

// A value with a line break in it goes with its length in front, eight bytes, the least significant first.
void addField(std::string& entry, std::string_view field, std::string_view value) {
    entry.append(field);
    if (value.find('\n') == std::string_view::npos) {
        entry.append(1, '=').append(value).append(1, '\n');
        return;
    }
    entry.append(1, '\n');
    for (unsigned int shift = 0; shift < 64; shift += 8) {
        entry.append(1, static_cast<char>(static_cast<uint64_t>(value.size()) >> shift & 0xFF));
    }
    entry.append(value).append(1, '\n');
}

int priority(uint16_t severity) {
    switch (severity) {
    case 1:
        return PRIORITY_ERROR;
    case 2:
        return PRIORITY_WARNING;
    default:
        return PRIORITY_INFORMATION;
    }
}

int addLine(const SModule& module, uint16_t severity, uint32_t event, const char* text) {
    CFileDescriptor journal;
    if (const int error = openJournal(journal)) {
        return error;
    }
    std::string entry;
    addField(entry, "MESSAGE", text);
    addField(entry, "PRIORITY", std::to_string(priority(severity)));
    addField(entry, "SYSLOG_IDENTIFIER", module.m_sLogName);
    addField(entry, "QEL_EVENT", std::to_string(event));
    for (const std::string& name : module.m_asNames) { // the journal takes a field several times
        addField(entry, "QEL_MODULE", name);
    }
    return send(journal.get(), entry.data(), entry.size(), MSG_NOSIGNAL) >= 0 ? 0 : lastError();
}

// Registering the same again gives the same handle, so that a service may register for every line.
uint32_t registerModule(SModule module) {
    const std::lock_guard<std::mutex> guard(modules().m_oMutex);
    std::vector<SModule>& all = modules().m_oAll;
    size_t place = 0;
    while (place < all.size() && !(all[place] == module)) {
        ++place;
    }
    if (place == all.size()) {
        all.push_back(std::move(module));
    }
    return static_cast<uint32_t>(place + 1);
}

bool findModule(uint32_t handle, SModule& module) {
    const std::lock_guard<std::mutex> guard(modules().m_oMutex);
    if (handle == 0 || handle > modules().m_oAll.size()) {
        return false;
    }
    module = modules().m_oAll[handle - 1];
    return true;
}

SModule makeModule(std::initializer_list<const char*> names, const char* logName) {
    SModule module;
    for (const char* name : names) {
        if (name != nullptr && *name != '\0') {
            module.m_asNames.emplace_back(name);
        }
    }
    module.m_sLogName = logName != nullptr && *logName != '\0' ? logName : program_invocation_short_name;
    return module;
}

} // namespace

int OvuDiagRegisterModule(const char* name1, const char* name2, const char* name3, const char* logName,
                          uint32_t* handle) {
    if (handle == nullptr) {
        return EINVAL;
    }
    return guarded([&] {
        CFileDescriptor journal;
        const int error = openJournal(journal);
        if (error == 0) {
            *handle = registerModule(makeModule({name1, name2, name3}, logName));
        }
        return error;
    });
}

int OvuDiagAddLogEntry(uint32_t handle, uint32_t /*kind*/, uint16_t severity, uint32_t event,
                       const char* text) {
    if (text == nullptr) {
        return EINVAL;
    }
    return guarded([&] {
        SModule module;
        return findModule(handle, module) ? addLine(module, severity, event, text) : EBADF;
    });
}
