// Creation of the process-wide objects.
#ifndef QEL_SERVER_SINGLETON_H
#define QEL_SERVER_SINGLETON_H

#include "server/log/log.h"

#include <atomic>

// The object behind `slot`, created on first use by `create` (which yields null where memory is exhausted).
// Two threads may ask at the same moment: the service manager's may be ahead of the main loop's.
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
