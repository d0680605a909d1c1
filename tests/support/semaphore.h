#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace test {

// In place of std::counting_semaphore, whose wake-ups this compiler's library can lose.
class Semaphore {
public:
    explicit Semaphore(int count = 0) : m_count(count) {}

    void release() {
        const std::lock_guard lock(m_mutex);
        ++m_count;
        m_condition.notify_one();
    }
    void acquire() {
        std::unique_lock lock(m_mutex);
        m_condition.wait(lock, [this] { return m_count > 0; });
        --m_count;
    }
    // False when nothing was released within the limit.
    bool acquireWithin(std::chrono::milliseconds limit) {
        std::unique_lock lock(m_mutex);
        if (!m_condition.wait_for(lock, limit, [this] { return m_count > 0; })) return false;
        --m_count;
        return true;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_condition;
    int m_count;
};

} // namespace test
