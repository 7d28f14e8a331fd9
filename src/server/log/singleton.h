// Creates the process-wide objects. They live until the process ends: any thread may call exit(3) at any
// moment, and must not destroy what another one uses.
#ifndef QEL_SERVER_LOG_SINGLETON_H
#define QEL_SERVER_LOG_SINGLETON_H

#include "server/log/log.h"

#include <atomic>

// The object behind `slot`, created on first use by `create`, which returns null if memory is exhausted. Two
// threads may ask at the same moment, the service manager's and the main loop's. Then both create an object:
// the exchange lets one of them win, and the other deletes its own and uses the winner's. After a null, the
// next call tries again.
template <typename T, typename Create>
T* singleton(std::atomic<T*>& slot, Create create) {
    if (T* object = slot.load()) {
        return object;
    }
    T* created = create();
    if (created == nullptr) {
        logEvent(svError, 31124, "failed to new obj");
        return nullptr;
    }
    T* other = nullptr;
    if (!slot.compare_exchange_strong(other, created)) {
        delete created;
        return other;
    }
    return created;
}

#endif
