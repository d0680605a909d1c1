#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace NS_CORE {

// Collects what is logged at level 0 (LogLevel::Log2String), on any thread, while it lives: functions that write
// their findings to the log can so be asked for them as a text. Several may live at once; each gets every entry.
// Creation, text() and destruction may happen on any thread.
class LogCapture {
public:
    // maxEntries  after that many entries it collects no more; 0 collects nothing.
    explicit LogCapture(size_t maxEntries = 1000);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // The entries so far, with a newline between any two and none at the end.
    std::string text() const;

private:
    friend class MasterLogger;

    // Hands one entry to every capture that still collects.
    static void append(std::string_view text);

    // These two run under the registry's lock. True when the limit is reached.
    bool take(std::string_view text);
    static void unregister(LogCapture* capture);

    size_t m_entriesLeft;
    bool m_empty = true;
    std::string m_text;
};

} // namespace NS_CORE
