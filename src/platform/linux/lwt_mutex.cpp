// The lightweight mutex: one word and a futex. Cleaning up touches nothing, so a mutex of static storage may
// be destroyed at the end of the process while another thread still uses it.
#include "platform/os.h"

#include <atomic>
#include <cerrno>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

enum : osLwtMutex_t {
    FREE = 0,
    HELD = 1,
    CONTENDED = 2 // held, and somebody may sleep on it: its release must wake one
};

using CWord = std::atomic_ref<osLwtMutex_t>;
static_assert(CWord::is_always_lock_free && CWord::required_alignment == alignof(osLwtMutex_t));

// Returns at once where the word is no longer `expected`, and may return for no reason.
void sleepWhile(osLwtMutex_t* word, osLwtMutex_t expected) {
    syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, expected, nullptr, nullptr, 0);
}

void wakeOne(osLwtMutex_t* word) {
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

bool take(CWord word) {
    osLwtMutex_t expected = FREE;
    return word.compare_exchange_strong(expected, HELD, std::memory_order_acquire, std::memory_order_relaxed);
}

} // namespace

int osInitializeLwtMutex(osLwtMutex_t* mutex) {
    if (mutex == nullptr) {
        return EINVAL;
    }
    CWord(*mutex).store(FREE, std::memory_order_relaxed);
    return 0;
}

int osCleanupLwtMutex(osLwtMutex_t* mutex) {
    return mutex == nullptr ? EINVAL : 0;
}

int osLockLwtMutex(osLwtMutex_t* mutex) {
    if (mutex == nullptr) {
        return EINVAL;
    }
    CWord word(*mutex);
    if (take(word)) {
        return 0;
    }
    // From here on it is taken as contended: we cannot know whether we are the only one who slept.
    while (word.exchange(CONTENDED, std::memory_order_acquire) != FREE) {
        sleepWhile(mutex, CONTENDED);
    }
    return 0;
}

int osTryLockLwtMutex(osLwtMutex_t* mutex) {
    if (mutex == nullptr) {
        return EINVAL;
    }
    return take(CWord(*mutex)) ? 0 : EBUSY;
}

int osUnlockLwtMutex(osLwtMutex_t* mutex) {
    if (mutex == nullptr) {
        return EINVAL;
    }
    switch (CWord(*mutex).exchange(FREE, std::memory_order_release)) {
    case FREE:
        return EPERM;
    case CONTENDED:
        wakeOne(mutex);
        return 0;
    default:
        return 0;
    }
}
