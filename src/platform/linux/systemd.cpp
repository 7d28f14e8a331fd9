#include "platform/linux/systemd.h"

#include "base/CFileDescriptor.h"
#include "platform/linux/CDeadline.h"

#include <charconv>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <spawn.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char* sBootedDirectory = "/run/systemd/system"; // see sd_booted(3)
// With its path, since the daemon may run as root and must not run whatever program $PATH finds first.
constexpr const char* sSystemctl = "/usr/bin/systemctl";
constexpr uint32_t nAnswerTimeMs = 500; // the daemon's end must not wait for a systemd that is busy
constexpr size_t nAnswerSize = 64;      // bytes; more than the name of any state has

// The forms of $NOTIFY_SOCKET in sd_notify(3): a path, or '@' and a name in the abstract namespace, which
// unix(7) writes with a NUL in place of the '@'. Returns the address's length, 0 for any other form. The
// length leaves out the final NUL, which would be part of an abstract name.
socklen_t fillAddress(const char* name, sockaddr_un& address) {
    const size_t length = name != nullptr ? std::strlen(name) : 0;
    if (length < 2 || length >= sizeof address.sun_path || (name[0] != '/' && name[0] != '@')) {
        return 0;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name, length);
    if (name[0] == '@') {
        address.sun_path[0] = '\0';
    }
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
}

bool isRunBySystemd() {
    struct stat status {};
    return lstat(sBootedDirectory, &status) == 0 && S_ISDIR(status.st_mode);
}

// A number as sd_watchdog_enabled(3) has it in the environment; 0 for anything else.
uint64_t environmentNumber(const char* variable) {
    const char* text = std::getenv(variable);
    if (text == nullptr) {
        return 0;
    }
    uint64_t number = 0;
    const char* const end = text + std::strlen(text);
    const auto result = std::from_chars(text, end, number);
    return result.ec == std::errc() && result.ptr == end ? number : 0;
}

// Microseconds from one message to the next; 0: nobody watches. $WATCHDOG_PID says whom the interval is
// meant for, where a process has passed its environment on. A third of the interval, so that one message may
// be lost.
uint64_t feedInterval() {
    const bool isForUs = std::getenv("WATCHDOG_PID") == nullptr ||
                         environmentNumber("WATCHDOG_PID") == static_cast<uint64_t>(getpid());
    return isForUs ? environmentNumber("WATCHDOG_USEC") / 3 : 0;
}

uint64_t monotonicMicroseconds() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1000000 + static_cast<uint64_t>(time.tv_nsec) / 1000;
}

sigset_t noSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    return signals;
}

sigset_t allSignals() {
    sigset_t signals;
    sigfillset(&signals);
    return signals;
}

// What a process is started with: a pipe for its output, and none of our signal settings, since the thread
// that asks has signals blocked and systemctl would inherit that. posix_spawn(3) and not fork(2): it copies
// no page tables, and the process has other threads.
class CLaunch {
public:
    explicit CLaunch(int output) {
        const sigset_t none = noSignals();
        const sigset_t all = allSignals();
        posix_spawnattr_init(&m_oAttributes);
        posix_spawnattr_setflags(&m_oAttributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        posix_spawnattr_setsigmask(&m_oAttributes, &none);
        posix_spawnattr_setsigdefault(&m_oAttributes, &all);
        posix_spawn_file_actions_init(&m_oFiles);
        // First: in a daemon started with closed standard files, the pipe may have the number 0 or 2.
        posix_spawn_file_actions_adddup2(&m_oFiles, output, STDOUT_FILENO);
        posix_spawn_file_actions_addopen(&m_oFiles, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&m_oFiles, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    }
    ~CLaunch() {
        posix_spawn_file_actions_destroy(&m_oFiles);
        posix_spawnattr_destroy(&m_oAttributes);
    }
    CLaunch(const CLaunch&) = delete;
    CLaunch& operator=(const CLaunch&) = delete;

    // The process's id, or -1.
    pid_t run(const char* program, const char* argument) const {
        char* const arguments[] = {const_cast<char*>(program), const_cast<char*>(argument), nullptr};
        pid_t process = -1;
        const int error = posix_spawn(&process, program, &m_oFiles, &m_oAttributes, arguments, environ);
        return error == 0 ? process : -1;
    }

private:
    posix_spawnattr_t m_oAttributes;
    posix_spawn_file_actions_t m_oFiles;
};

// Whether the first line is `expected`. A pipe may deliver it in pieces; what comes too late does not count.
bool readsLine(int fd, const CDeadline& deadline, std::string_view expected) {
    char text[nAnswerSize];
    size_t size = 0;
    std::string_view line;
    while (size < sizeof text && line.size() == size && deadline.waitReadable(fd)) {
        const ssize_t count = read(fd, text + size, sizeof text - size);
        if (count <= 0) {
            break;
        }
        size += static_cast<size_t>(count);
        line = std::string_view(text, size);
        line = line.substr(0, line.find('\n'));
    }
    return line == expected;
}

// Ends the process, whether it has answered or hangs, and reaps it. Until it is reaped its id cannot pass to
// another process, so the signal never hits a stranger.
void endProcess(pid_t process) {
    kill(process, SIGKILL);
    while (waitpid(process, nullptr, 0) < 0 && errno == EINTR) {
    }
}

} // namespace

// A failure has no consequence here: systemd itself logs that a service of Type=notify never got ready.
void tellSystemd(const char* state) {
    sockaddr_un address{};
    const socklen_t length = fillAddress(std::getenv("NOTIFY_SOCKET"), address);
    if (length == 0) {
        return;
    }
    const CFileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sendto(socket.get(), state, std::strlen(state), MSG_DONTWAIT | MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&address), length);
}

[[gnu::hot]] void feedWatchdog() {
    static const uint64_t interval = feedInterval();
    static uint64_t due = 0;
    if (interval == 0) {
        return;
    }
    const uint64_t now = monotonicMicroseconds();
    if (now >= due) {
        due = now + interval;
        tellSystemd("WATCHDOG=1");
    }
}

bool isHostGoingDown() {
    return isRunBySystemd() && saysStopping(sSystemctl);
}

bool saysStopping(const char* program) {
    // Starting the program counts as well.
    const CDeadline deadline(nAnswerTimeMs);
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    const CFileDescriptor output(ends[0]);
    CFileDescriptor input(ends[1]);
    const pid_t process = CLaunch(input.get()).run(program, "is-system-running");
    // Our copy of the writing end must go, or the pipe would not end with the program.
    input.close();
    if (process < 0) {
        return false;
    }
    const bool isStopping = readsLine(output.get(), deadline, "stopping");
    // Its exit status says nothing: it is a failure for every state but "running" (systemctl(1)).
    endProcess(process);
    return isStopping;
}
