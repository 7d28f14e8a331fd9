#include "platform/linux/systemd.h"

#include "base/CFileDescriptor.h"
#include "platform/linux/CDeadline.h"

#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char* BOOTED_DIRECTORY = "/run/systemd/system"; // see sd_booted(3)
constexpr const char* SYSTEMCTL =
    "/usr/bin/systemctl";                // by its path: what $PATH has is not to be run as root
constexpr uint32_t ANSWER_TIME_MS = 500; // asking must not hold up the notice
constexpr size_t ANSWER_SIZE = 64;       // more than any state's name has

// The length of the address, or 0 where `name` is none: a path, or '@' and a name without a file.
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
    return lstat(BOOTED_DIRECTORY, &status) == 0 && S_ISDIR(status.st_mode);
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

// What a process is started with: a pipe for its output, and none of our signal settings (the thread that asks
// has signals blocked).
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
        posix_spawn_file_actions_adddup2(&m_oFiles, output,
                                         STDOUT_FILENO); // first: it may be one of the others
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

// The first line that comes, or what of it came in time.
std::string readLine(int fd, const CDeadline& deadline) {
    std::string text;
    char piece[ANSWER_SIZE];
    while (text.size() < ANSWER_SIZE && text.find('\n') == std::string::npos && deadline.waitReadable(fd)) {
        const ssize_t count = read(fd, piece, sizeof piece);
        if (count <= 0) {
            break;
        }
        text.append(piece, static_cast<size_t>(count));
    }
    return text.substr(0, text.find('\n'));
}

void endProcess(pid_t process) {
    kill(process, SIGKILL);
    while (waitpid(process, nullptr, 0) < 0 && errno == EINTR) {
    }
}

} // namespace

void tellSystemd(const std::string& state) {
    sockaddr_un address{};
    const socklen_t length = fillAddress(std::getenv("NOTIFY_SOCKET"), address);
    if (length == 0) {
        return;
    }
    const CFileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sendto(socket.get(), state.data(), state.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&address), length);
}

bool isHostGoingDown() {
    return isRunBySystemd() && saysStopping(SYSTEMCTL);
}

bool saysStopping(const char* program) {
    const CDeadline deadline(ANSWER_TIME_MS);
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    const CFileDescriptor output(ends[0]);
    CFileDescriptor input(ends[1]);
    const pid_t process = CLaunch(input.get()).run(program, "is-system-running");
    input.close();
    if (process < 0) {
        return false;
    }
    const std::string state = readLine(output.get(), deadline);
    endProcess(process);
    return state == "stopping";
}
