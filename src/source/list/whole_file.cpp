#include "source/list/whole_file.h"

#include "base/CFileDescriptor.h"

#include <fmt/core.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int nReadAttempts = 5;
constexpr auto oReadPause = std::chrono::milliseconds(20);

// Both are of one open file, so neither device nor inode can differ.
bool isSame(const struct stat& one, const struct stat& other) {
    return one.st_size == other.st_size && one.st_mtim.tv_sec == other.st_mtim.tv_sec &&
           one.st_mtim.tv_nsec == other.st_mtim.tv_nsec;
}

// Asks for one byte more than fstat told, so that a file that has grown is noticed. False: errno tells why.
bool readAll(int descriptor, size_t size, std::string& text) {
    text.resize(size + 1);
    size_t length = 0;
    while (length < text.size()) {
        const ssize_t count = read(descriptor, text.data() + length, text.size() - length);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return false;
        }
        if (count == 0) {
            break;
        }
        length += static_cast<size_t>(count);
    }
    text.resize(length);
    return true;
}

// That there is no file changes only when somebody creates it. Anything else may pass, descriptors and memory
// that ran out above all. strerrordesc_np(3) is safe in any thread and not translated, so the log reads the
// same everywhere.
bool fail(SWholeFile& file) {
    const int error = errno;
    file.m_bPassing = error != ENOENT && error != ENOTDIR;
    file.m_sError = fmt::format("cannot be read: {}", strerrordesc_np(error));
    return true;
}

// True: done, with a text or an error. False: the file changed meanwhile. O_NONBLOCK is for what is refused
// anyway: without it, opening a FIFO would wait for a writer (fifo(7)).
bool tryRead(const std::string& path, size_t limit, SWholeFile& file) {
    const CFileDescriptor descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat before {};
    struct stat after {};
    if (!descriptor || fstat(descriptor.get(), &before) != 0) {
        return fail(file);
    }
    if (!S_ISREG(before.st_mode)) {
        file.m_sError = "is not a regular file";
        return true;
    }
    if (static_cast<uintmax_t>(before.st_size) > limit) {
        file.m_sError = fmt::format("is too large: {} bytes, the limit is {}", before.st_size, limit);
        return true;
    }
    const auto size = static_cast<size_t>(before.st_size);
    if (!readAll(descriptor.get(), size, file.m_sText) || fstat(descriptor.get(), &after) != 0) {
        return fail(file);
    }
    // A file that shrank gives fewer bytes than its size, one that grew gives one more.
    return isSame(before, after) && file.m_sText.size() == size;
}

} // namespace

SWholeFile readWholeFile(const std::string& path, size_t limit) {
    SWholeFile file;
    for (int attempt = 0; attempt < nReadAttempts; ++attempt) {
        if (tryRead(path, limit, file)) {
            return file;
        }
        std::this_thread::sleep_for(oReadPause);
    }
    file.m_sError = "keeps changing while it is read";
    file.m_bPassing = true;
    return file;
}
