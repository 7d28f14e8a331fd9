// The lightweight mutex, over the platform's (platform/os.h), and its scoped lock.
#ifndef QEL_BASE_COSWLIGHTWEIGHTMUTEX_H
#define QEL_BASE_COSWLIGHTWEIGHTMUTEX_H

#include "platform/os.h"

// All three operations return 1 for success and 0 for failure, while the platform's functions return 0 for
// success. Not recursive: a thread that locks it twice waits for ever. Only the thread
// that locked it unlocks it.
class COswLightweightMutex {
public:
    COswLightweightMutex();
    virtual ~COswLightweightMutex();
    COswLightweightMutex(const COswLightweightMutex&) = delete;
    COswLightweightMutex& operator=(const COswLightweightMutex&) = delete;

    virtual int lock();    // blocks until the mutex is the caller's
    virtual int trylock(); // 0 at once where another holds it
    virtual int unlock();

private:
    osLwtMutex_t m_nWord = 0;
};

// Holds the mutex for a scope. If the platform refuses the lock, the scope runs without it and does not
// unlock: a component that is set up unguarded is better than one that is never served.
class CScopedLock {
public:
    explicit CScopedLock(COswLightweightMutex& mutex) : m_pMutex(&mutex), m_nLocked(mutex.lock()) {}
    ~CScopedLock() {
        if (m_nLocked != 0) {
            m_pMutex->unlock();
        }
    }
    CScopedLock(const CScopedLock&) = delete;
    CScopedLock& operator=(const CScopedLock&) = delete;

private:
    COswLightweightMutex* m_pMutex;
    int m_nLocked;
};

// The daemon's one lock, held around the set-up of a component and not nested in anything. It exists before
// main() and is destroyed at exit. The service manager's thread may end the process, and so destroy it, while
// the main loop holds it; the platform's clean-up allows that (platform/os.h).
extern COswLightweightMutex oMutex;

#endif
