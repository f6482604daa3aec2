#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <new>

#include "osal.hpp"

void osal_sleep_ms(unsigned ms) {
    usleep(static_cast<useconds_t>(ms) * 1000U);
}

std::int64_t osal_monotonic_us() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

void osal_free(void* pointer) {
    if (pointer != nullptr) std::free(pointer);
}

void OsalMutexDeleter::operator()(pthread_mutex_t* mutex) const noexcept {
    pthread_mutex_destroy(mutex);
    std::free(mutex);
}

OsalMutex osal_mutex_create() {
    void* memory = std::malloc(sizeof(pthread_mutex_t));
    if (memory == nullptr) return nullptr;
    auto* mutex = ::new (memory) pthread_mutex_t;
    if (pthread_mutex_init(mutex, nullptr) != 0) {
        std::free(memory);
        return nullptr;
    }
    return OsalMutex(mutex);
}

int osal_mutex_lock(pthread_mutex_t* mutex) {
    return mutex == nullptr ? -1 : pthread_mutex_lock(mutex);
}

int osal_mutex_unlock(pthread_mutex_t* mutex) {
    return mutex == nullptr ? -1 : pthread_mutex_unlock(mutex);
}
