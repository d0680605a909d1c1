#include "core/identity/core_rcsname.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "core/identity/core_rcsname_platform.h"
#include "tests/support/hook_recorder.h"

namespace {

using test::FailedCheck;

// Parsing.

TEST(RcsName, ATagIsWhatStandsInTheKeywordAndAReleaseLosesItsPrefix) {
    for (const auto& [inKeyword, name] :
         {std::pair("tag_ravelin_1_1_final_0", "tag_ravelin_1_1_final_0"), std::pair("a b $", "a b $"),
          std::pair("release_1_2", "1_2"), std::pair("release_", ""), std::pair("release_release_3", "release_3"),
          std::pair("Release_1", "Release_1"), std::pair("release", "release"), std::pair("x_release_1", "x_release_1"),
          std::pair("", "")})
        EXPECT_EQ(NS_CORE::rcsname("$Name: " + std::string(inKeyword) + " $"), name);
}

TEST(RcsName, OtherFormsFailTheCheckAndComeBackWhole) {
    for (const std::string keyword : {"$Name: tag_x$", "$Name: $", "$Name:tag_x $", "$name: tag_x $", "tag_x", "", " $",
                                      "$Name: release_1", "$Name: release_1$", "release_1 $", "$Name: %s"}) {
        const test::HookRecorder hook;
        EXPECT_EQ(NS_CORE::rcsname(keyword), keyword);
        EXPECT_EQ(hook.single(), (FailedCheck{"CHECKF", "core_rcsname", 28, 0, keyword}));
    }
}

TEST(RcsNameDeathTest, AnotherFormEndsTheProcessWhereTheHookSaysStop) {
    test::HookRecorder hook;
    hook.answerStop(true);
    EXPECT_DEATH(NS_CORE::rcsname("$Name: tag_x$"), "");
}

// The build's own values.

TEST(BuildIdentity, IsWhatTheBuildWasSetTo) {
    const std::string tag = QUORKERI_RELEASE_TAG;
    EXPECT_EQ(NS_CORE::rcsTag(), "$Name: " + tag + " $");
    EXPECT_EQ(NS_CORE::version(), NS_CORE::rcsname("$Name: " + tag + " $"));
    EXPECT_EQ(NS_CORE::buildId(), QUORKERI_BUILD_ID);
    EXPECT_EQ(NS_CORE::versionWithBuildId(), NS_CORE::version() + "_" + QUORKERI_BUILD_ID);
    EXPECT_STREQ(NS_CORE::buildDate(), QUORKERI_BUILD_DATE);
    EXPECT_STREQ(NS_CORE::buildTime(), QUORKERI_BUILD_TIME);
}

TEST(BuildIdentity, TheBuildIdIsTheSameObjectEachTime) {
    EXPECT_EQ(&NS_CORE::buildId(), &NS_CORE::buildId());
}

// Host names.

TEST(HostName, IsWhatTheSystemWritesUpToATerminatorOr255Bytes) {
    // What stands in for the system has no state of its own.
    static std::string s_written;
    static bool s_isKnown;
    const auto hostName = [](const std::string& written, bool isKnown = true) {
        s_written = written;
        s_isKnown = isKnown;
        return NS_CORE::hostNameBy([](char* buffer, uint32_t size) {
            EXPECT_EQ(size, 256U);
            std::memcpy(buffer, s_written.data(), s_written.size());
            return s_isKnown;
        });
    };
    const std::string longest(255, 'h');
    EXPECT_EQ(hostName(longest + '\0'), longest);
    EXPECT_EQ(hostName(longest + 'h'), longest);
    EXPECT_EQ(hostName(std::string("first\0second", 13)), "first");
    EXPECT_EQ(hostName(std::string("partly", 7), /*isKnown=*/false), "?");
}

} // namespace
