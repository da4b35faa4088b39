// vesk_utility_service - the slot through which a lower floor reaches a service built above
// it. The resource manager installs each service once, at initialisation, before any thread
// that could ask for it exists; the slot is never cleared (services live as long as the
// process). The ground knows nothing of T: a service is one forward-declared type.
#ifndef VESK_UTILITY_SERVICE_H
#define VESK_UTILITY_SERVICE_H

#include <atomic>

#include "core/vesk_utility_log.h"

namespace vesk_utility {

template <class T>
class vesk_service {
public:
    // The service, or NULL before it is installed (or in a role that has none).
    static T* find() { return s_service.load(std::memory_order_acquire); }

    // The service; its absence is a programming error and ends the process.
    static T* get()
    {
        T* service = find();
        VESK_ASSERT(service != NULL);
        return service;
    }

    static void install(T* service) { s_service.store(service, std::memory_order_release); }

private:
    static inline std::atomic<T*> s_service{nullptr};
};

}  // namespace vesk_utility

#endif  // VESK_UTILITY_SERVICE_H
