#include <pthread.h>

#include <ctime>

#include "core/memory/core_neverdestroyed.h"
#include "core/stack/core_symbollock.h"

namespace NS_CORE {
namespace {

// Not std::recursive_timed_mutex: the thread sanitizer does not see the call by which that one waits.
struct RecursiveMutex {
    RecursiveMutex() {
        pthread_mutexattr_t attributes;
        ::pthread_mutexattr_init(&attributes);
        ::pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        ::pthread_mutex_init(&mutex, &attributes);
        ::pthread_mutexattr_destroy(&attributes);
    }
    pthread_mutex_t mutex;
};

pthread_mutex_t* theMutex() {
    static NeverDestroyed<RecursiveMutex> one;
    return &one->mutex;
}

timespec afterNow(uint32_t milliseconds) {
    constexpr long kNanoseconds = 1'000'000'000;
    timespec time{};
    ::clock_gettime(CLOCK_REALTIME, &time);
    time.tv_sec += static_cast<time_t>(milliseconds / 1000);
    time.tv_nsec += static_cast<long>(milliseconds % 1000) * 1'000'000;
    if (time.tv_nsec >= kNanoseconds) {
        ++time.tv_sec;
        time.tv_nsec -= kNanoseconds;
    }
    return time;
}

} // namespace

bool SymbolLock::acquire(uint32_t timeoutMs) {
    const timespec end = afterNow(timeoutMs);
    m_isHeld = ::pthread_mutex_timedlock(theMutex(), &end) == 0;
    return m_isHeld;
}

void SymbolLock::release() {
    if (m_isHeld) ::pthread_mutex_unlock(theMutex());
    m_isHeld = false;
}

} // namespace NS_CORE
