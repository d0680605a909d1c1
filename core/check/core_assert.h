#pragma once

#include <cstdint>
#include <source_location>
#include <string>
#include <string_view>

namespace NS_CORE {

// Where a check stands: its source unit (file name without directory and extension) and its line.
// Administrators exclude checks by this pair, so a check that has been published keeps its place for good,
// whatever happens to the file around it; all others take the place where they are written.
struct Place {
    std::string_view unit;
    int32_t line;
};

// The place where the call is written.
consteval Place here(std::source_location location = std::source_location::current()) {
    std::string_view unit = location.file_name();
    unit.remove_prefix(unit.find_last_of("/\\") + 1);
    return {unit.substr(0, unit.find_last_of('.')), static_cast<int32_t>(location.line())};
}

// What happens when a consistency check fails. The checks themselves are the macros below and CHECKF
// (core_checkf.h). This header includes nothing of ours, so that every unit, the formatter and the logger
// included, can fail a check.
//
// Any thread may call all of it, from static initialisers on. The hook, the level and the lock are plain
// process-wide values: other threads see a change at their next failing check.
class Assert {
public:
    // Called for each failed check, on the thread that made it, so on several threads at once. Returns whether the
    // process has to stop at once. Must not throw.
    // - expression  the check's text, or "CHECKF"; may be null
    // - file, line  the check's place
    // - level       0 for CHECKF, else the level of the assertion
    //
    // The parameters and their types are fixed: one plain function for the process, without a context, so that the
    // hook can be constant-initialised and replaced while other threads call it. The expression is a literal or
    // missing, hence a pointer; the file is a part of a literal, hence a view; only the message is built.
    using FailureHandler = bool (*)(const char* expression, std::string_view file, int32_t line, int32_t level,
                                    const std::string& message);

    // The process's hook; null when there is none. It is failDefault from before the first static initialiser.
    static FailureHandler failureHandler();

    // Replaces the hook. With null a failing check is silent and the process goes on. Returns false, with the hook
    // left alone, while the handler is locked.
    static bool installFailureHandler(FailureHandler handler);

    // Installs failQuiet; logs WARN "handler locked" where the handler is locked. The logger calls it when its globals
    // are torn down, so that a check that fails during shutdown only writes a line.
    static void setFailureHandler();

    // While locked, the hook cannot be replaced. Off at start.
    static void lockFailureHandler(bool locked);

    // The process's assertion level, 0 or 1, 1 at start. Assertions of a higher level are skipped.
    static int32_t level();

    // Values below 0 count as 0, above 1 as 1.
    static void setLevel(int32_t level);

    // Hands a failed check to the hook, and stops the process where the hook says so. Always returns false, so that
    // it can end a condition.
    static bool fail(const char* expression, Place place, int32_t level, const std::string& message);

    // The default handler. It and setFailureHandler() log, so core/report/core_failuredefault.h describes them and
    // their source is there. They are declared here because the hook is constant-initialised with failDefault, and
    // because the logger, whose room lies below the reports', calls setFailureHandler().
    static bool failDefault(const char* expression, std::string_view file, int32_t line, int32_t level,
                            const std::string& message);

    // Writes one line to standard error and never stops the process.
    static bool failQuiet(const char* expression, std::string_view file, int32_t line, int32_t level,
                          const std::string& message);

    // Ends the process by a write to address 0, so that a crash dump records the place. If the write does not end it,
    // exit(0) does.
    [[noreturn]] static void stopProcess();
};

// What an assertion may be given as its message: nothing, or one text. It is not a format; CHECKF has formats.
inline std::string assertionMessage() {
    return {};
}
inline std::string assertionMessage(std::string_view message) {
    return std::string(message);
}

} // namespace NS_CORE

// GASSERT(level, expression) and GASSERT(level, expression, message): an assertion that is evaluated while `level` is
// not greater than the process's assertion level. The message is evaluated only on failure. GASSERT_AT is the same with
// a published place.
#define GASSERT_AT(unit, line, level_, expression, ...)                                          \
    static_cast<void>(::NS_CORE::Assert::level() < (level_) || (expression) ||                   \
                      ::NS_CORE::Assert::fail(#expression, ::NS_CORE::Place{unit, line}, level_, \
                                              ::NS_CORE::assertionMessage(__VA_ARGS__)))
#define GASSERT(level_, expression, ...)                         \
    static_cast<void>(                                           \
        ::NS_CORE::Assert::level() < (level_) || (expression) || \
        ::NS_CORE::Assert::fail(#expression, ::NS_CORE::here(), level_, ::NS_CORE::assertionMessage(__VA_ARGS__)))
