#include "core/report/internal/core_testreport.h"

#include <array>
#include <cstddef>
#include <initializer_list>

#include "core/text/core_varargs.h"

namespace NS_CORE {
namespace {

constexpr std::string_view kDeclaration = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";

// Empty for a character that needs no entity.
constexpr std::string_view entityOf(char character) {
    switch (character) {
        case '<':
            return "&lt;";
        case '>':
            return "&gt;";
        case '&':
            return "&amp;";
        case '\'':
            return "&apos;";
        case '"':
            return "&quot;";
        default:
            return {};
    }
}

constexpr std::array<bool, 256> kHasEntity = [] {
    std::array<bool, 256> table{};
    for (size_t value = 0; value < table.size(); ++value) table[value] = !entityOf(static_cast<char>(value)).empty();
    return table;
}();

// A backtrace has thousands of characters and few that need an entity, so this copies whole runs between them.
void appendEscaped(std::string& out, std::string_view text) {
    const char* run = text.data();
    const char* const end = run + text.size();
    for (const char* at = run; at != end; ++at) {
        if (!kHasEntity[static_cast<unsigned char>(*at)]) continue;
        out.append(run, at);
        out += entityOf(*at);
        run = at + 1;
    }
    out.append(run, end);
}

void append(std::string& out, std::initializer_list<std::string_view> parts) {
    for (const std::string_view part : parts) out += part;
}

// An estimate of a report's bytes beside its backtrace.
constexpr size_t kRoom = 1500;

} // namespace

std::string escapedXml(std::string_view text) {
    std::string escaped;
    appendEscaped(escaped, text);
    return escaped;
}

std::string assertDocument(const FailureReport& report, const ReportSource& source) {
    std::string document;
    document.reserve(kRoom + report.backtrace.size());
    // No line break follows type, message and backtrace: this is the format that collectors know.
    append(document, {kDeclaration, "<assert>\n  <type>", report.kind == FailureKind::Assertion ? "ASSERT" : "ALERT",
                      "</type>  <file>"});
    appendEscaped(document, report.file);
    append(document, {"</file>\n  <line>", std::to_string(report.line), "</line>\n  <condition>"});
    appendEscaped(document, report.condition);
    document += "</condition>\n  <message>";
    appendEscaped(document, report.message);
    document += "</message>  <backtrace>";
    appendEscaped(document, report.backtrace);
    append(document, {"</backtrace>  <level>",
                      std::to_string(report.level),
                      "</level>\n  <count>",
                      std::to_string(report.count),
                      "</count>\n  <total>",
                      std::to_string(report.total),
                      "</total>\n  <utc>",
                      std::to_string(report.utc),
                      "</utc>\n  <server>",
                      source.server,
                      "</server>\n  <product>",
                      source.product,
                      "</product>\n  <swver>",
                      source.softwareVersion,
                      "</swver>\n  <hostname>",
                      source.hostName,
                      "</hostname>\n  <os>",
                      source.os,
                      "</os>\n  <build_id>",
                      source.buildId,
                      "</build_id>\n  <build_time>",
                      source.buildTime,
                      "</build_time>\n  <action>",
                      report.aborts ? "abort" : "continue",
                      "</action>\n"});
    if (!source.logAddress.empty()) append(document, {"  <log_url>", source.logAddress, "</log_url>\n"});
    document += "</assert>";
    return document;
}

std::string logRequestDocument(std::string_view file, std::string_view line, std::string_view server) {
    std::string document;
    append(document, {kDeclaration, "<sendlogs>\n  <file>"});
    appendEscaped(document, file);
    document += "</file>\n  <line>";
    appendEscaped(document, line);
    append(document, {"</line>\n  <server>", server, "</server>\n</sendlogs>"});
    return document;
}

std::string framedBacktrace(std::string_view trace) {
    const std::string start = formatString("Backtrace START --------------------------------------------\n\n%s", trace);
    return formatString("%s\n\n%s", start, "Backtrace END ----------------------------------------------");
}

} // namespace NS_CORE
