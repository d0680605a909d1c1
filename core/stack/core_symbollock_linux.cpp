#include <pthread.h>

#include <ctime>

#include "absl/time/clock.h"
#include "absl/time/time.h"
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

} // namespace

bool SymbolLock::acquire(uint32_t timeoutMs) {
    const timespec end = absl::ToTimespec(absl::Now() + absl::Milliseconds(timeoutMs));
    m_isHeld = ::pthread_mutex_timedlock(theMutex(), &end) == 0;
    return m_isHeld;
}

void SymbolLock::release() {
    if (m_isHeld) ::pthread_mutex_unlock(theMutex());
    m_isHeld = false;
}

} // namespace NS_CORE
