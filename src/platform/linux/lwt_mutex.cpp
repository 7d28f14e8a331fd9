// The lightweight mutex: one word and a futex (futex(7)), with the three states of Drepper's "Futexes Are
// Tricky". Taking and releasing it costs one atomic operation and no system call as long as nobody waits.
// Clean-up touches nothing, so a mutex of static storage may be destroyed at the end of the process while
// another thread still uses it.
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

// The kernel compares and falls asleep in one step, so no wake-up between our look at the word and the sleep
// is lost. Returns at once if the word is no longer `expected`, and may return for no reason (a signal). All
// users are threads of one process, hence the private variants.
void sleepWhile(osLwtMutex_t* word, osLwtMutex_t expected) {
    syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, expected, nullptr, nullptr, 0);
}

// One is enough: it takes the mutex as contended, and so wakes the next one in its turn.
void wakeOne(osLwtMutex_t* word) {
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

// Acquire here and release in the unlock: what one holder wrote, the next one sees.
bool take(CWord word) {
    osLwtMutex_t expected = FREE;
    return word.compare_exchange_strong(expected, HELD, std::memory_order_acquire, std::memory_order_relaxed);
}

} // namespace

int osInitializeLwtMutex(osLwtMutex_t* mutex) {
    if (mutex == nullptr) {
        return EINVAL;
    }
    // Relaxed is enough, as no other thread knows the mutex yet.
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
    // From here on the mutex is taken as contended, even if nobody else waits: we cannot know. The price is
    // one needless wake-up at the unlock; a HELD here could leave another sleeper behind for ever.
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

// To unlock a free mutex is an error of the caller. It is reported and does no harm, for the word stays FREE.
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
