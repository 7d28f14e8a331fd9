#include "source/list/CListStore.h"

#include "base/CFileReplacement.h"
#include "source/list/feature_list.h"
#include "source/list/whole_file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::chrono::milliseconds tLockPause{20};

bool isThere(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

// A link that leads nowhere stays as it is: open(2) will say what is wrong with it.
std::string followLinks(const std::string& path) {
    std::error_code error;
    const auto real = std::filesystem::canonical(path, error);
    return error ? path : real.string();
}

// The first link on the way from the path that somebody else has made. Who may write where the list is, as
// the agent may, could have root change any file with it. Empty: there is none.
std::string findForeignLink(std::filesystem::path path) {
    struct stat status {};
    for (int links = 0; links < 40 && ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
         ++links) {
        if (status.st_uid != 0 && status.st_uid != ::geteuid()) {
            return path.string();
        }
        std::error_code error;
        path = path.parent_path() / std::filesystem::read_symlink(path, error);
    }
    return "";
}

std::string directoryOf(const std::string& path) {
    const auto directory = std::filesystem::path(path).parent_path();
    return directory.empty() ? "." : directory.string();
}

std::string move(const std::string& from, const std::string& to) {
    return std::rename(from.c_str(), to.c_str()) == 0 ? "" : failure("move to " + to + " what is", from);
}

} // namespace

CListStore::CListStore(std::string path)
    : m_sPath(followLinks(path)), m_sDirectory(directoryOf(m_sPath)), m_sForeignLink(findForeignLink(path)) {}

std::string CListStore::kept(int number) const {
    return m_sPath + "." + std::to_string(number);
}

std::optional<int> CListStore::latest() const {
    for (int number = 1; number <= nKept; ++number) {
        if (isThere(kept(number))) {
            return number;
        }
    }
    return std::nullopt;
}

// On the directory itself, since a lock file would stay, and one on the list would be renamed away. Whoever
// may read the directory can lock it, and for as long as he likes: so there is an end to the wait.
std::string CListStore::lock(std::chrono::milliseconds wait) {
    if (!m_sForeignLink.empty()) {
        return m_sForeignLink + " is a link that another user has made, and is not followed";
    }
    m_oLock = CFileDescriptor(::open(m_sDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!m_oLock) {
        return failure("open", m_sDirectory);
    }
    const auto end = std::chrono::steady_clock::now() + wait;
    while (::flock(m_oLock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return failure("lock", m_sDirectory);
        }
        if (std::chrono::steady_clock::now() >= end) {
            m_oLock.close();
            return "another process holds the lock on " + m_sDirectory + " (lslocks tells which)";
        }
        std::this_thread::sleep_for(tLockPause);
    }
    return "";
}

// What needs room on the disk comes first, then what can still be refused, and the list itself last. A text
// that is kept already, from an attempt that failed in its last step, is not kept twice.
std::string CListStore::put(std::string_view text, const std::string* before) {
    struct stat like {};
    const bool isReplaced = before != nullptr && ::stat(m_sPath.c_str(), &like) == 0;
    CFileReplacement fresh(m_sPath);
    CFileReplacement copy(kept(1));
    std::string trouble = fresh.write(text, isReplaced ? &like : nullptr);
    if (trouble.empty() && before != nullptr && readWholeFile(kept(1), nMaxListFileSize).m_sText != *before) {
        trouble = copy.write(*before, isReplaced ? &like : nullptr);
        trouble = trouble.empty() ? moveDown() : trouble;
        trouble = trouble.empty() ? copy.publish() : trouble;
    }
    trouble = trouble.empty() ? fresh.publish() : trouble;
    return trouble.empty() ? syncDirectory(m_sDirectory) : trouble;
}

std::string CListStore::replace(const std::string& path, std::string_view text) {
    struct stat like {};
    const bool isThere = ::stat(path.c_str(), &like) == 0;
    CFileReplacement fresh(path);
    std::string trouble = fresh.write(text, isThere ? &like : nullptr);
    trouble = trouble.empty() ? fresh.publish() : trouble;
    return trouble.empty() ? syncDirectory(directoryOf(path)) : trouble;
}

// Up to the first gap, beginning with the highest number; the oldest is lost where there is no gap.
std::string CListStore::moveDown() {
    int last = 0;
    while (last < nKept - 1 && isThere(kept(last + 1))) {
        ++last;
    }
    std::string trouble;
    for (; last > 0 && trouble.empty(); --last) {
        trouble = move(kept(last), kept(last + 1));
    }
    return trouble;
}

// Those that cannot move up stay where they are: the list is in place by then.
std::string CListStore::goBack() {
    const int number = latest().value_or(1);
    std::string trouble = move(kept(number), m_sPath);
    for (int next = number + 1; next <= nKept && trouble.empty(); ++next) {
        if (isThere(kept(next))) {
            trouble = move(kept(next), kept(next - 1));
        }
    }
    return trouble.empty() ? syncDirectory(m_sDirectory) : trouble;
}
