#include <gtest/gtest.h>

#include <pugixml.hpp>

#include "core/report/internal/core_testreport.h"

// The document as another program's parser reads it.
TEST(AssertDocument, GivesAnotherParserTheSameTexts) {
    const std::string text = "a<b && c>\"d\" 'e' &amp; <![CDATA[ ]]> \xc3\xa4\xe2\x82\xac";
    NS_CORE::ReportSource source;
    source.server = NS_CORE::escapedXml(text);
    source.product = source.softwareVersion = source.hostName = source.logAddress = source.server;
    const std::string document = NS_CORE::assertDocument({.kind = NS_CORE::FailureKind::Alert,
                                                          .file = text,
                                                          .line = -7,
                                                          .condition = text,
                                                          .message = text,
                                                          .backtrace = text,
                                                          .level = 1,
                                                          .count = 2,
                                                          .total = 3,
                                                          .utc = -1,
                                                          .aborts = true},
                                                         source);
    pugi::xml_document parsed;
    const pugi::xml_parse_result result = parsed.load_buffer(document.data(), document.size());
    ASSERT_TRUE(result) << result.description();
    const pugi::xml_node root = parsed.child("assert");
    for (const char* name :
         {"file", "condition", "message", "backtrace", "server", "product", "swver", "hostname", "log_url"})
        EXPECT_EQ(root.child_value(name), text) << name;
    std::string names;
    for (const pugi::xml_node element : root) names += std::string(element.name()) + " ";
    EXPECT_EQ(names,
              "type file line condition message backtrace level count total utc server product swver hostname os "
              "build_id build_time action log_url ");
    EXPECT_STREQ(root.child_value("type"), "ALERT");
    EXPECT_STREQ(root.child_value("line"), "-7");
    EXPECT_STREQ(root.child_value("utc"), "-1");
    EXPECT_STREQ(root.child_value("action"), "abort");
}
