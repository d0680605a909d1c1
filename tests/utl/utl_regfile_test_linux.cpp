#include <gtest/gtest.h>

#include <cerrno>
#include <ostream>

#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"
#include "utl/utl_regfile_linux.h"
#include "utl/utl_regtype.h"

namespace NS_UTL {

void PrintTo(const RegFile::Value& value, std::ostream* out) {
    *out << "type " << value.type << " bytes " << testing::PrintToString(value.bytes);
}

namespace {

const std::string kHeader = "Windows Registry Editor Version 5.00\n";
const std::string kKey = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Test";

// A file whose lines stand under one key, from line 3 on.
std::string underKey(const std::string& lines) {
    return kHeader + "[" + kKey + "]\n" + lines;
}

// The key's value "v", or one of type 0xdead.
RegFile::Value valueOf(const std::string& file, const std::string& name = "v") {
    RegFile registry;
    EXPECT_EQ(registry.parse(file), 0) << file;
    const RegFile::Value* value = registry.findValue(kKey, name);
    return value ? *value : RegFile::Value{0xdead, ""};
}

RegFile::Value sz(const std::string& text) {
    return {RegType::Sz, text + '\0'};
}

template <size_t size>
std::string bytes(const char (&literal)[size]) {
    return {literal, size - 1};
}

TEST(RegFile, ReadsEveryKindOfData) {
    const std::pair<const char*, RegFile::Value> cases[] = {
        {R"("C:\\Program Files\\\"Keri\"\\")", sz(R"(C:\Program Files\"Keri"\)")},
        {"\"\"", sz("")},
        {"\"one\r\ntwo\"", sz("one\r\ntwo")},
        {"dword:0000002a", {RegType::Dword, bytes("\x2a\0\0\0")}},
        {"dword:FfEeDdCc", {RegType::Dword, "\xcc\xdd\xee\xff"}},
        {"hex:00,ff,A0", {RegType::Binary, bytes("\0\xff\xa0")}},
        {"hex:", {RegType::Binary, ""}},
        {"hex:4142,43", {RegType::Binary, "ABC"}},
        {"hex(0):01", {RegType::None, "\x01"}},
        {"hex(b):01,02,03,04,05,06,07,08", {11, "\x01\x02\x03\x04\x05\x06\x07\x08"}},
        {"hex(ffff0012):41,00", {0xffff0012, bytes("A\0")}},
        {"hex:01,02,\\\n  03,\\\r\n  04", {RegType::Binary, "\x01\x02\x03\x04"}},
        // Text types hold UTF-16, with terminators as stored.
        {"hex(1):41,00,42,00,00,00", sz("AB")},
        {"hex(1):41,00,42,00", {RegType::Sz, "AB"}},
        {"hex(1):", {RegType::Sz, ""}},
        {"hex(2):25,00,41,00,25,00,00,00", {RegType::ExpandSz, bytes("%A%\0")}},
        {"hex(7):41,00,00,00,42,00,00,00,00,00", {RegType::MultiSz, bytes("A\0B\0\0")}},
        // U+00E9, U+6E2C, U+1F511, a surrogate alone, and a byte too many.
        {"hex(1):e9,00,2c,6e,3d,d8,11,dd,00,d8,41", {RegType::Sz, "\xc3\xa9\xe6\xb8\xac\xf0\x9f\x94\x91\xef\xbf\xbd"}},
    };
    for (const auto& [data, value] : cases) {
        EXPECT_EQ(valueOf(underKey("\"v\"=" + std::string(data) + "\n\"w\"=dword:1\n")), value) << data;
        EXPECT_EQ(valueOf(underKey("@=" + std::string(data)), ""), value) << data;
    }
}

TEST(RegFile, IgnoresTheCaseOfNamesAndLetsLaterLinesWin) {
    RegFile registry;
    ASSERT_EQ(registry.parse(kHeader + "[HKEY_Local_Machine\\Software\\A]B[]\n\"Name\"=\"1\"\n; a comment\n\n"
                                       "[HKEY_LOCAL_MACHINE\\Other]\n\"name\"=\"2\"\n"
                                       "[HKEY_LOCAL_MACHINE\\SOFTWARE\\A]B[]\n\"NAME\"=\"3\"\n"),
              0);
    EXPECT_TRUE(registry.hasKey("hkey_local_machine\\software\\a]b["));
    EXPECT_FALSE(registry.hasKey("HKEY_LOCAL_MACHINE\\SOFTWARE"));
    ASSERT_TRUE(registry.findValue("HKEY_LOCAL_MACHINE\\SOFTWARE\\A]B[", "nAME"));
    EXPECT_EQ(*registry.findValue("HKEY_LOCAL_MACHINE\\SOFTWARE\\A]B[", "nAME"), sz("3"));
    EXPECT_FALSE(registry.findValue("HKEY_LOCAL_MACHINE\\SOFTWARE\\A]B[", "name2"));
    EXPECT_FALSE(registry.findValue("HKEY_LOCAL_MACHINE\\Nowhere", "name"));
    ASSERT_EQ(registry.parse(kHeader), 0);
    EXPECT_FALSE(registry.hasKey("HKEY_LOCAL_MACHINE\\Other"));
}

TEST(RegFile, ReadsAllItsEncodingsAndLineEnds) {
    const std::string value = "\"v\"=\"\xc3\xa9\xf0\x9f\x94\x91\"";
    const RegFile::Value expected = sz("\xc3\xa9\xf0\x9f\x94\x91");
    EXPECT_EQ(valueOf(underKey(value)), expected);
    EXPECT_EQ(valueOf("\xef\xbb\xbf" + underKey(value + "\n")), expected);
    EXPECT_EQ(valueOf("Windows Registry Editor Version 5.00\r\n\r\n[" + kKey + "]\r\n" + value + "\r\n\r\n"), expected);
    std::string utf16 = "\xff\xfe";
    for (const char16_t unit :
         std::u16string(u"Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Test]\r\n"
                        u"\"v\"=\"\u00e9\U0001F511\"\r\n"))
        utf16 += {static_cast<char>(unit & 0xff), static_cast<char>(unit >> 8)};
    EXPECT_EQ(valueOf(utf16), expected);
}

TEST(RegFile, SaysWhichLineIsWrongAndHoldsNothingThen) {
    const std::pair<std::string, int32_t> cases[] = {
        {"", 1},
        {"\n" + kHeader, 1},
        {"REGEDIT4\n", 1},
        {"\xff\xfe", 1},
        {"MZ\x90", 1},
        {kHeader + "\n[HKEY_LOCAL_MACHINE\\A", 3},
        {kHeader + "[A] B\n", 2},
        {kHeader + "[\n", 2},
        {kHeader + "[A]\n[-A]\n", 3},
        {kHeader + "\"v\"=\"x\"\n", 2},
        {underKey("v=\"x\"\n"), 3},
        {underKey("\"v\"\n"), 3},
        {underKey("\"v\"=\n"), 3},
        {underKey("\"v\"=-\n"), 3},
        {underKey("\"v\"=dword:\n"), 3},
        {underKey("\"v\"=dword:012345678\n"), 3},
        {underKey("\"v\"=hex():00\n"), 3},
        {underKey("\"v\"=hex(1:00\n"), 3},
        {underKey("\"v\"=hex(012345678):00\n"), 3},
        {underKey("\"a\"=\"x\"\n\"v\"=hex:00,\\\n,0g\n"), 4},
        {underKey("\"v\"=hex:00,\\ x\n"), 3},
        {underKey("\"v\"=\"x\" y\n"), 3},
        {underKey("\"v\"=\"C:\\Keri\"\n"), 3},
        {underKey("\"v\"=\"x\\"), 3},
        {underKey("\"v\"=\"x\n\"w\"=\"y\"\n"), 3},
        {underKey("\"v\"=\"1\r\n2\"\r\n\"b\"=hex:00,\\\r\n  01\r\nwrong\r\n"), 7},
        {underKey("\"v\"=\"" + std::string(1000, '\n')), 3},
    };
    for (const auto& [file, line] : cases) {
        RegFile registry;
        EXPECT_EQ(registry.parse(file), line) << file;
        EXPECT_FALSE(registry.hasKey(kKey));
    }
}

TEST(RegFile, LogsWhyAFileCannotBeLoadedUnlessItIsMissing) {
    const test::TempDir dir;
    RegFile registry;
    const auto load = [&](const std::string& name) {
        const test::LogRecorder log;
        const bool isLoaded = registry.load(dir.file(name));
        EXPECT_EQ(registry.hasKey(kKey), isLoaded);
        return log.lines();
    };
    const auto logged = [&](const std::string& name, const std::string& reason) {
        return std::vector{"WARN UTL::RegFile::load - failed reading '" + dir.file(name) + "': " + reason};
    };
    test::writeFile(dir.path() / "good", underKey(""));
    errno = 0;
    EXPECT_TRUE(load("good").empty());
    EXPECT_EQ(errno, 0);
    EXPECT_TRUE(load("missing").empty());
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(load(""), logged("", "Is a directory"));
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(load("good/x"), logged("good/x", "Not a directory"));
    EXPECT_EQ(errno, ENOTDIR);
    test::writeFile(dir.path() / "bad", underKey("wrong\n"));
    EXPECT_EQ(load("bad"), logged("bad", "line 3 is not a registry export's"));
    test::writeFile(dir.path() / "empty", "");
    EXPECT_EQ(load("empty"), logged("empty", "line 1 is not a registry export's"));
    EXPECT_EQ(errno, EINVAL);
    for (const auto& [size, isGood] : {std::pair{1'048'576U, true}, {1'048'577U, false}}) {
        test::writeFile(dir.path() / "large", underKey(std::string(size - underKey("").size(), '\n')));
        EXPECT_EQ(load("large"), isGood ? std::vector<std::string>() : logged("large", "File too large"));
    }
    EXPECT_EQ(errno, EFBIG);
}

} // namespace
} // namespace NS_UTL
