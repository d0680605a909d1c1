#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace NS_CORE {

// Collects, while it lives, what any thread logs at level 0 (LogLevel::Log2String). With it a caller gets the output of
// a function that logs as one text. Several may live at once; each gets every entry. Any thread may create, read and
// destroy one.
class LogCapture {
public:
    // maxEntries  it stops collecting after this many entries; 0 collects nothing.
    explicit LogCapture(size_t maxEntries = 1000);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // The entries so far, with a newline between any two and none at the end.
    std::string text() const;

private:
    friend class MasterLogger;

    // Adds an entry to every capture that still collects.
    static void append(std::string_view text);

    // Runs under the registry's lock. Returns true when the limit is reached.
    bool add(std::string_view text);

    size_t m_entriesLeft;
    bool m_empty = true;
    std::string m_text;
};

} // namespace NS_CORE
