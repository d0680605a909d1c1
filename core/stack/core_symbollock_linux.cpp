#include <pthread.h>

#include <ctime>

#include "absl/time/clock.h"
#include "absl/time/time.h"
#include "core/stack/core_symbollock.h"

namespace NS_CORE {
namespace {

// Not std::recursive_timed_mutex: the thread sanitizer does not see the call by which that one waits.
constinit pthread_mutex_t g_mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

} // namespace

bool SymbolLock::acquire(uint32_t timeoutMs) {
    const timespec end = absl::ToTimespec(absl::Now() + absl::Milliseconds(timeoutMs));
    m_isHeld = ::pthread_mutex_timedlock(&g_mutex, &end) == 0;
    return m_isHeld;
}

void SymbolLock::release() {
    if (m_isHeld) ::pthread_mutex_unlock(&g_mutex);
    m_isHeld = false;
}

} // namespace NS_CORE
