// The .reg format: reading, writing, and refusals with their line.
#include <gtest/gtest.h>

#include "foundation/file_utils.h"
#include "platform/utf.h"
#include "tools/kvreg/reg_file.h"

namespace kv::test {

namespace {

const std::string header = "Windows Registry Editor Version 5.00\n";
const std::string key = "[HKEY_LOCAL_MACHINE\\Key]\n";

std::string Utf16(std::string_view utf8) { return "\xFF\xFE" + Utf16LittleEndianBytes(platform::WideFromUtf8(utf8)); }

/// The exported form of a file, in UTF-8 without its mark, header and carriage returns.
std::string Printed(const RegFile& file) {
    const std::string bytes = PrintRegFile(file);
    EXPECT_EQ(bytes.substr(0, 2), "\xFF\xFE");
    std::string text = platform::Utf8FromWide(TextFromUtf16LittleEndian(std::string_view(bytes).substr(2)));
    std::erase(text, '\r');
    EXPECT_TRUE(text.starts_with(header));
    return text.substr(std::min(text.size(), header.size()));
}

TEST(RegFile, WritesWhatItHasRead) {
    const std::tuple<const char*, std::string, std::string> rows[] = {
        {"default value", R"(@="data")", ""},
        {"escapes and a tab", "\"a\\\\b\\\"c\"=\"d:\\\\e \\\"f\\\"\tg\"", ""},
        {"text over two lines", "\"a\"=\"b\nc\"", R"("a"=hex(1):62,00,0a,00,63,00,00,00)"},
        {"text without bytes", R"("a"=hex(1):)", ""},
        {"text with half a terminator", R"("a"=hex(1):41,00,00)", R"("a"="A")"},
        {"text of an odd size", R"("a"=hex(1):41,00,42)", ""},
        {"short number, comment behind", R"("a"=DWORD:1E ; one)", R"("a"=dword:0000001e)"},
        {"bytes of one digit, with blanks", R"( "a" = hex:1, f ,0A )", R"("a"=hex:01,0f,0a)"},
        {"bytes over lines", "\"a\"=hex:01,\\\n  02,\\\n03\\\n,04", R"("a"=hex:01,02,03,04)"},
        {"deletion", R"("a"=-)", ""},
        {"long bytes are wrapped",
         R"("name"=hex:00,01,02,03,04,05,06,07,08,09,0a,0b,0c,0d,0e,0f,10,11,12,13,14,15,16,17)",
         "\"name\"=hex:00,01,02,03,04,05,06,07,08,09,0a,0b,0c,0d,0e,0f,10,11,12,13,14,15,\\\n  16,17"},
        {"keys in any form", "[hklm\\A]\r\n; comment\r\n\r\n[-hkey_local_machine\\B\\C]\r[HKLM]\n[HKLM\\odd]name] ",
         "\n[HKEY_LOCAL_MACHINE\\A]\n\n[-HKEY_LOCAL_MACHINE\\B\\C]\n\n[HKEY_LOCAL_MACHINE]\n"
         "\n[HKEY_LOCAL_MACHINE\\odd]name]"},
    };
    // An empty third text: the line is printed unchanged.
    for (const auto& [title, line, other] : rows) {
        SCOPED_TRACE(title);
        const std::string text = header + "\n" + key + line + "\n\n";
        const std::string printed = "\n" + key + (other.empty() ? line : other) + "\n\n";
        RegFile file;
        RegFileError error;
        for (const std::string& form : {text, Utf16(text), "\xEF\xBB\xBF" + text}) {
            ASSERT_TRUE(ParseRegFile(form, file, error)) << error.line << ": " << error.message;
            EXPECT_EQ(Printed(file), printed);
        }
    }
}

TEST(RegFile, RefusesMalformedFilesWithTheirLine) {
    const std::tuple<const char*, std::string, std::size_t, const char*> rows[] = {
        {"a line without the format", header + key + "what?\n", 3, "a line must be"},
        {"value under a deleted key", header + "[-HKLM\\K]\n\"a\"=\"b\"\n", 3, "to be deleted"},
        {"deletion of the root", header + "[-HKLM]\n", 2, "the root itself"},
        {"another root", header + "\n\n[HKEY_CURRENT_USER\\Software]\n", 4, "not 'HKEY_CURRENT_USER'"},
        {"open quote", header + key + "\"a\"=\"b\n\"c\"=\"d\"\n", 4, "after the data"},
        {"error in a line that goes on", header + key + "\"a\"=hex:12,\\\n13,\\\nzz\n", 5, "byte"},
        {"file ends where it should go on", header + key + "\"a\"=hex:12,\\", 3, "the file ends"},
        {"not UTF-8", header + key + "\"a\"=\"\xFC\"\n", 3, "UTF-8"},
        {"zero character", header + key + std::string("\"a\"=\"\0\"\n", 8), 3, "zero"},
        {"the older form", "REGEDIT4\n", 1, "REGEDIT4"},
        {"half a character at the end", Utf16(header) + "x", 2, ""},
        {"half a pair as a name", Utf16(header + key) + std::string("\"\0\0\xD8\"\0=\0-\0", 10), 3, ""},
    };
    for (const auto& [title, bytes, line, message] : rows) {
        SCOPED_TRACE(title);
        RegFile file;
        RegFileError error;
        EXPECT_FALSE(ParseRegFile(bytes, file, error));
        EXPECT_EQ(error.line, line) << error.message;
        EXPECT_NE(error.message.find(message), std::string::npos) << error.message;
        EXPECT_TRUE(file.empty());
    }
}

}  // namespace

}  // namespace kv::test
