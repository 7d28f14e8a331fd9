// qelctl fleet: another program's, so that this one has no network library.
#include "ctl/commands.h"
#include "ctl/terminal.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fmt/format.h>
#include <unistd.h>

namespace {

constexpr const char* aPlaces[] = {"", "/../lib/qel"}; // from the directory that this program is in

std::string ownDirectory() {
    char path[PATH_MAX] = "";
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    const std::string own(path, length < 0 ? 0 : static_cast<size_t>(length));
    return own.substr(0, own.rfind('/'));
}

} // namespace

// `arguments` begins with the word "fleet", and has a null pointer behind its last. Returns only where that
// fails.
int runFleet(char** arguments) {
    for (const char* place : aPlaces) {
        const std::string path = ownDirectory() + place + "/qelctl-fleet";
        execv(path.c_str(), arguments);
        if (errno != ENOENT) {
            complain(fmt::format("{}: {}", path, std::strerror(errno)));
            return exitFailed;
        }
    }
    complain("fleet: not installed here (package qelfleet)");
    return exitFailed;
}
