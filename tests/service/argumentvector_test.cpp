#include "service/argumentvector.h"

#include <gtest/gtest.h>

namespace service {
namespace {

TEST(ArgumentVectorTest, HoldsTheProgramThenTheWordsThenNull) {
    std::vector<std::string> words;
    for (size_t count : {0U, 1U, 1000U}) {
        while (words.size() < count) words.push_back("w" + std::to_string(words.size()));
        static_cast<void>(std::vector(100, std::string(23, '\xff'))); // memory that is given out next is not zero
        ArgumentVector arguments("C:\\svc\\bin\\quorkeri_service.exe", words);
        ASSERT_EQ(arguments.count(), static_cast<int>(count) + 1);
        EXPECT_STREQ(arguments.values()[0], "C:\\svc\\bin\\quorkeri_service.exe");
        for (size_t i = 0; i < count; ++i) EXPECT_EQ(arguments.values()[i + 1], words[i]);
        EXPECT_EQ(arguments.values()[count + 1], nullptr);
    }
}

} // namespace
} // namespace service
