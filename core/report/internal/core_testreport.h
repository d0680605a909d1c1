#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "core/report/core_failuredefault.h"

namespace NS_CORE {

// The documents that go to the collector. Pure functions: the same bytes on every platform.

// What is the same in every report of this process. All texts are ready to be written (escapedXml).
struct ReportSource {
    std::string server;
    std::string product;
    std::string softwareVersion;
    std::string hostName;
    std::string os;
    std::string buildId;
    std::string buildTime;
    std::string logAddress; // empty: the element is left out
};

// One report of a failure. The texts are written escaped.
struct FailureReport {
    FailureKind kind;
    std::string_view file;
    int32_t line;
    std::string_view condition;
    std::string_view message;
    std::string_view backtrace;
    int32_t level;
    uint64_t count; // occurrences since the last report
    uint64_t total;
    int32_t utc; // seconds since 1970
    bool aborts;
};

// Replaces <, >, &, ' and " by entities and nothing else: control characters and bytes that are not UTF-8 stay.
std::string escapedXml(std::string_view text);

std::string assertDocument(const FailureReport& report, const ReportSource& source);

// The document that asks for this machine's log files. `line` is free text; `server` is written as it is.
std::string logRequestDocument(std::string_view file, std::string_view line, std::string_view server);

// A stack trace between the lines that mark it.
std::string framedBacktrace(std::string_view trace);

} // namespace NS_CORE
