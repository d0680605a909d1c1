// Any texts make a document that another program's XML reader takes, with the texts that went in, and of a size that
// the longest entities bound.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <pugixml.hpp>
#include <string>

#include "core/report/internal/core_testreport.h"
#include "fuzz/require.h"

namespace {

using NS_CORE::FailureKind;

// Without NUL, at which the reader stops.
std::string anyText(FuzzedDataProvider& input) {
    std::string text = input.ConsumeRandomLengthString();
    std::erase(text, '\0');
    return text;
}

pugi::xml_document parsed(const std::string& document) {
    pugi::xml_document result;
    // Line ends and blanks as they are.
    constexpr unsigned int kFlags = pugi::parse_escapes | pugi::parse_ws_pcdata;
    require(bool(result.load_buffer(document.data(), document.size(), kFlags, pugi::encoding_utf8)), "not XML");
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const auto kind = input.PickValueInArray({FailureKind::Assertion, FailureKind::Alert});
    const auto line = input.ConsumeIntegral<int32_t>();
    const auto count = input.ConsumeIntegral<uint64_t>();
    const bool aborts = input.ConsumeBool();
    const std::string file = anyText(input);
    const std::string condition = anyText(input);
    const std::string message = anyText(input);
    const std::string backtrace = anyText(input);
    NS_CORE::ReportSource source;
    source.logAddress = NS_CORE::escapedXml(message);
    source.product = NS_CORE::escapedXml(file);
    const std::string document = NS_CORE::assertDocument({.kind = kind,
                                                          .file = file,
                                                          .line = line,
                                                          .condition = condition,
                                                          .message = message,
                                                          .backtrace = backtrace,
                                                          .level = line,
                                                          .count = count,
                                                          .total = count,
                                                          .utc = line,
                                                          .aborts = aborts},
                                                         source);
    const size_t texts = 2 * file.size() + condition.size() + 2 * message.size() + backtrace.size();
    constexpr size_t kLongestEntity = 6;
    require(document.size() >= texts && document.size() <= 1000 + kLongestEntity * texts, "another size");

    const pugi::xml_document read = parsed(document);
    const pugi::xml_node root = read.child("assert");
    require(root.child_value("file") == file, "another file");
    require(root.child_value("condition") == condition, "another condition");
    require(root.child_value("message") == message, "another message");
    require(root.child_value("backtrace") == backtrace, "another backtrace");
    require(root.child_value("product") == file, "another product");
    require(root.child_value("log_url") == message, "another address of the logs");
    require(root.child("line").text().as_int() == line, "another line");
    require(root.child("total").text().as_ullong() == count, "another total");
    require((root.child_value("type") == std::string("ASSERT")) == (kind == FailureKind::Assertion), "another type");
    require((root.child_value("action") == std::string("abort")) == aborts, "another action");

    const pugi::xml_document request = parsed(NS_CORE::logRequestDocument(file, message, source.product));
    require(request.child("sendlogs").child_value("file") == file, "another file is asked for");
    require(request.child("sendlogs").child_value("line") == message, "another line is asked for");
    return 0;
}
