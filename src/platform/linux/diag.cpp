// Diagnostics: each line goes to the systemd journal as one datagram in its native protocol
// (https://systemd.io/JOURNAL_NATIVE_PROTOCOL). libsystemd's own call would wait for room if the journal does
// not read; this never does: such a line is lost, and the daemon goes on.
#include "platform/diag.h"

#include "base/CFileDescriptor.h"
#include "platform/diag_fields.h"
#include "platform/linux/errors.h"
#include "platform/linux/message_id.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>
#include <vector>

namespace {

constexpr const char* sJournalSocket = "/run/systemd/journal/socket";

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

// A module's handle is its place in the list, counted from 1, so it is never 0. Nothing is removed, since a
// handle has no end. Never destroyed, since another thread may be ending the process meanwhile.
struct SModules {
    std::mutex m_oMutex;
    std::vector<SModule> m_oAll;
};

SModules& modules() {
    static SModules& instance = *new SModules;
    return instance;
}

// Of the next line that this thread adds.
struct SFields {
    const OvuDiagField* m_pFirst = nullptr;
    size_t m_nCount = 0;
};
constinit thread_local SFields oNextFields;

// The address of the journal's socket, or of another one that QEL_DIAG names. False: no diagnostics are
// wanted (QEL_DIAG=off), or the path does not fit into an address with its NUL.
bool journalAddress(sockaddr_un& address) {
    const char* setting = std::getenv("QEL_DIAG");
    const std::string_view path = setting == nullptr || *setting == '\0' ? sJournalSocket : setting;
    if (path == "off" || path.size() >= sizeof address.sun_path) {
        return false;
    }
    address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    return true;
}

// Connects to the journal. The descriptor serves one line, because a journal that was restarted has another
// socket; so lines reach the journal again without anybody's doing.
int openJournal(CFileDescriptor& journal) {
    sockaddr_un address;
    if (!journalAddress(address)) {
        return ENOTSUP;
    }
    // The cheap way to find that there is no journal: this is done for every line where diagnostics
    // are missing.
    if (access(address.sun_path, W_OK) != 0) {
        return lastError();
    }
    journal = CFileDescriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!journal) {
        return lastError();
    }
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    return connect(journal.get(), generic, sizeof address) == 0 ? 0 : lastError();
}

// "FIELD=value", one in a line. A value that has a line break goes in the protocol's other form: its length
// as eight bytes, the least significant first, then the value.
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

// Severities as in diag.h; an unknown one counts as information.
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

// Field names that begin with an underscore are reserved for the journal (systemd.journal-fields(7)), hence
// QEL_. A field may occur several times, once for each of the module's names.
int addLine(const SModule& module, uint16_t severity, uint32_t event, const char* text,
            const SFields& fields) {
    CFileDescriptor journal;
    if (const int error = openJournal(journal)) {
        return error;
    }
    // One datagram, so the journal gets the line whole. It refuses what exceeds the socket's buffer
    // (EMSGSIZE, some 200 KiB by default); the daemon's lines stay far below.
    std::string entry;
    addField(entry, "MESSAGE", text);
    addField(entry, "PRIORITY", std::to_string(priority(severity)));
    addField(entry, "SYSLOG_IDENTIFIER", module.m_sLogName);
    char id[sizeof sMessageIdLead + 10];
    std::snprintf(id, sizeof id, "%s%08u", sMessageIdLead, event);
    addField(entry, "MESSAGE_ID", id);
    addField(entry, "QEL_EVENT", std::to_string(event));
    for (size_t i = 0; i < fields.m_nCount; ++i) {
        addField(entry, fields.m_pFirst[i].name, {fields.m_pFirst[i].value, fields.m_pFirst[i].length});
    }
    for (const std::string& name : module.m_asNames) {
        addField(entry, "QEL_MODULE", name);
    }
    return send(journal.get(), entry.data(), entry.size(), MSG_NOSIGNAL) >= 0 ? 0 : lastError();
}

// Registering the same module again gives the same handle, so that a service may register for every line
// without the list growing.
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

// A copy, so that the lock is not held while the line is sent.
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
        // A trial connection: without a journal the caller is to learn that now, and to write to its own
        // log instead.
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
    const SFields fields = std::exchange(oNextFields, {});
    return guarded([&] {
        SModule module;
        return findModule(handle, module) ? addLine(module, severity, event, text, fields) : EBADF;
    });
}

void OvuDiagSetFields(const OvuDiagField* fields, size_t count) {
    oNextFields = {fields, count};
}
