#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace test {

// One failed check, as the hook saw it.
struct FailedCheck {
    std::string expression;
    std::string file;
    int32_t line;
    int32_t level;
    std::string message;

    bool operator==(const FailedCheck&) const = default;
};

// Replaces the process's failure handler while it lives, and keeps the failed checks. The test reads them: those that
// it has not read when the recorder ends fail it. Thread-safe; one at a time.
class HookRecorder {
public:
    HookRecorder();
    ~HookRecorder();
    HookRecorder(const HookRecorder&) = delete;
    HookRecorder& operator=(const HookRecorder&) = delete;

    // What the hook returns from now on: true stops the process (for death tests).
    void answerStop(bool stop);

    std::vector<FailedCheck> failures() const;

    // The only failure so far; fails the test when there are more or none.
    FailedCheck single() const;

    void clear();
};

// Fails every test of this program in which a check fails, unless the test has a HookRecorder or has installed another
// handler. Call it once, before the tests run.
void failTestsOnFailedChecks();

// Readable in test failures.
void PrintTo(const FailedCheck& check, std::ostream* out);

} // namespace test
