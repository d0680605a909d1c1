#include "core/core_testreport.h"

#include <initializer_list>

#include "core/core_varargs.h"

namespace NS_CORE {
namespace {

constexpr std::string_view kSpecial = "<>&'\"";
constexpr std::string_view kDeclaration = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";

std::string_view entityOf(char character) {
    switch (character) {
        case '<':
            return "&lt;";
        case '>':
            return "&gt;";
        case '&':
            return "&amp;";
        case '\'':
            return "&apos;";
        default:
            return "&quot;";
    }
}

// In one allocation.
std::string joined(std::initializer_list<std::string_view> parts) {
    size_t length = 0;
    for (const std::string_view part : parts) length += part.size();
    std::string text;
    text.reserve(length);
    for (const std::string_view part : parts) text += part;
    return text;
}

} // namespace

std::string_view escapeXml(std::string_view text, std::string& buffer) {
    size_t special = text.find_first_of(kSpecial);
    if (special == std::string_view::npos) return text;
    buffer.clear();
    buffer.reserve(text.size() + 16);
    size_t start = 0;
    for (; special != std::string_view::npos; special = text.find_first_of(kSpecial, start)) {
        buffer += text.substr(start, special - start);
        buffer += entityOf(text[special]);
        start = special + 1;
    }
    buffer += text.substr(start);
    return buffer;
}

std::string escapedXml(std::string_view text) {
    std::string buffer;
    return std::string(escapeXml(text, buffer));
}

std::string assertDocument(const FailureReport& report, const ReportSource& source) {
    std::string fileBuffer;
    std::string conditionBuffer;
    std::string messageBuffer;
    std::string backtraceBuffer;
    const std::string_view backtrace = escapeXml(report.backtrace, backtraceBuffer);
    const std::string_view message = escapeXml(report.message, messageBuffer);
    const std::string_view condition = escapeXml(report.condition, conditionBuffer);
    const std::string_view file = escapeXml(report.file, fileBuffer);
    // There is no line break behind type, message and backtrace: collectors know the documents like this.
    std::string document = joined({kDeclaration,
                                   "<assert>\n",
                                   "  <type>",
                                   report.kind == FailureKind::Assertion ? "ASSERT" : "ALERT",
                                   "</type>",
                                   "  <file>",
                                   file,
                                   "</file>\n",
                                   "  <line>",
                                   std::to_string(report.line),
                                   "</line>\n",
                                   "  <condition>",
                                   condition,
                                   "</condition>\n",
                                   "  <message>",
                                   message,
                                   "</message>",
                                   "  <backtrace>",
                                   backtrace,
                                   "</backtrace>",
                                   "  <level>",
                                   std::to_string(report.level),
                                   "</level>\n",
                                   "  <count>",
                                   std::to_string(report.count),
                                   "</count>\n",
                                   "  <total>",
                                   std::to_string(report.total),
                                   "</total>\n",
                                   "  <utc>",
                                   std::to_string(report.utc),
                                   "</utc>\n",
                                   "  <server>",
                                   source.server,
                                   "</server>\n",
                                   "  <product>",
                                   source.product,
                                   "</product>\n",
                                   "  <swver>",
                                   source.softwareVersion,
                                   "</swver>\n",
                                   "  <hostname>",
                                   source.hostName,
                                   "</hostname>\n",
                                   "  <os>",
                                   source.os,
                                   "</os>\n",
                                   "  <build_id>",
                                   source.buildId,
                                   "</build_id>\n",
                                   "  <build_time>",
                                   source.buildTime,
                                   "</build_time>\n",
                                   "  <action>",
                                   report.aborts ? "abort" : "continue",
                                   "</action>\n"});
    if (!source.logAddress.empty()) document += joined({"  <log_url>", source.logAddress, "</log_url>\n"});
    document += "</assert>";
    return document;
}

std::string logRequestDocument(std::string_view file, std::string_view line, std::string_view server) {
    std::string fileBuffer;
    std::string lineBuffer;
    return joined({kDeclaration, "<sendlogs>\n", "  <file>", escapeXml(file, fileBuffer), "</file>\n", "  <line>",
                   escapeXml(line, lineBuffer), "</line>\n", "  <server>", server, "</server>\n", "</sendlogs>"});
}

std::string framedBacktrace(std::string_view trace) {
    const std::string start = formatString("Backtrace START --------------------------------------------\n\n%s", trace);
    return formatString("%s\n\n%s", start, "Backtrace END ----------------------------------------------");
}

} // namespace NS_CORE
