#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace test {

// What `action` writes to this process's standard output and standard error.
struct Printed {
    std::string output;
    std::string error;
};

template <class Action>
Printed printedBy(Action&& action) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    std::forward<Action>(action)();
    std::string error = testing::internal::GetCapturedStderr();
    return {testing::internal::GetCapturedStdout(), std::move(error)};
}

} // namespace test
