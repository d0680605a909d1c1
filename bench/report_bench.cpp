// Building the document that reports a failed check, against pugixml's own tree and writer with the same elements and
// texts. "bytes" is the document's length; "allocs" counts the allocations of one document.
//
//     taskset -c 1 report_bench --benchmark_repetitions=15 --benchmark_enable_random_interleaving=true

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <pugixml.hpp>
#include <string>

#include "bench/allocation_column.h"
#include "core/report/internal/core_testreport.h"

namespace {

using NS_CORE::FailureKind;
using NS_CORE::FailureReport;
using NS_CORE::ReportSource;

const ReportSource& source() {
    static const ReportSource source{"quorkeri_service.exe", "ravelin",  "tag_ravelin_1_1_final_0",
                                     "SRV-ACCESS-02",        "win_i686", "191120-144957",
                                     "Nov 20 2019 16:03:44", ""};
    return source;
}

std::string backtrace() {
    std::string text = "Backtrace START --------------------------------------------\n\n";
    for (int frame = 0; frame < 20; ++frame)
        text += "#" + std::to_string(frame) +
                " in NS_UTL::Service::run(int, char**) at utl_service.cpp:" + std::to_string(100 + frame) +
                " (quorkeri_service.exe)\n";
    return text + "\n\nBacktrace END ----------------------------------------------";
}

// 0: plain texts and no backtrace; 1: texts with characters to escape; 2: the same and a backtrace of 20 frames.
FailureReport report(int64_t kind) {
    static const std::string trace = backtrace();
    FailureReport report{FailureKind::Assertion, "utl_service", 41, "CHECKF", "bin", "", 1, 1, 1, 1'574'261'397, false};
    if (kind >= 1) {
        report.condition = "size > 0 && name != \"\"";
        report.message = "RegistryKey: failed open 'SOFTWARE\\Keri Systems' <32 & 64 bit>";
    }
    if (kind >= 2) report.backtrace = trace;
    return report;
}

class StringWriter : public pugi::xml_writer {
public:
    void write(const void* data, size_t size) override { m_text.append(static_cast<const char*>(data), size); }
    std::string m_text;
};

template <class Value>
void add(pugi::xml_node& parent, const char* name, const Value& value) {
    parent.append_child(name).text().set(value);
}

std::string byPugixml(const FailureReport& report, const ReportSource& from, unsigned int format) {
    pugi::xml_document document;
    pugi::xml_node declaration = document.append_child(pugi::node_declaration);
    declaration.append_attribute("version") = "1.0";
    declaration.append_attribute("encoding") = "utf-8";
    pugi::xml_node root = document.append_child("assert");
    add(root, "type", report.kind == FailureKind::Assertion ? "ASSERT" : "ALERT");
    add(root, "file", report.file.data());
    add(root, "line", report.line);
    add(root, "condition", report.condition.data());
    add(root, "message", report.message.data());
    add(root, "backtrace", report.backtrace.data());
    add(root, "level", report.level);
    add(root, "count", static_cast<unsigned long long>(report.count));
    add(root, "total", static_cast<unsigned long long>(report.total));
    add(root, "utc", report.utc);
    add(root, "server", from.server.c_str());
    add(root, "product", from.product.c_str());
    add(root, "swver", from.softwareVersion.c_str());
    add(root, "hostname", from.hostName.c_str());
    add(root, "os", from.os.c_str());
    add(root, "build_id", from.buildId.c_str());
    add(root, "build_time", from.buildTime.c_str());
    add(root, "action", report.aborts ? "abort" : "continue");
    StringWriter writer;
    document.save(writer, "  ", format);
    return std::move(writer.m_text);
}

template <class Build>
void run(benchmark::State& state, Build build) {
    const FailureReport one = report(state.range(0));
    const ReportSource& from = source();
    const bench::AllocationColumn column(state);
    size_t bytes = 0;
    for (auto _ : state) {
        const std::string document = build(one, from);
        bytes = document.size();
        benchmark::DoNotOptimize(document.data());
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}

void thisLibrary(benchmark::State& state) {
    run(state, [](const FailureReport& one, const ReportSource& from) { return NS_CORE::assertDocument(one, from); });
}

// Without any line breaks, which is less to write than the documents have.
void pugixmlRaw(benchmark::State& state) {
    run(state,
        [](const FailureReport& one, const ReportSource& from) { return byPugixml(one, from, pugi::format_raw); });
}

void pugixmlIndented(benchmark::State& state) {
    run(state,
        [](const FailureReport& one, const ReportSource& from) { return byPugixml(one, from, pugi::format_indent); });
}

BENCHMARK(thisLibrary)->DenseRange(0, 2);
BENCHMARK(pugixmlRaw)->DenseRange(0, 2);
BENCHMARK(pugixmlIndented)->DenseRange(0, 2);

} // namespace
