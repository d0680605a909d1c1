#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "core/log/core_v2masterlogger.h"

namespace test {

// A log implementation or an observer, as Base says. Calls `record` with "WARN text" for each record of that level, and
// `end` when it is destroyed.
template <class Base>
struct Calling : Base {
    explicit Calling(
        std::function<void(const std::string&)> record, std::function<void()> end = [] {})
        : onRecord(std::move(record)), onEnd(std::move(end)) {}
    virtual ~Calling() { onEnd(); }
    virtual void log(uint32_t /*level*/, uint32_t /*threadNumber*/, const NS_CORE::LevelEntry& levelEntry,
                     uint8_t implementationBits, const char* text, size_t textLength) {
        EXPECT_EQ(implementationBits, levelEntry.implementationBits);
        onRecord(levelEntry.name + std::string(" ").append(text, textLength));
    }
    virtual void notify(uint32_t level, uint32_t threadNumber, const NS_CORE::LevelEntry& levelEntry,
                        uint8_t implementationBits, const char* text, size_t textLength) {
        log(level, threadNumber, levelEntry, implementationBits, text, textLength);
    }
    virtual bool accepts(uint32_t level) const { return level == acceptedLevel; }

    std::function<void(const std::string&)> onRecord;
    std::function<void()> onEnd;
    uint32_t acceptedLevel = NS_CORE::LogLevel::Warn;
};

template <class... Arguments>
void setImplementation(Arguments&&... arguments) {
    NS_CORE::MasterLogger::setImplementation(
        std::make_unique<Calling<NS_CORE::LogImpl>>(std::forward<Arguments>(arguments)...));
}

template <class... Arguments>
void setGlobalObserver(Arguments&&... arguments) {
    NS_CORE::MasterLogger::setGlobalObserver(
        std::make_unique<Calling<NS_CORE::GlobalLogObserver>>(std::forward<Arguments>(arguments)...));
}

} // namespace test
