// Script output brought to UTF-16LE: every row whole, and cut in two at every byte.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "collection/script_output.h"
#include "foundation/file_utils.h"
#include "platform/utf.h"

namespace kv::test {
namespace {

using platform::ScriptOutputEncoding;
using namespace std::string_view_literals;

std::u16string Convert(ScriptOutputEncoding encoding, const std::vector<std::string_view>& blocks) {
    ScriptOutputConverter converter;
    converter.encoding = encoding;
    std::string bytes;
    for (const std::string_view block : blocks) {
        FeedScriptOutput(converter, block, bytes);
        EXPECT_LE(converter.pending.size(), 3u);
    }
    FinishScriptOutput(converter, bytes);
    return TextFromUtf16LittleEndian(bytes);
}

TEST(ScriptOutput, BecomesUtf16WithoutByteOrderMark) {
    constexpr auto utf8 = ScriptOutputEncoding::utf8;
    constexpr auto utf16 = ScriptOutputEncoding::utf16LittleEndian;
    struct Row {
        const char* title;
        ScriptOutputEncoding encoding;
        std::string_view bytes;
        std::u16string_view expected;
    };
    for (const Row& row : std::vector<Row>{
             {"nothing", utf8, "", u""},
             {"ASCII and a NUL", utf8, "a\0b\n"sv, u"a\0b\n"sv},
             {"two, three and four bytes", utf8, "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80.", u"\u00e9\u20ac\U0001f600."},
             {"a byte order mark", utf8, "\xEF\xBB\xBFx", u"x"},
             {"only the first is a mark", utf8, "\xEF\xBB\xBF\xEF\xBB\xBFx", u"\uFEFFx"},
             {"a stray trail byte", utf8, "a\x80z", u"a\uFFFDz"},
             {"no UTF-8 at all", utf8, "a\xFFz", u"a\uFFFDz"},
             {"a lead byte before ASCII", utf8, "\xC3(", u"\uFFFD("},
             {"cut at the end", utf8, "ab\xE2\x82", u"ab\uFFFD"},
             {"a surrogate written as UTF-8", utf8, "\xED\xA0\x80z", u"\uFFFDz"},
             {"UTF-16 with its mark", utf16, "\xFF\xFE\x61\x00\xAC\x20"sv, u"a\u20ac"},
             {"UTF-16 without", utf16, "a\0b\0"sv, u"ab"},
             {"half a unit at the end", utf16, "a\0b"sv, u"a\uFFFD"},
         }) {
        SCOPED_TRACE(row.title);
        EXPECT_EQ(Convert(row.encoding, {row.bytes}), row.expected);
        for (std::size_t cut = 0; cut <= row.bytes.size(); ++cut) {
            EXPECT_EQ(Convert(row.encoding, {row.bytes.substr(0, cut), row.bytes.substr(cut)}), row.expected) << cut;
        }
    }
}

}  // namespace
}  // namespace kv::test
