#include "ctl/output.h"

#include "base/CFileReplacement.h"
#include "ctl/terminal.h"

#include <cerrno>
#include <fmt/format.h>
#include <sys/stat.h>

namespace {

// To rename over a device or a pipe would take it away from everybody.
std::string refusal(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        return errno == ENOENT ? "" : failure("look at", path);
    }
    return S_ISREG(status.st_mode) ? "" : fmt::format("{} is no regular file", path);
}

std::string replaceFile(const std::string& path, std::string_view text) {
    std::string error = refusal(path);
    CFileReplacement file(path);
    if (error.empty()) {
        error = file.write(text, nullptr);
    }
    return error.empty() ? file.publish() : error;
}

} // namespace

bool putOutput(const std::string& path, std::string_view text) {
    if (path.empty()) {
        fmt::print("{}", text);
        return flushOutput();
    }
    const std::string error = replaceFile(path, text);
    if (!error.empty()) {
        complain(printable(error));
    }
    return error.empty();
}
