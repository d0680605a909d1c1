#include <pthread.h>

#include <ctime>

#include "core/memory/core_neverdestroyed.h"
#include "core/stack/core_symbollock.h"

namespace NS_CORE {
namespace {

// The standard library's own recursive mutex with a time limit waits in a way that the thread sanitizer does not see.
struct TurnMutex {
    TurnMutex() {
        pthread_mutexattr_t attributes;
        ::pthread_mutexattr_init(&attributes);
        ::pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        ::pthread_mutex_init(&mutex, &attributes);
        ::pthread_mutexattr_destroy(&attributes);
    }
    pthread_mutex_t mutex;
};

pthread_mutex_t* theMutex() {
    static NeverDestroyed<TurnMutex> one;
    return &one->mutex;
}

} // namespace

bool SymbolTurn::take(uint32_t patienceMs) {
    constexpr long kNanoseconds = 1'000'000'000;
    timespec end{};
    ::clock_gettime(CLOCK_REALTIME, &end);
    end.tv_sec += static_cast<time_t>(patienceMs / 1000);
    end.tv_nsec += static_cast<long>(patienceMs % 1000) * 1'000'000;
    if (end.tv_nsec >= kNanoseconds) {
        ++end.tv_sec;
        end.tv_nsec -= kNanoseconds;
    }
    return ::pthread_mutex_timedlock(theMutex(), &end) == 0;
}

void SymbolTurn::giveBack() {
    ::pthread_mutex_unlock(theMutex());
}

} // namespace NS_CORE
