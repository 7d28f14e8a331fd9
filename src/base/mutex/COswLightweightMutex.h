// The lightweight mutex over the platform's own, and its scoped lock.
#ifndef QEL_BASE_COSWLIGHTWEIGHTMUTEX_H
#define QEL_BASE_COSWLIGHTWEIGHTMUTEX_H

#include "platform/os.h"

// All three operations return 1 for success and 0 for failure. Not recursive.
class COswLightweightMutex {
public:
    COswLightweightMutex();
    virtual ~COswLightweightMutex();
    COswLightweightMutex(const COswLightweightMutex&) = delete;
    COswLightweightMutex& operator=(const COswLightweightMutex&) = delete;

    virtual int lock(); // blocks until the mutex is the caller's
    virtual int trylock();
    virtual int unlock();

private:
    osLwtMutex_t m_nWord = 0;
};

// Holds the mutex for a scope. Where the lock could not be taken, the scope goes on without it and does not
// unlock.
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

// The daemon's one lock: held around the set-up of a component. Exists before main() and is never destroyed:
// the service manager's thread may end the process while the main loop holds it.
extern COswLightweightMutex& oMutex;

#endif
