#include "packaging/selftest/selftest_results.h"

#include <algorithm>
#include <cstdio>

namespace selftest {
namespace {

size_t countOf(const std::vector<Result>& results, Verdict verdict) {
    return static_cast<size_t>(
        std::count_if(results.begin(), results.end(), [&](const Result& result) { return result.verdict == verdict; }));
}

// Calls `use` with each line, without its line end.
template <class Use>
void forEachLine(std::string_view text, Use use) {
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        if (line.ends_with('\r')) line.remove_suffix(1);
        use(line);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

// The lines between "...: Skipped" and the next line that GoogleTest writes in brackets.
std::string skipReason(const std::string& output) {
    std::string reason;
    bool isReason = false;
    forEachLine(output, [&](std::string_view line) {
        if (line.starts_with("[")) isReason = false;
        if (isReason && !line.empty()) reason += (reason.empty() ? "" : " ") + std::string(line);
        if (line.ends_with(": Skipped")) isReason = true;
    });
    return reason.empty() ? "no reason given" : reason;
}

// XML 1.0 allows neither the other control characters nor bytes that are not UTF-8: both are written as '?'.
std::string xmlText(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            case '\n':
                escaped += "&#10;";
                break;
            case '\t':
                escaped += ' ';
                break;
            default:
                escaped += c >= ' ' && c <= '~' ? c : '?';
        }
    }
    return escaped;
}

std::string secondsText(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", seconds);
    return text;
}

} // namespace

std::vector<std::string> testNames(std::string_view listed) {
    std::vector<std::string> names;
    std::string suite;
    forEachLine(listed, [&](std::string_view line) {
        line = line.substr(0, line.find("  #"));
        if (line.starts_with("  ")) {
            const std::string name = suite + std::string(line.substr(2));
            if (name.find("DISABLED_") == std::string::npos) names.push_back(name);
        } else if (line.ends_with('.')) {
            suite = line;
        }
    });
    return names;
}

Result resultOf(const std::string& program, const std::string& name, bool timedOut, unsigned long exitCode,
                const std::string& output) {
    Result result{program, name, Verdict::Failed, 0, output};
    if (timedOut) {
        result.output += "\n(ended by the self-test: it had taken too long)";
    } else if (exitCode != 0) {
        result.output += "\n(exit code " + std::to_string(static_cast<long>(exitCode)) + ")";
    } else if (output.find("[  SKIPPED ]") != std::string::npos) {
        result.verdict = Verdict::Skipped;
        result.output = skipReason(output);
    } else if (output.find("[  PASSED  ] 1 test.") != std::string::npos) {
        result.verdict = Verdict::Passed;
        result.output.clear();
    } else {
        result.output += "\n(it ended with 0 and did not say that it passed)";
    }
    return result;
}

std::string summaryOf(const std::vector<Result>& results) {
    return std::to_string(countOf(results, Verdict::Passed)) + " passed, " +
           std::to_string(countOf(results, Verdict::Failed)) + " failed, " +
           std::to_string(countOf(results, Verdict::Skipped)) + " skipped";
}

std::string textReport(const std::vector<Result>& results, const std::string& heading) {
    std::string text = heading + "\n\n";
    for (const Result& result : results) {
        if (result.verdict == Verdict::Failed)
            text += "FAILED  " + result.program + " " + result.name + "\n" + result.output + "\n\n";
    }
    for (const Result& result : results) {
        if (result.verdict == Verdict::Skipped)
            text += "skipped " + result.program + " " + result.name + ": " + result.output + "\n";
    }
    return text + "\n" + summaryOf(results) + "\n";
}

std::string junitReport(const std::vector<Result>& results) {
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuite name=\"selftest\" tests=\"" +
                      std::to_string(results.size()) + "\" failures=\"" +
                      std::to_string(countOf(results, Verdict::Failed)) + "\" skipped=\"" +
                      std::to_string(countOf(results, Verdict::Skipped)) + "\">\n";
    for (const Result& result : results) {
        xml += "  <testcase classname=\"" + xmlText(result.program) + "\" name=\"" + xmlText(result.name) +
               "\" time=\"" + secondsText(result.seconds) + "\"";
        if (result.verdict == Verdict::Passed) {
            xml += "/>\n";
            continue;
        }
        const char* element = result.verdict == Verdict::Failed ? "failure" : "skipped";
        xml += std::string(">\n    <") + element + " message=\"" + xmlText(result.output) + "\"/>\n  </testcase>\n";
    }
    return xml + "</testsuite>\n";
}

} // namespace selftest
