#include "core/identity/core_rcsname.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "core/identity/core_rcsname_platform.h"
#include "tests/support/hook_recorder.h"

namespace {

using test::FailedCheck;

// Parsing.

TEST(RcsName, ATagIsWhatStandsInTheKeyword) {
    const test::HookRecorder hook;
    EXPECT_EQ(NS_CORE::rcsname("$Name: tag_ravelin_1_1_final_0 $"), "tag_ravelin_1_1_final_0");
    EXPECT_EQ(NS_CORE::rcsname("$Name: tag_x $"), "tag_x");
    EXPECT_EQ(NS_CORE::rcsname("$Name: a b $ $"), "a b $");
    EXPECT_TRUE(hook.failures().empty());
}

TEST(RcsName, AReleaseLosesItsPrefix) {
    const test::HookRecorder hook;
    EXPECT_EQ(NS_CORE::rcsname("$Name: release_1_2 $"), "1_2");
    EXPECT_EQ(NS_CORE::rcsname("$Name: release_2_0 $"), "2_0");
    EXPECT_EQ(NS_CORE::rcsname("$Name: release_ $"), "");
    EXPECT_EQ(NS_CORE::rcsname("$Name: release_release_3 $"), "release_3");
    EXPECT_TRUE(hook.failures().empty());
}

TEST(RcsName, OnlyTheExactReleasePrefixIsTaken) {
    EXPECT_EQ(NS_CORE::rcsname("$Name: Release_1 $"), "Release_1");
    EXPECT_EQ(NS_CORE::rcsname("$Name: release $"), "release");
    EXPECT_EQ(NS_CORE::rcsname("$Name: x_release_1 $"), "x_release_1");
}

TEST(RcsName, AnUnexpandedKeywordIsEmpty) {
    const test::HookRecorder hook;
    EXPECT_EQ(NS_CORE::rcsname("$Name:  $"), "");
    EXPECT_TRUE(hook.failures().empty());
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
    EXPECT_DEATH(
        {
            test::HookRecorder hook;
            hook.answerStop(true);
            NS_CORE::rcsname("$Name: tag_x$");
        },
        "");
}

// The build's own values.

TEST(BuildIdentity, IsWhatTheBuildWasSetTo) {
    const test::HookRecorder hook;
    const std::string tag = QUORKERI_RELEASE_TAG;
    EXPECT_EQ(NS_CORE::rcsTag(), "$Name: " + tag + " $");
    EXPECT_EQ(NS_CORE::version(), NS_CORE::rcsname("$Name: " + tag + " $"));
    EXPECT_EQ(NS_CORE::buildId(), QUORKERI_BUILD_ID);
    EXPECT_EQ(NS_CORE::versionWithBuildId(), NS_CORE::version() + "_" + QUORKERI_BUILD_ID);
    EXPECT_STREQ(NS_CORE::buildDate(), QUORKERI_BUILD_DATE);
    EXPECT_STREQ(NS_CORE::buildTime(), QUORKERI_BUILD_TIME);
    EXPECT_TRUE(hook.failures().empty());
}

TEST(BuildIdentity, TheBuildIdIsTheSameObjectEachTime) {
    EXPECT_EQ(&NS_CORE::buildId(), &NS_CORE::buildId());
}

// Host names.

TEST(HostName, ANameOf255BytesIsReturnedWhole) {
    EXPECT_EQ(NS_CORE::hostNameBy([](char* buffer, uint32_t size) {
                  EXPECT_EQ(size, 256U);
                  std::memset(buffer, 'h', 255);
                  buffer[255] = '\0';
                  return true;
              }),
              std::string(255, 'h'));
}

TEST(HostName, ANameWithoutTerminatorIsCutTo255Bytes) {
    EXPECT_EQ(NS_CORE::hostNameBy([](char* buffer, uint32_t size) {
                  std::memset(buffer, 'h', size);
                  return true;
              }),
              std::string(255, 'h'));
}

TEST(HostName, EndsAtTheFirstTerminator) {
    EXPECT_EQ(NS_CORE::hostNameBy([](char* buffer, uint32_t) {
                  std::memcpy(buffer, "first\0second", 13);
                  return true;
              }),
              "first");
}

TEST(HostName, IsAQuestionMarkWhenTheSystemDoesNotTell) {
    EXPECT_EQ(NS_CORE::hostNameBy([](char* buffer, uint32_t) {
                  std::memcpy(buffer, "partly", 7);
                  return false;
              }),
              "?");
}

} // namespace
