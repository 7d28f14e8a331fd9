#include "platform/linux/CMfwHandles.h"

#include "platform/linux/errors.h"
#include "platform/mfw.h"

#include <ctime>
#include <fcntl.h>

namespace {

const char* const szFile = "handles";

static_assert(sizeof(off_t) == 8, "bytes of the file are numbered beyond 2^32");

// Where the 4 GiB of a process begin; those of no process, with the id 0, are for the handles alone.
constexpr off_t bytesOf(pid_t process) {
    return static_cast<off_t>(process) << 32;
}

struct flock bytes(off_t start, off_t length) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    return lock;
}

} // namespace

// No two processes have both the same id and the same nanosecond, and the counter tells the draws of one
// process apart. Mixed by a function that is one-to-one (splitmix64's), so that the upper bits are as good as
// random. Needs no entropy, which a small appliance may still lack when it starts, and waits for none.
uint32_t drawMfwHandle() {
    static uint64_t counter = 0;
    uint32_t handle = 0;
    while (handle == 0) {
        timespec time{};
        clock_gettime(CLOCK_BOOTTIME, &time);
        uint64_t mixed =
            static_cast<uint64_t>(time.tv_sec) * 1000000000 + static_cast<uint64_t>(time.tv_nsec);
        mixed += ++counter * 0x9E3779B97F4A7C15 + (static_cast<uint64_t>(getpid()) << 40);
        mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9;
        mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
        handle = static_cast<uint32_t>(mixed >> 33);
    }
    return handle;
}

int CMfwHandles::take(const CRuntimeDirectory& directory, uint32_t handle) {
    m_oFile.close(); // before the next is opened: it may be the same file
    m_oFile = directory.openOrCreateFile(szFile);
    if (!m_oFile) {
        return lastError();
    }
    int error = lock(handle);
    if (error == 0) {
        error = lock(bytesOf(getpid()) + handle);
    }
    if (error != 0) {
        m_oFile.close();
    }
    m_nOwn = handle;
    return error;
}

int CMfwHandles::lock(off_t byte) const {
    struct flock wanted = bytes(byte, 1);
    if (fcntl(m_oFile.get(), F_SETLK, &wanted) == 0) {
        return 0;
    }
    return errno == EACCES || errno == EAGAIN ? EADDRINUSE : lastError();
}

// The second question finds out a process that has locked another's handle within its own bytes. The kernel
// does not tell of the asking process's locks.
uint32_t CMfwHandles::handleOf(pid_t process) const {
    if (process == getpid()) {
        return m_nOwn;
    }
    struct flock told = bytes(bytesOf(process), off_t{1} << 32);
    if (fcntl(m_oFile.get(), F_GETLK, &told) != 0 || told.l_type == F_UNLCK || told.l_pid != process) {
        return OVU_MFW_NO_HANDLE;
    }
    const auto handle = static_cast<uint32_t>(told.l_start - bytesOf(process));
    struct flock owner = bytes(handle, 1);
    const bool isIts =
        fcntl(m_oFile.get(), F_GETLK, &owner) == 0 && owner.l_type != F_UNLCK && owner.l_pid == process;
    return isIts ? handle : OVU_MFW_NO_HANDLE;
}
