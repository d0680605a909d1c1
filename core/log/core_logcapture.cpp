#include "core/log/core_logcapture.h"

#include <algorithm>
#include <atomic>
#include <vector>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "core/memory/core_neverdestroyed.h"

namespace NS_CORE {
namespace {

struct Registry {
    absl::Mutex mutex{absl::kConstInit};
    std::vector<LogCapture*> collecting ABSL_GUARDED_BY(mutex);
};

constinit NeverDestroyed<Registry> g_registry;

} // namespace

LogCapture::LogCapture(size_t maxEntries) : m_entriesLeft(maxEntries) {
    if (maxEntries == 0) return;
    const absl::MutexLock lock(&g_registry->mutex);
    g_registry->collecting.push_back(this);
}

LogCapture::~LogCapture() {
    const absl::MutexLock lock(&g_registry->mutex);
    std::erase(g_registry->collecting, this);
}

std::string LogCapture::text() const {
    const absl::MutexLock lock(&g_registry->mutex);
    return m_text;
}

void LogCapture::append(std::string_view text) {
    const absl::MutexLock lock(&g_registry->mutex);
    std::erase_if(g_registry->collecting, [&](LogCapture* capture) { return capture->add(text); });
}

bool LogCapture::add(std::string_view text) {
    if (!m_empty) m_text += '\n';
    m_empty = false;
    m_text += text;
    return --m_entriesLeft == 0;
}

} // namespace NS_CORE
