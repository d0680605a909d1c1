#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "core/stack/core_stacktrace.h"

namespace {

using NS_CORE::StackTrace;

[[gnu::noinline]] std::string traceHere() {
    std::string text = StackTrace().toText();
    EXPECT_FALSE(text.empty());
    return text;
}

TEST(StackTrace, StaysWholeWhenModulesComeAndGo) {
    const std::string expected = "#01 in (anonymous namespace)::traceHere() at core_stacktrace_test_linux.cpp:";
    EXPECT_TRUE(traceHere().starts_with(expected));
    void* const library = ::dlopen("libresolv.so.2", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr);
    EXPECT_TRUE(traceHere().starts_with(expected)) << traceHere();
    ::dlclose(library);
    EXPECT_TRUE(traceHere().starts_with(expected)) << traceHere();
}

TEST(StackTrace, LoadsNothingIntoTheProcess) {
    traceHere();
    void* const networkReader = ::dlopen("libdebuginfod.so.1", RTLD_NOW | RTLD_NOLOAD);
    EXPECT_EQ(networkReader, nullptr);
}

} // namespace
