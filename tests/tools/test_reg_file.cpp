// The .reg format: what is read, what is refused and where, and that what is written is read again.
#include <gtest/gtest.h>

#include "platform/utf.h"
#include "tools/reg_file.h"

namespace kv::test {

namespace {

constexpr const char* header = "Windows Registry Editor Version 5.00\n";

std::string Utf16(std::string_view utf8, bool bigEndian) {
    std::string bytes = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
    for (const char16_t unit : platform::WideFromUtf8(utf8)) {
        const char halves[] = {static_cast<char>(unit & 0xFF), static_cast<char>(unit >> 8)};
        bytes += halves[bigEndian ? 1 : 0];
        bytes += halves[bigEndian ? 0 : 1];
    }
    return bytes;
}

/// The exported form of a file, in UTF-8 without its mark, header and carriage returns.
std::string Printed(const RegFile& file) {
    const std::string bytes = PrintRegFile(file);
    EXPECT_EQ(bytes.substr(0, 2), "\xFF\xFE");
    std::u16string wide;
    for (std::size_t i = 2; i + 1 < bytes.size(); i += 2) {
        wide +=
            static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) | static_cast<unsigned char>(bytes[i + 1]) << 8);
    }
    std::string text = platform::Utf8FromWide(wide);
    std::erase(text, '\r');
    EXPECT_TRUE(text.starts_with(header));
    return text.substr(std::min(text.size(), std::string_view(header).size()));
}

TEST(RegFile, RowsAreReadAndWrittenAgain) {
    struct Row {
        const char* title;
        const char* line;
        const char* printed;  // null: as it was read
    };
    const Row rows[] = {
        {"text", R"("name"="data")", nullptr},
        {"default value", R"(@="data")", nullptr},
        {"escapes", R"("a\\b\"c"="d:\\e \"f\"")", nullptr},
        {"tab", "\"a\"=\"b\tc\"", nullptr},
        {"text over two lines", "\"a\"=\"b\nc\"", R"("a"=hex(1):62,00,0a,00,63,00,00,00)"},
        {"empty text", R"("a"="")", nullptr},
        {"text of no bytes", R"("a"=hex(1):)", nullptr},
        {"text with half a terminator", R"("a"=hex(1):41,00,00)", R"("a"="A")"},
        {"text without a terminator", R"("a"=hex(1):41,00)", R"("a"="A")"},
        {"text of an odd size", R"("a"=hex(1):41,00,42)", nullptr},
        {"text with more behind", R"("a"=hex(1):41,00,00,00,42,00,00,00)", nullptr},
        {"number", R"("a"=dword:0000001e)", nullptr},
        {"short number", R"("a"=DWORD:1E)", R"("a"=dword:0000001e)"},
        {"number as bytes", R"("a"=hex(4):1e,00,00,00)", R"("a"=dword:0000001e)"},
        {"bytes", R"("a"=hex:00,ff)", nullptr},
        {"bytes of one digit, with blanks", R"( "a" = hex:1, f ,0A )", R"("a"=hex:01,0f,0a)"},
        {"expandable text", R"("a"=hex(2):25,00,00,00)", nullptr},
        {"list", R"("a"=hex(7):61,00,00,00,00,00)", nullptr},
        {"64-bit number", R"("a"=hex(b):01,00,00,00,00,00,00,00)", nullptr},
        {"bytes over lines", "\"a\"=hex:01,\\\n  02,\\\n03\\\n,04", R"("a"=hex:01,02,03,04)"},
        {"comment behind", R"("a"=dword:1 ; one)", R"("a"=dword:00000001)"},
        {"deletion", R"("a"=-)", nullptr},
        {"long bytes are wrapped",
         R"("name"=hex:00,01,02,03,04,05,06,07,08,09,0a,0b,0c,0d,0e,0f,10,11,12,13,14,15,16,17)",
         "\"name\"=hex:00,01,02,03,04,05,06,07,08,09,0a,0b,0c,0d,0e,0f,10,11,12,13,14,15,\\\n  16,17"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.title);
        const std::string text = std::string(header) + "\n[HKEY_LOCAL_MACHINE\\Key]\n" + row.line + "\n\n";
        RegFile file;
        RegFileError error;
        ASSERT_TRUE(ParseRegFile(text, file, error)) << error.line << ": " << error.message;
        const std::string printed = Printed(file);
        EXPECT_EQ(printed,
                  std::string("\n[HKEY_LOCAL_MACHINE\\Key]\n") + (row.printed ? row.printed : row.line) + "\n\n");
        for (const std::string& form : {Utf16(text, false), Utf16(text, true), "\xEF\xBB\xBF" + text}) {
            RegFile again;
            EXPECT_TRUE(ParseRegFile(form, again, error)) << error.message;
            EXPECT_EQ(Printed(again), printed);
        }
        for (std::size_t cut = 0; cut < text.size(); ++cut) {
            ParseRegFile(text.substr(0, cut), file, error);  // whatever it says, it ends
        }
    }
}

TEST(RegFile, KeysInTheirOrder) {
    const std::string text = std::string(header) +
                             "[HKLM\\A]\r\n; comment\r\n\r\n[-hkey_local_machine\\B\\C]\r[HKEY_LOCAL_MACHINE]\n"
                             "\"v\"=\"w\"\n[HKEY_LOCAL_MACHINE\\odd]name] ";
    RegFile file;
    RegFileError error;
    ASSERT_TRUE(ParseRegFile(text, file, error)) << error.line << ": " << error.message;
    EXPECT_EQ(Printed(file),
              "\n[HKEY_LOCAL_MACHINE\\A]\n\n[-HKEY_LOCAL_MACHINE\\B\\C]\n\n[HKEY_LOCAL_MACHINE]\n\"v\"=\"w\"\n"
              "\n[HKEY_LOCAL_MACHINE\\odd]name]\n\n");
}

TEST(RegFile, MalformedFilesAreRefusedWithTheirLine) {
    struct Row {
        const char* title;
        std::string body;  // after the header's line
        std::size_t line;
        const char* message;  // a part of it
    };
    const std::string key = "[HKEY_LOCAL_MACHINE\\K]\n";
    const Row rows[] = {
        {"no line of the format", key + "what?\n", 3, "a line must be"},
        {"value before a key", "\"a\"=\"b\"\n", 2, "before the first [key]"},
        {"value under a deleted key", "[-HKLM\\K]\n\"a\"=\"b\"\n", 3, "to be deleted"},
        {"another root", "\n\n[HKEY_CURRENT_USER\\Software]\n", 4, "not 'HKEY_CURRENT_USER'"},
        {"no root", "[Software]\n", 2, "not 'Software'"},
        {"open quote", key + "\"a\"=\"b\n\"c\"=\"d\"\n", 4, "after the data"},
        {"open quote to the end", key + "\r\n\"a\"=\"b\n\n", 4, "closing quote"},
        {"single backslash", key + "\"a\"=\"c:\\temp\"\n", 3, "backslash"},
        {"control character in a name", key + "\"a\x01\"=\"b\"\n", 3, "control character"},
        {"no equals sign", key + "\"a\" \"b\"\n", 3, "="},
        {"unknown data", key + "\"a\"=word:1\n", 3, "the data must be"},
        {"number too long", key + "\"a\"=dword:123456789\n", 3, "hexadecimal"},
        {"byte too long", key + "\"a\"=hex:123\n", 3, "byte"},
        {"comma at the end", key + "\"a\"=hex:12,\n", 3, "byte"},
        {"error in a line that goes on", key + "\"a\"=hex:12,\\\n13,\\\nzz\n", 5, "byte"},
        {"backslash within a line", key + "\"a\"=hex:12,\\ 13\n", 3, "backslash"},
        {"file ends where it should go on", key + "\"a\"=hex:12,\\", 3, "the file ends"},
        {"no type", key + "\"a\"=hex():00\n", 3, "number of a type"},
        {"not UTF-8", key + "\"a\"=\"\xFC\"\n", 3, "UTF-8"},
        {"zero character", key + std::string("\"a\"=\"\0\"\n", 8), 3, "zero"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.title);
        RegFile file;
        RegFileError error;
        EXPECT_FALSE(ParseRegFile(header + row.body, file, error));
        EXPECT_EQ(error.line, row.line) << error.message;
        EXPECT_NE(error.message.find(row.message), std::string::npos) << error.message;
        EXPECT_TRUE(file.empty());
    }
    RegFile file;
    RegFileError error;
    for (const std::string& start : {std::string(), std::string("REGEDIT4\n"), std::string("\n") + header}) {
        EXPECT_FALSE(ParseRegFile(start, file, error));
        EXPECT_EQ(error.line, 1U);
    }
    EXPECT_FALSE(ParseRegFile(Utf16(header, false) + "x", file, error));
    EXPECT_EQ(error.line, 2U);
    EXPECT_FALSE(ParseRegFile(Utf16(header + key, false) + std::string("\"\0a\0\0\xD8\"\0=\0-\0", 12), file, error))
        << "half a character as a name";
    EXPECT_FALSE(ParseRegFile(Utf16(header, false).substr(2), file, error)) << "UTF-16 without its mark";
}

}  // namespace

}  // namespace kv::test
