#include "core/report/internal/core_testreport.h"

#include <gtest/gtest.h>

using NS_CORE::assertDocument;
using NS_CORE::escapedXml;
using NS_CORE::FailureKind;
using NS_CORE::FailureReport;
using NS_CORE::ReportSource;

namespace {

const ReportSource kSource{.server = "service.exe",
                           .product = "ravelin",
                           .softwareVersion = "tag_1",
                           .hostName = "host&amp;co",
                           .os = "win_i686",
                           .buildId = "191120-144957",
                           .buildTime = "Nov 20 2019 16:03:44",
                           .logAddress = {}};

FailureReport plainReport() {
    return {.kind = FailureKind::Assertion,
            .file = "core_x",
            .line = 12,
            .condition = "CHECKF",
            .message = "text",
            .backtrace = "",
            .level = 0,
            .count = 2,
            .total = 18'446'744'073'709'551'615U,
            .utc = 1'574'262'224,
            .aborts = false};
}

TEST(EscapeXml, WritesTheFiveCharactersAsEntities) {
    EXPECT_EQ(escapedXml("a<b && c>\"d\""), "a&lt;b &amp;&amp; c&gt;&quot;d&quot;");
    EXPECT_EQ(escapedXml("'&amp;'"), "&apos;&amp;amp;&apos;");
    EXPECT_EQ(escapedXml("<"), "&lt;");
    EXPECT_EQ(escapedXml(""), "");
    EXPECT_EQ(escapedXml("plain text, \x01\xff and all"), "plain text, \x01\xff and all");
}

TEST(AssertDocument, IsExactToTheByte) {
    EXPECT_EQ(assertDocument(plainReport(), kSource),
              "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
              "<assert>\n"
              "  <type>ASSERT</type>  <file>core_x</file>\n"
              "  <line>12</line>\n"
              "  <condition>CHECKF</condition>\n"
              "  <message>text</message>  <backtrace></backtrace>  <level>0</level>\n"
              "  <count>2</count>\n"
              "  <total>18446744073709551615</total>\n"
              "  <utc>1574262224</utc>\n"
              "  <server>service.exe</server>\n"
              "  <product>ravelin</product>\n"
              "  <swver>tag_1</swver>\n"
              "  <hostname>host&amp;co</hostname>\n"
              "  <os>win_i686</os>\n"
              "  <build_id>191120-144957</build_id>\n"
              "  <build_time>Nov 20 2019 16:03:44</build_time>\n"
              "  <action>continue</action>\n"
              "</assert>");
}

TEST(AssertDocument, LeavesControlCharactersAndBadUtf8AsTheyAre) {
    FailureReport report = plainReport();
    const std::string odd("\x01\x00\xff\xc3", 4);
    report.message = odd;
    EXPECT_NE(assertDocument(report, kSource).find("<message>" + odd + "</message>"), std::string::npos);
}

TEST(FramedBacktrace, MarksTheTrace) {
    EXPECT_EQ(NS_CORE::framedBacktrace("#01 in f()\n#02 in g()"),
              "Backtrace START --------------------------------------------\n\n"
              "#01 in f()\n#02 in g()\n\n"
              "Backtrace END ----------------------------------------------");
}

} // namespace
