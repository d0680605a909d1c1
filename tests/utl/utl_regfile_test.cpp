#include "utl/utl_regfile.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <ostream>

#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"
#include "utl/utl_registry.h"

using NS_UTL::RegFile;
namespace RegType = NS_UTL::RegType;

namespace NS_UTL {

void PrintTo(const RegFile::Value& value, std::ostream* out) {
    *out << "type " << value.type << " bytes " << testing::PrintToString(value.bytes);
}

} // namespace NS_UTL

namespace {

const std::string kHeader = "Windows Registry Editor Version 5.00\n";
const std::string kKey = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Test";

// A file whose lines stand under one key, from line 3 on.
std::string underKey(const std::string& lines) {
    return kHeader + "[" + kKey + "]\n" + lines;
}

RegFile parsed(const std::string& file) {
    RegFile registry;
    RegFile::Error error;
    EXPECT_TRUE(registry.parse(file, &error)) << "line " << error.line << ": " << error.reason;
    EXPECT_EQ(error.line, 0);
    return registry;
}

// The value "v" of the key, or one of type 0xdead.
RegFile::Value valueOf(const std::string& file, const std::string& name = "v") {
    const RegFile registry = parsed(file);
    const RegFile::Value* value = registry.findValue(kKey, name);
    return value != nullptr ? *value : RegFile::Value{0xdead, ""};
}

RegFile::Value sz(const std::string& text) {
    return {RegType::Sz, text + '\0'};
}

// "LINE: REASON" of a file that must not pass, and must leave nothing behind.
std::string errorOf(const std::string& file) {
    RegFile registry = parsed(underKey("\"v\"=\"before\"\n"));
    RegFile::Error error;
    EXPECT_FALSE(registry.parse(file, &error));
    EXPECT_FALSE(registry.hasKey("HKLM"));
    return std::to_string(error.line) + ": " + error.reason;
}

std::string utf16(const std::u16string& text) {
    std::string bytes = "\xff\xfe";
    for (const char16_t unit : text) {
        bytes += static_cast<char>(unit & 0xff);
        bytes += static_cast<char>(unit >> 8);
    }
    return bytes;
}

} // namespace

TEST(RegFile, ReadsQuotedTextWithItsEscapesAndOneTerminator) {
    EXPECT_EQ(valueOf(underKey(R"("v"="C:\\Program Files\\\"Keri\"\\")")), sz(R"(C:\Program Files\"Keri"\)"));
    EXPECT_EQ(valueOf(underKey("\"v\"=\"\"\n")), sz(""));
}

TEST(RegFile, ReadsEveryKindOfData) {
    EXPECT_EQ(valueOf(underKey("\"v\"=dword:0000002a\n")),
              (RegFile::Value{RegType::Dword, std::string("\x2a\0\0\0", 4)}));
    EXPECT_EQ(valueOf(underKey("\"v\"=dword:FfEeDdCc\n")), (RegFile::Value{RegType::Dword, "\xcc\xdd\xee\xff"}));
    EXPECT_EQ(valueOf(underKey("\"v\"=dword:7\n")), (RegFile::Value{RegType::Dword, std::string("\7\0\0\0", 4)}));
    EXPECT_EQ(valueOf(underKey("\"v\"=hex:00,ff,A0\n")),
              (RegFile::Value{RegType::Binary, std::string("\0\xff\xa0", 3)}));
    EXPECT_EQ(valueOf(underKey("\"v\"=hex:\n")), (RegFile::Value{RegType::Binary, ""}));
    EXPECT_EQ(valueOf(underKey("\"v\"=hex(0):01\n")), (RegFile::Value{RegType::None, "\x01"}));
    EXPECT_EQ(valueOf(underKey("\"v\"=hex(b):01,02,03,04,05,06,07,08\n")),
              (RegFile::Value{11, "\x01\x02\x03\x04\x05\x06\x07\x08"}));
    EXPECT_EQ(valueOf(underKey("\"v\"=hex(ffff0012):41,00\n")), (RegFile::Value{0xffff0012, std::string("A\0", 2)}));
}

TEST(RegFile, HandsOutTheUtf16OfTextTypesAsUtf8WithItsTerminatorsAsStored) {
    EXPECT_EQ(valueOf(underKey("\"v\"=hex(1):41,00,42,00,00,00\n")), sz("AB"));
    EXPECT_EQ(valueOf(underKey("\"v\"=hex(1):41,00,42,00\n")), (RegFile::Value{RegType::Sz, "AB"}));
    EXPECT_EQ(valueOf(underKey("\"v\"=hex(1):41,00,00,00,00,00\n")),
              (RegFile::Value{RegType::Sz, std::string("A\0\0", 3)}));
    EXPECT_EQ(valueOf(underKey("\"v\"=hex(1):\n")), (RegFile::Value{RegType::Sz, ""}));
    EXPECT_EQ(valueOf(underKey("\"v\"=hex(2):25,00,41,00,25,00,00,00\n")),
              (RegFile::Value{RegType::ExpandSz, std::string("%A%\0", 4)}));
    EXPECT_EQ(valueOf(underKey("\"v\"=hex(7):41,00,00,00,42,00,00,00,00,00\n")),
              (RegFile::Value{RegType::MultiSz, std::string("A\0B\0\0", 5)}));
    // U+00E9, U+6E2C, U+1F511, a surrogate alone, and a byte too many.
    EXPECT_EQ(valueOf(underKey("\"v\"=hex(1):e9,00,2c,6e,3d,d8,11,dd,00,d8,41\n")),
              (RegFile::Value{RegType::Sz, "\xc3\xa9\xe6\xb8\xac\xf0\x9f\x94\x91\xef\xbf\xbd"}));
}

TEST(RegFile, TakesTheTextBytesOfTheOldFormatAsTheyStand) {
    const std::string old = "REGEDIT4\r\n\r\n[" + kKey + "]\r\n";
    EXPECT_EQ(valueOf(old + "\"v\"=hex(2):25,41,25,00\r\n"),
              (RegFile::Value{RegType::ExpandSz, std::string("%A%\0", 4)}));
    EXPECT_EQ(valueOf(old + "\"v\"=\"text\"\r\n"), sz("text"));
}

TEST(RegFile, ContinuesBytesOnFurtherLines) {
    EXPECT_EQ(valueOf(underKey("\"v\"=hex:01,02,\\\n  03,\\ \t\n\t04\n\"w\"=dword:1\n")),
              (RegFile::Value{RegType::Binary, "\x01\x02\x03\x04"}));
    EXPECT_EQ(valueOf(underKey("\"v\"=hex:01,\\\r\n  02\r\n")), (RegFile::Value{RegType::Binary, "\x01\x02"}));
    EXPECT_EQ(valueOf(underKey("\"v\"=hex:\\\n  02,\n")), (RegFile::Value{RegType::Binary, "\x02"}));
    EXPECT_EQ(valueOf(underKey("\"v\"=hex:01,\\ ; more below\n  02\n")), (RegFile::Value{RegType::Binary, "\x01\x02"}));
}

TEST(RegFile, ReadsTheDefaultValueUnderTheEmptyName) {
    EXPECT_EQ(valueOf(underKey("@=\"default\"\n"), ""), sz("default"));
}

TEST(RegFile, IgnoresTheCaseOfKeyAndValueNames) {
    const RegFile registry = parsed(kHeader + "[hkey_Local_Machine\\Software\\TEST]\n\"InstallLocation\"=\"x\"\n");
    EXPECT_TRUE(registry.hasKey("HKEY_LOCAL_MACHINE\\SOFTWARE\\test"));
    ASSERT_NE(registry.findValue(kKey, "INSTALLlocation"), nullptr);
    EXPECT_EQ(registry.findValue(kKey, "InstallLocation2"), nullptr);
    EXPECT_EQ(registry.findValue(kKey + "2", "InstallLocation"), nullptr);
}

TEST(RegFile, KnowsTheShortRootNames) {
    EXPECT_EQ(valueOf(kHeader + "[HKLM\\Software\\Test]\n\"v\"=\"x\"\n"), sz("x"));
    const RegFile registry = parsed(kHeader + "[HKCU\\A]\n[HKEY_CLASSES_ROOT\\B]\n[hku\\C]\n[HKCC\\D]\n");
    EXPECT_TRUE(registry.hasKey("HKEY_CURRENT_USER\\A"));
    EXPECT_TRUE(registry.hasKey("HKCR\\B"));
    EXPECT_TRUE(registry.hasKey("HKEY_USERS\\C"));
    EXPECT_TRUE(registry.hasKey("HKEY_CURRENT_CONFIG\\D"));
    EXPECT_FALSE(registry.hasKey("HKLM\\A"));
    EXPECT_FALSE(registry.hasKey("HKNONE\\A"));
    EXPECT_EQ(registry.findValue("HKNONE\\A", ""), nullptr);
}

TEST(RegFile, KnowsTheParentsOfItsKeysAndNoOthers) {
    const RegFile registry = parsed(kHeader + "[HKLM\\A\\B C\\D\\]\n");
    EXPECT_TRUE(registry.hasKey("HKLM\\A\\B C\\D"));
    EXPECT_TRUE(registry.hasKey("HKLM\\A\\B C\\"));
    EXPECT_TRUE(registry.hasKey("HKLM\\A"));
    EXPECT_TRUE(registry.hasKey("HKLM"));
    EXPECT_FALSE(registry.hasKey("HKLM\\A\\B"));
    EXPECT_FALSE(registry.hasKey("HKLM\\A\\B C\\D\\E"));
    EXPECT_FALSE(registry.hasKey(""));
}

TEST(RegFile, LetsLaterLinesWin) {
    EXPECT_EQ(valueOf(underKey("\"v\"=\"1\"\n\"V\"=dword:2\n[HKLM\\X]\n[" + kKey + "]\n\"v\"=\"3\"\n")), sz("3"));
}

TEST(RegFile, DeletesValues) {
    EXPECT_EQ(valueOf(underKey("\"v\"=\"1\"\n\"V\"=-\n\"never there\"=-\n")).type, 0xdeadU);
    EXPECT_EQ(valueOf(underKey("@=\"1\"\n@=- ; gone\n"), "").type, 0xdeadU);
}

TEST(RegFile, DeletesAKeyWithAllBelowItAndNothingElse) {
    const RegFile registry = parsed(kHeader +
                                    "[HKLM\\A\\B]\n\"v\"=\"1\"\n[HKLM\\A\\B\\C]\n[HKLM\\A\\B2]\n[HKLM\\A\\B-]\n"
                                    "[-hklm\\a\\b]\n\"v\"=\"ignored\"\n");
    EXPECT_FALSE(registry.hasKey("HKLM\\A\\B"));
    EXPECT_FALSE(registry.hasKey("HKLM\\A\\B\\C"));
    EXPECT_TRUE(registry.hasKey("HKLM\\A\\B2"));
    EXPECT_TRUE(registry.hasKey("HKLM\\A\\B-"));
    EXPECT_TRUE(parsed(kHeader + "[HKLM\\A\\B]\n[-HKLM\\A\\B]\n").hasKey("HKLM\\A"));
    EXPECT_FALSE(parsed(kHeader + "[HKLM\\A\\B]\n[-HKLM\\A]\n").hasKey("HKLM\\A\\B"));
}

TEST(RegFile, ReadsAllItsEncodingsAndLineEnds) {
    const std::string value = "\"v\"=\"\xc3\xa9\xf0\x9f\x94\x91\"";
    const RegFile::Value expected = sz("\xc3\xa9\xf0\x9f\x94\x91");
    EXPECT_EQ(valueOf(underKey(value)), expected);
    EXPECT_EQ(valueOf("\xef\xbb\xbf" + underKey(value + "\n")), expected);
    EXPECT_EQ(valueOf("Windows Registry Editor Version 5.00 \r\n\r\n[" + kKey + "]\r\n" + value + "\r\n\r\n"),
              expected);
    // Cut off between the two characters of a line's end; a carriage return elsewhere ends nothing.
    EXPECT_TRUE(parsed(kHeader + "[HKLM\\A]\r").hasKey("HKLM\\A"));
    EXPECT_EQ(valueOf(underKey(value + "\r")), expected);
    EXPECT_EQ(errorOf(underKey(value + "\r\r\n")), "3: the value's data is not followed by the line's end");
    EXPECT_EQ(valueOf(utf16(u"Windows Registry Editor Version 5.00\r\n\r\n[HKLM\\SOFTWARE\\Test]\r\n"
                            u"\"v\"=\"\u00e9\U0001F511\"\r\n")),
              expected);
}

TEST(RegFile, SkipsCommentsAndBlanks) {
    EXPECT_EQ(
        valueOf(kHeader + "; first\n\n \t; second [HKLM]\n[" + kKey + "] ; of [ours]\n\t\"v\" = \"x;y\" ; third\n"),
        sz("x;y"));
    EXPECT_EQ(valueOf(underKey("\"v\"=dword:1;\n")).type, RegType::Dword);
    EXPECT_EQ(valueOf(underKey("\"v\"=hex:01 , 02 ; two\n")).bytes, "\x01\x02");
}

TEST(RegFile, LetsKeyNamesHoldBracketsAndTextHoldLineBreaks) {
    EXPECT_TRUE(parsed(kHeader + "[HKLM\\A]B[]\n").hasKey("HKLM\\A]B["));
    EXPECT_EQ(valueOf(underKey("\"v\"=\"one\r\ntwo\"\n")), sz("one\r\ntwo"));
}

TEST(RegFile, AcceptsAFileOfNothingButItsHeader) {
    EXPECT_FALSE(parsed("REGEDIT4").hasKey("HKLM"));
    EXPECT_FALSE(parsed(kHeader).hasKey("HKLM"));
    EXPECT_FALSE(parsed("REGEDIT4\r").hasKey("HKLM"));
}

TEST(RegFile, SaysWhichLineIsWrongAndWhy) {
    const std::string noHeader = R"(1: this is neither "Windows Registry Editor Version 5.00" nor "REGEDIT4")";
    EXPECT_EQ(errorOf(""), noHeader);
    EXPECT_EQ(errorOf("\n" + kHeader), noHeader);
    EXPECT_EQ(errorOf("REGEDIT5\n"), noHeader);
    EXPECT_EQ(errorOf("\xff\xfe"), noHeader);
    EXPECT_EQ(errorOf("\xfe\xff" + kHeader), noHeader);
    EXPECT_EQ(errorOf(std::string(100, '\0')), noHeader);
    EXPECT_EQ(errorOf("MZ\x90"), noHeader);
    EXPECT_EQ(errorOf(kHeader + "\n[HKLM\\A"), "3: the key has no closing bracket at its end");
    EXPECT_EQ(errorOf(kHeader + "[HKLM\\A] B\n"), "2: the key has no closing bracket at its end");
    EXPECT_EQ(errorOf(kHeader + "[HKEY_LOCAL\\A]\n"), "2: the key 'HKEY_LOCAL\\A' has an unknown root");
    EXPECT_EQ(errorOf(kHeader + "[]\n"), "2: the key '' has an unknown root");
    EXPECT_EQ(errorOf(kHeader + "\"v\"=\"x\"\n"), "2: a value stands before the first key");
    EXPECT_EQ(errorOf(underKey("v=\"x\"\n")), "3: this is neither a key nor a value nor a comment");
    EXPECT_EQ(errorOf(underKey("\"v\"\n")), "3: the value's name is not followed by '='");
    EXPECT_EQ(errorOf(underKey("\"v\"=\n")), "3: the value's data is neither quoted text nor dword:, hex: or '-'");
    EXPECT_EQ(errorOf(underKey("\"v\"=x\n")), "3: the value's data is neither quoted text nor dword:, hex: or '-'");
    EXPECT_EQ(errorOf(underKey("\"v\"=dword:\n")), "3: dword: is not followed by hexadecimal digits");
    EXPECT_EQ(errorOf(underKey("\"v\"=dword:123456789\n")), "3: the value's data is not followed by the line's end");
    EXPECT_EQ(errorOf(underKey("\"v\"=hex():00\n")), "3: hex( is not followed by a type and '):'");
    EXPECT_EQ(errorOf(underKey("\"v\"=hex(1:00\n")), "3: hex( is not followed by a type and '):'");
    EXPECT_EQ(errorOf(underKey("\"v\"=hex(123456789):00\n")), "3: hex( is not followed by a type and '):'");
    EXPECT_EQ(errorOf(underKey("\"v\"=hex:0g\n")), "3: the value's data is not followed by the line's end");
    EXPECT_EQ(errorOf(underKey("\"v\"=hex:00,\\\n,\n")), "4: a byte is not written as two hexadecimal digits");
    EXPECT_EQ(errorOf(underKey("\"v\"=hex:00,\\ x\n")),
              "3: a backslash between bytes is not followed by the line's end");
    EXPECT_EQ(errorOf(underKey("\"v\"=hex:00,\\\n")), "4: the list of bytes goes on behind the end of the file");
    EXPECT_EQ(errorOf(underKey("\"v\"=\"x\" y\n")), "3: the value's data is not followed by the line's end");
    EXPECT_EQ(errorOf(underKey("\"v\"=-x\n")), "3: the value's data is not followed by the line's end");
    EXPECT_EQ(errorOf(underKey("\"v\"=\"C:\\Keri\"\n")),
              "3: a backslash in quoted text is not followed by another one or by a quote");
    EXPECT_EQ(errorOf(underKey("\"v\"=\"x\\")),
              "3: a backslash in quoted text is not followed by another one or by a quote");
    EXPECT_EQ(errorOf(underKey("\"a\"=\"x\"\n\"v\"=\"x\n\n")), "4: the quoted text has no closing quote");
    EXPECT_EQ(errorOf(underKey("\"v\"=\"x\n\"w\"=\"y\"\n")), "3: the value's data is not followed by the line's end");
    EXPECT_EQ(errorOf(underKey("\"v=x\n")), "3: the quoted text has no closing quote");
    // CRLF and lines inside text and bytes count once each.
    EXPECT_EQ(errorOf("REGEDIT4\r\n\r\n[HKLM\\A]\r\n\"a\"=\"1\r\n2\"\r\n\"b\"=hex:00,\\\r\n 01\r\nwrong\r\n"),
              "8: this is neither a key nor a value nor a comment");
}

TEST(RegFile, StaysFastOnTextsMadeToBeSlow) {
    constexpr size_t kSize = 4 * 1024 * 1024;
    std::string bytes = underKey("\"v\"=hex:");
    while (bytes.size() < kSize) bytes += "00,";
    EXPECT_GT(valueOf(bytes).bytes.size(), 1'000'000U);
    EXPECT_NE(errorOf(kHeader + "[" + std::string(kSize, ']') + "x"), "");
    EXPECT_NE(errorOf(underKey("\"v\"=\"" + std::string(kSize, '\n'))), "");
    EXPECT_TRUE(parsed(kHeader + "[HKLM" + std::string(kSize, '\\') + "]").hasKey("HKLM"));
}

TEST(RegFile, LoadsAFile) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "a.reg", underKey("\"v\"=\"x\"\n"));
    test::LogRecorder log;
    RegFile registry;
    ASSERT_TRUE(registry.load(dir.file("a.reg")));
    ASSERT_NE(registry.findValue(kKey, "v"), nullptr);
    EXPECT_TRUE(log.lines().empty());
}

TEST(RegFile, SaysNothingOfAMissingFile) {
    const test::TempDir dir;
    test::LogRecorder log;
    RegFile registry = parsed(underKey(""));
    EXPECT_FALSE(registry.load(dir.file("missing.reg")));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(registry.hasKey(kKey));
    EXPECT_TRUE(log.lines().empty());
}

TEST(RegFile, NamesTheFileTheLineAndTheReasonOfABrokenOne) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "a.reg", underKey("\"v\"=\"C:\\Keri\"\n"));
    test::LogRecorder log;
    RegFile registry;
    EXPECT_FALSE(registry.load(dir.file("a.reg")));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"WARN UTL::RegFile::load - '" + dir.file("a.reg") +
                                        "' is no registry export: line 3: a backslash in quoted text is not followed "
                                        "by another one or by a quote"}));
}

TEST(RegFile, RefusesAFileThatIsTooLarge) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "a.reg", kHeader);
    std::filesystem::resize_file(dir.path() / "a.reg", static_cast<uintmax_t>(RegFile::kMaxFileSize) + 1);
    test::LogRecorder log;
    RegFile registry;
    EXPECT_FALSE(registry.load(dir.file("a.reg")));
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"WARN UTL::RegFile::load - failed reading '" + dir.file("a.reg") +
                                                     "': File too large"}));
}
