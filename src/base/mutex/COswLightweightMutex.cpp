#include "base/mutex/COswLightweightMutex.h"

COswLightweightMutex oMutex;

COswLightweightMutex::COswLightweightMutex() {
    osInitializeLwtMutex(&m_nWord);
}

COswLightweightMutex::~COswLightweightMutex() {
    osCleanupLwtMutex(&m_nWord);
}

int COswLightweightMutex::lock() {
    return osLockLwtMutex(&m_nWord) == 0 ? 1 : 0;
}

int COswLightweightMutex::trylock() {
    return osTryLockLwtMutex(&m_nWord) == 0 ? 1 : 0;
}

int COswLightweightMutex::unlock() {
    return osUnlockLwtMutex(&m_nWord) == 0 ? 1 : 0;
}
