// Threads run out, for the system tests: pthread_create works as often as the environment variable
// FEW_THREADS says. It is part of a GPIO library because the daemon loads that before the C
// library.
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <pthread.h>

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                              void *(*entry)(void *), void *argument) {
    using Create = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
    static const auto create = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    static std::atomic<int> created;
    const char *limit = getenv("FEW_THREADS");
    if (limit != nullptr && created.fetch_add(1) >= strtol(limit, nullptr, 10)) {
        return EAGAIN;
    }
    return create(thread, attributes, entry, argument);
}
