#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "core/identity/core_product.h"
#include "core/identity/core_rcsname.h"
#include "core/net/core_socket.h"
#include "core/report/core_testinterface.h"
#include "tests/support/child.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"
#include "tests/support/udp_receiver.h"

using NS_CORE::FailureKind;
using NS_CORE::TestInterface;
using Strings = std::vector<std::string>;
namespace TestAction = NS_CORE::TestAction;

// A test interface in a working directory of its own, and a collector for it.
struct TestInterfaceTest : testing::Test {
    test::TempDir dir;
    std::filesystem::path before = std::filesystem::current_path();
    test::LogRecorder log;
    test::UdpReceiver collector;
    TestInterface interface{[] { return 1'574'262'224; }};

    TestInterfaceTest() {
        NS_CORE::setProductIdentifier("rav<elin");
        std::filesystem::create_directory(dir.path() / "settings");
        std::filesystem::current_path(dir.path());
    }
    ~TestInterfaceTest() override { std::filesystem::current_path(before); }

    void writeIni(const std::string& text) { test::writeFile(dir.path() / "settings" / "testing.ini", text); }
    void writeExclusions(const std::string& text) { test::writeFile(dir.path() / "settings" / "assert.exclude", text); }

    std::string general(const std::string& address = "127.0.0.1") const {
        return "[general]\nsend_address " + address + "\nsend_port " + std::to_string(collector.port()) + "\n";
    }

    // Has reports sent to the collector, or to its port at another address.
    void configure(const std::string& rest = "[assert]\nsend true\n[alert]\nsend true\n",
                   const std::string& address = "127.0.0.1") {
        writeIni(general(address) + rest);
        ASSERT_TRUE(interface.loadIni());
    }

    void fail(int32_t line, const std::string& message = "m", FailureKind kind = FailureKind::Assertion) {
        interface.report({kind, "a < b", "core_x", line, 1, message});
    }

    size_t countOf(const std::string& logged) const {
        const Strings lines = log.lines();
        return static_cast<size_t>(std::count(lines.begin(), lines.end(), logged));
    }

    static std::string server() { return test::fromText(test::thisProgram()).filename().string(); }

    // The document that the collector must receive for it.
    static std::string document(int32_t line, uint64_t count, uint64_t total, const std::string& message = "m",
                                const std::string& action = "continue", const std::string& type = "ASSERT",
                                const std::string& logUrl = "") {
        return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<assert>\n  <type>" + type +
               "</type>  <file>core_x</file>\n  <line>" + std::to_string(line) +
               "</line>\n  <condition>a &lt; b</condition>\n  <message>" + message +
               "</message>  <backtrace></backtrace>  <level>1</level>\n  <count>" + std::to_string(count) +
               "</count>\n  <total>" + std::to_string(total) + "</total>\n  <utc>1574262224</utc>\n  <server>" +
               server() + "</server>\n  <product>rav&lt;elin</product>\n  <swver>" + NS_CORE::version() +
               "</swver>\n  <hostname>" + NS_CORE::hostName() + "</hostname>\n  <os>" + NS_CORE::platform() +
               "</os>\n  <build_id>" + NS_CORE::buildId() + "</build_id>\n  <build_time>" + NS_CORE::buildDate() + " " +
               NS_CORE::buildTime() + "</build_time>\n  <action>" + action + "</action>\n" + logUrl + "</assert>";
    }

    // Fails when another datagram has come: the next one is the one sent here.
    void expectNoMore() {
        NS_CORE::Udp4Socket socket;
        ASSERT_TRUE(socket.open(0, NS_CORE::kAnyAddress));
        ASSERT_TRUE(socket.send("127.0.0.1", collector.port(), "mark", 4));
        EXPECT_EQ(collector.receive().bytes, "mark");
    }
};
