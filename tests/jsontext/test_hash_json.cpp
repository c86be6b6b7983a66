// JSON text: what is read, how it is written, and the messages of refusals.
#include <memory>
#include <tuple>

#include "foundation/file_utils.h"
#include "jsontext/hash_json.h"
#include "jsontext/strict_json.h"
#include "platform/utf.h"
#include "tests/support/test_agent.h"

namespace kv::test {
namespace {

struct Json : TestAgent {
    /// The written form of what was read, or the message.
    static std::string Outcome(const JsonReadResult& read, const HashTablePtr& table) {
        if (!read.ok) {
            EXPECT_EQ(CountHashKeys(table.get()), 0);
            return read.message;
        }
        return platform::Utf8FromWide(HashToJSONString(table.get())) + read.message;
    }
    static std::string Reread(std::u16string_view document) {
        const HashTablePtr table = MakeHashTable();
        const JsonReadResult read = JSONTextToHash(table.get(), document);
        return Outcome(read, table);
    }
};

TEST_F(Json, ReadsEveryValueAndWritesItsForm) {
    for (const auto& [title, document, written] : std::vector<std::tuple<const char*, std::u16string, const char*>>{
             {"members from last to first", u"{\"a\":1,\"b\":\"x\",\"c\":[]}", R"({ "c": [ ], "b": "x", "a": 1 })"},
             {"a key given twice moves to the end", u"{\"a\":1,\"b\":2,\"a\":3}", R"({ "a": 3, "b": 2 })"},
             {"null is left out", u"{\"a\":null,\"b\":[null,1,NULL]}", R"({ "b": [ 1 ] })"},
             {"words in any case", u"{\"a\":TRUE,\"b\":False}", R"({ "b": false, "a": true })"},
             {"doubles are cut", u"{\"a\":1.5,\"b\":-2.99,\"c\":1e3}",
              R"({ "c": 1000.000000, "b": -2.000000, "a": 1.000000 })"},
             {"doubles beyond 32 bits", u"{\"a\":1e300,\"b\":-1e300,\"c\":NaN}",
              R"({ "c": 0.000000, "b": -2147483648.000000, "a": 2147483647.000000 })"},
             {"low half of 64 bits", u"{\"a\":4294967303,\"b\":9223372036854775808,\"c\":-4294967297}",
              R"({ "c": -1, "b": 0, "a": 7 })"},
             {"comments", u"/***/{/* \" */\"a\"//'\r\n:/**/1}// end", R"({ "a": 1 })"},
             {"comments are text inside a text", u"{\"a\":\"/*b*/ //c\"}", R"({ "a": "\/*b*\/ \/\/c" })"},
             {"escapes", u"{\"a\\t\":\"\\b\\n\\r\\t\\\"\\\\\\/\\f\\u001F\\u007f\\u0041\"}",
              "{ \"a\\t\": \"\\b\\n\\r\\t\\\"\\\\\\/\\u000c\\u001f\x7f"
              "A\" }"},
             {"escaped backslash before u", u"{\"a\":\"\\\\u00e9\"}", R"({ "a": "\\u00e9" })"},
             {"escape of 20AC is three units", u"{\"\\u20AC\":1}", "{ \"\u00E2\u0082\u00AC\": 1 }"},
             {"escaped surrogates are not joined", u"{\"a\":\"\\uD83D\\uDE00\"}",
              "{ \"a\": \"\u00ED\u00A0\u00BD\u00ED\u00B8\u0080\" }"},
             {"non-ASCII goes out as it is", u"{\"\u00e9\u20ac\U0001F600\":\"\U0001F600\u20ac\u00e9\"}",
              "{ \"\u00e9\u20ac\U0001F600\": \"\U0001F600\u20ac\u00e9\" }"},
             {"text ends at a zero character", u"{\"a\":\"b\\u0000c\"}", R"({ "a": "b" })"},
             {"trailing comma", u"{\"a\":[1,2,],}", R"({ "a": [ 1, 2 ] })"},
             {"text after the document", u"{}\n x",
              "{ }what follows the document is passed over, at offset 4 (line 2)"},
         }) {
        SCOPED_TRACE(title);
        EXPECT_EQ(Reread(document), written);
    }
    EXPECT_TRUE(Logged("a text with a zero character ends there: b"));
    std::string repeated;
    const HashTablePtr table = MakeHashTable();
    for (const RepeatedKey& key :
         JSONTextToHash(table.get(), u"{\"a\":1,\n\"b\":{\"c\":1,/*\n\"c\"*/\"c\":2},\"a\":\"x\n\",\n\"a\":3}")
             .repeated)
        repeated += platform::Utf8FromWide(key.key) + std::to_string(key.line) + std::to_string(key.lastLine) + " ";
    EXPECT_EQ(repeated, "a15 c23 a35 ");
}

TEST_F(Json, KeepsUnpairedSurrogates) {
    const std::u16string text = u"x\xDC00\xD800y\xD83D\xDE00";
    const HashTablePtr table = MakeHashTable();
    ASSERT_TRUE(JSONTextToHash(table.get(), u"{\"a\":\"" + text + u"\"}").ok);
    EXPECT_EQ(GetHashText(table.get(), u"a"), text);
    EXPECT_EQ(HashToJSONString(table.get()), u"{ \"a\": \"" + text + u"\" }");
}

TEST_F(Json, RefusesWithTheParsersMessages) {
    const auto nested = [](std::size_t levels) {
        return u"{\"a\":" + std::u16string(levels - 1, u'[') + u"1" + std::u16string(levels - 1, u']') + u"}";
    };
    std::u16string huge = u"{\"a\":{";
    for (int member = 0; member <= 10000; ++member) huge += u"/*,*/\"a,\":[1,2],";
    const auto repeated = [](std::u16string_view text, int times) {
        std::u16string all = u"{\"a\":[";
        while (times-- > 0) all += text;
        return all + u"]";
    };
    for (const auto& [document, message] : std::vector<std::tuple<std::u16string, const char*>>{
             {u"", "unexpected end of data at offset 0 (line 1)"},
             {u"{\n\"\u20ac\": [1,\n", "unexpected end of data at offset 11 (line 3)"},
             {std::u16string(u"{\"a\0\":1}", 8), "unexpected end of data at offset 4 (line 1)"},
             {u"{\"\u20ac\":nil}", "null expected at offset 6 (line 1)"},
             {u"{\"a\":[1 2]}", "array value separator ',' expected at offset 8 (line 1)"},
             {u"{\"a\":1 \"b\":2}", "object value separator ',' expected at offset 7 (line 1)"},
             {u"{\"a\":\"\\u20ac\\u00g0\"}", "invalid string sequence at offset 16 (line 1)"},
             {u"[1]", "the top level is not an object"},
             {huge.substr(0, huge.size() - 1) + u"}}", "an object has more than 10000 members"},
             {huge, "an object has more than 10000 members"},  // refused before it is parsed
             {repeated(u"{}", 249'999), "the document has too many values for the memory"},
             {repeated(u",", 1'200'001), "the document has too many values for the memory"},
             {nested(32), "nesting to deep at offset 36 (line 1)"},
         }) {
        SCOPED_TRACE(platform::Utf8FromWide(document.substr(0, 60)));
        EXPECT_EQ(Reread(document), message);
    }
    EXPECT_TRUE(Reread(nested(31)).starts_with("{ \"a\": [ [ "));
    constexpr std::size_t tooLong = largestJsonDocument + 1;
    EXPECT_EQ(Reread({std::make_unique_for_overwrite<char16_t[]>(tooLong).get(), tooLong}),  // nothing of it is read
              "the document is larger than 35 million characters");
    huge.resize(huge.size() - std::u16string_view(u"/*,*/\"a,\":[1,2],").size());
    EXPECT_EQ(Reread(huge.substr(0, huge.size() - 1) + u"}}"), R"({ "a": { "a,": [ 1, 2 ] } })");
}

TEST_F(Json, WritesEveryTypeOfValue) {
    const HashTablePtr table = MakeHashTable();
    VectorPtr list = MakeVector();
    for (const ValueType type : {ValueType::none, ValueType::boolean, ValueType::integer, ValueType::number,
                                 ValueType::other, ValueType::text, ValueType::vector, ValueType::table})
        EXPECT_EQ(AddValueToVector(list.get(), 0, type), 1);
    AddValueToVector(list.get(), 0xFFFFFF00, ValueType::boolean);
    AddValueToVector(list.get(), 0x100000001, ValueType::other);
    {
        const std::u16string text = u"/";
        AddValueToVector(list.get(), reinterpret_cast<Word>(text.c_str()), ValueType::text);
    }
    AppendTable(list.get(), MakeHashTable());
    const char16_t* written = u"[ null, false, 0, 0.000000, 0, null, null, null, false, 1, \"\\/\", { } ]";
    EXPECT_EQ(VectorToJSONString(list.get()), written);
    PutHashVector(table.get(), u"a", std::move(list));
    EXPECT_EQ(HashToJSONString(table.get()), std::u16string(u"{ \"a\": ") + written + u" }");
}

TEST_F(Json, RecognisesTheEncodingOfAFile) {
    const auto wide = [](std::u16string_view text) { return Utf16LittleEndianBytes(text); };
    const std::u16string document = u"{\"a\":\"\u00e9\r\n\r\"}";
    const std::string utf8 = platform::Utf8FromWide(document);
    const char* written = "{ \"a\": \"\u00e9\\n\\r\" }";
    for (const auto& [title, bytes, outcome] : std::vector<std::tuple<const char*, std::string, std::string>>{
             {"UTF-16LE", wide(document), written},
             {"UTF-16LE with mark", "\xFF\xFE" + wide(document), written},
             {"UTF-8", utf8, written},
             {"UTF-8 with mark", "\xEF\xBB\xBF" + utf8, written},
             {"UTF-16, high byte first", "\xFE\xFF" + wide(document),
              "f.txt: the file is UTF-16 with the high byte first; UTF-16LE or UTF-8 is expected"},
             {"Latin-1", "{\"a\":\"\xE9\"}", "f.txt: the file is neither UTF-16LE nor UTF-8"},
             {"empty", "", "f.txt: unexpected end of data at offset 0 (line 1)"},
         }) {
        SCOPED_TRACE(title);
        Write(bin / "f.txt", bytes);
        const HashTablePtr table = MakeHashTable();
        const JsonReadResult read = JSONFileToHash(table.get(), u"f.txt");
        EXPECT_EQ(Outcome(read, table), outcome);
    }
    std::filesystem::resize_file(bin / "f.txt", 70'000'003);
    const HashTablePtr table = MakeHashTable();
    EXPECT_EQ(JSONFileToHash(table.get(), u"f.txt").message,
              "f.txt: the document is larger than 35 million characters");
    const std::string refusal = JSONFileToHash(table.get(), u"..\\none.txt").message;
    EXPECT_EQ(refusal.rfind("..\\none.txt: ", 0), 0U) << refusal;
    EXPECT_TRUE(refusal.ends_with(". (error 2)")) << "with the system's text: " << refusal;
}

TEST(StrictJson, TakesWhatTheFormatHas) {
    for (const char* const text : {"{}", " [1, -2.5e3, \"\\u00e4\u00e4\", null] \n", "\"x\"", "0"})
        EXPECT_EQ(StrictJsonFault(text), "") << text;
    for (const char* const text : {"", "{'a': 1}", "{} {}", "{\"a\": 1,}", "[007]", "[True]", "[NaN]", "{a: 1}",
                                   "[1] # x", "[\"\t\"]", "[\"\xff\"]", "[1.]", "\xEF\xBB\xBF[]"})
        EXPECT_NE(StrictJsonFault(text).find(" line "), std::string::npos) << text;
    EXPECT_NE(StrictJsonFault({"{}\0x", 4}), "");
    const JsonShape shape = ShapeOf(R"({"a": [1, [], {"b": null}], "c": "[[["})");
    EXPECT_EQ(shape.depth, 3);
    EXPECT_EQ(shape.values, 7);
}

}  // namespace
}  // namespace kv::test
