// The query language over a class with a property of each type, and how values become variants.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <limits>
#include <string>

#include "tests/support/wmi_query.h"
#include "wql/condition.h"
#include "wql/wql_query.h"

namespace kv::test {
namespace {

using namespace wql;
using platform::Utf8FromWide;
using platform::Variant;
using platform::VariantType;
using platform::WideFromUtf8;

struct Row {
    CimValue boolean, sint8, sint16, sint32, sint64, real32, real64, string, datetime, uint8, uint16, uint32, uint64;
};

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"A", ArrayOf(CimType::uint16), 1, "", [](const Row& row) { return row.boolean.isNull() ? CimValue() : CimArray{{1, 2}}; }},
    {u"B", CimType::boolean, 2, "", [](const Row& row) { return row.boolean; }},
    {u"I1", CimType::sint8, 4, "", [](const Row& row) { return row.sint8; }},
    {u"I2", CimType::sint16, 4, "", [](const Row& row) { return row.sint16; }},
    {u"I4", CimType::sint32, 4, "", [](const Row& row) { return row.sint32; }},
    {u"I8", CimType::sint64, 8, "", [](const Row& row) { return row.sint64; }},
    {u"N", CimType::string},
    {u"R4", CimType::real32, 16, "", [](const Row& row) { return row.real32; }},
    {u"R8", CimType::real64, 16, "", [](const Row& row) { return row.real64; }},
    {u"S", CimType::string, 32, "", [](const Row& row) { return row.string; }},
    {u"T", CimType::datetime, 64, "", [](const Row& row) { return row.datetime; }},
    {u"U1", CimType::uint8, 4, "", [](const Row& row) { return row.uint8; }},
    {u"U2", CimType::uint16, 4, "", [](const Row& row) { return row.uint16; }},
    {u"U4", CimType::uint32, 4, "", [](const Row& row) { return row.uint32; }},
    {u"U8", CimType::uint64, 8, "", [](const Row& row) { return row.uint64; }},
};

/// Objects 1 to 4; all properties of the third are NULL.
const Row objects[] = {
    {true, -1, -300, -70000, -5000000000, 0.1, 0.1, u"Alpha", u"20240229120000.000000+060", 200, 60000, 4000000000,
     std::numeric_limits<std::uint64_t>::max()},
    {false, 5, 5, 5, 5, 5.0, 5.0, u"C:\\it's \"x\"", u"20240229110000.000001+000", 5, 5, 5, 5},
    {},
    {false, 0, 0, 0, 0, 0.0, std::numeric_limits<double>::quiet_NaN(), u"", u"19700101000000.000000-300", 0, 0, 0,
     9007199254740993},
};
// clang-format on

constexpr ClassInfo testClass{
    .name = u"KV_Sample", .superclass = u"CIM_LogicalElement", .properties = properties, .keys = u"I4,S"};

std::string StatusName(WmiStatus status) {
    return status == wmi_status::invalidQuery        ? "invalid"
           : status == wmi_status::notSupported      ? "not supported"
           : status == wmi_status::quotaViolation    ? "too much"
           : status == wmi_status::invalidObjectPath ? "bad path"
                                                     : fmt::format("{:X}", status);
}

struct Case {
    const char* title;
    std::string text;
    const char* outcome;
};

WmiStatus Bind(const std::string& where, BoundCondition& condition) {
    WqlStatement statement;
    const WmiStatus status = ParseWql(WideFromUtf8("SELECT * FROM KV_Sample WHERE " + where), statement);
    return IsFailure(status) ? status : BindCondition(*std::get<WqlQuery>(statement).where, testClass, condition);
}

/// A data query's properties/class/where, or - without a condition; of a query for associations all that it says.
std::string OutlineOf(const WqlStatement& statement) {
    const auto narrow = [](std::u16string_view text) { return Utf8FromWide(text); };
    std::string outline;
    if (const auto* query = std::get_if<WqlQuery>(&statement)) {
        for (const auto& name : query->properties) outline += (outline.empty() ? "" : ",") + narrow(name);
        return outline + "/" + narrow(query->className) + (query->where ? "/where" : "/-");
    }
    const auto& query = std::get<AssociationQuery>(statement);
    outline = (query.wantsReferences ? "references " : "associators ") + narrow(query.object.className);
    for (const PathKey& key : query.object.keys) {
        outline += " " + narrow(key.name) + "=" + VariantText(VariantOf(CimType::string, key.value));
    }
    for (const auto& word : {query.associationClass, query.resultClass, query.role, query.resultRole}) {
        outline += "/" + narrow(word);
    }
    return outline + (query.wantsClasses ? "/classes" : "");
}

/// The numbers of the objects that match.
std::string MatchingObjects(const std::string& where) {
    BoundCondition condition;
    const WmiStatus status = Bind(where, condition);
    if (IsFailure(status)) return StatusName(status);
    std::string numbers;
    for (const Row& row : objects) {
        if (Matches(condition, &row)) numbers += std::to_string(&row - objects + 1);
    }
    return numbers;
}

/// The values that each property must have one of, then the ends between which each must lie.
std::string HintsOf(const std::string& where) {
    BoundCondition condition;
    EXPECT_EQ(Bind(where, condition), wmi_status::ok) << where;
    const auto textOf = [](const CimValue& value) {
        return value.isNull() ? "" : VariantText(VariantOf(CimType::string, value));
    };
    std::string text;
    for (const Restriction& restriction : RestrictionsOf(condition)) {
        text += Utf8FromWide(restriction.property) + ":";
        for (const CimValue& value : restriction.values) text += textOf(value) + ",";
    }
    text += "|";
    for (const Range& range : RangesOf(condition))
        text += " " + Utf8FromWide(range.property) + ":" + textOf(range.lowest) + ".." + textOf(range.highest);
    return text;
}

TEST(Wql, QueriesAreParsedOrRefused) {
    const Case cases[] = {
        {"everything", "SELECT * FROM Win32_Process", "/Win32_Process/-"},
        {"other letter case and white space", "\n select Name,\t__PATH , _x9 from C Where a=1 ",
         "Name,__PATH,_x9/C/where"},
        {"associators", "associators of {Win32_Process.Handle='1'} WHERE ClassDefsOnly Role = a AssocClass=B",
         "associators Win32_Process Handle=1/B//a//classes"},
        {"braces and escapes in a path",
         R"(REFERENCES OF {\\::1\root\cimv2:C.A="x}\\y",b=5,c=TRUE} WHERE ResultClass=D)",
         R"(references C A=x}\y b=5 c=True//D//)"},
        {"the only object", "ASSOCIATORS OF { C=@ } WHERE ResultRole=R", "associators C////R"},
        {"the only key", "ASSOCIATORS OF {C=\"x\"}", "associators C =x////"},
        {"a class", "ASSOCIATORS OF {C} WHERE SchemaOnly", "bad path"},
        {"another computer's object", R"(ASSOCIATORS OF {\\PC\root\cimv2:C=@})", "800706BA"},
        {"one in another namespace", R"(ASSOCIATORS OF {root\default:C=@})", "8004100E"},
        {"qualifiers", "ASSOCIATORS OF {C=@} WHERE RequiredQualifier=x", "not supported"},
        {"what only associators have", "REFERENCES OF {C=@} WHERE AssocClass=x", "invalid"},
        {"a word twice", "ASSOCIATORS OF {C=@} WHERE Role=x Role=x", "invalid"},
        {"a quote that is never closed", "ASSOCIATORS OF {C.A=\"/}", "bad path"},
        {"too long", "SELECT * FROM C" + std::string(maxQueryLength, ' '), "too much"},
        {"as deep as the limit",
         "SELECT * FROM C WHERE " + std::string(200, '(') + "a=1" + std::string(200, ')') + "OR NOT(a=1)", "/C/where"},
        {"too deep", "SELECT * FROM C WHERE NOT " + std::string(200, '(') + "a=1" + std::string(200, ')'), "too much"},
    };
    for (const Case& row : cases) {
        WqlStatement statement;
        const WmiStatus status = ParseWql(WideFromUtf8(row.text), statement);
        EXPECT_EQ(IsFailure(status) ? StatusName(status) : OutlineOf(statement), row.outcome) << row.title;
    }
    for (const std::string_view text : std::initializer_list<std::string_view>{
             "", "SELECT * FROM C WHERE", "SELECT * FROM Where", "SELECT * FROM C;", "SELECT *,a FROM C",
             "SELECT count(*) FROM C", "SELECT * FROM C WITHIN 5 WHERE a=1",
             "SELECT * FROM C WHERE a=1 GROUP BY a HAVING b>1", std::string_view("SELECT * FROM C WHERE a='\0'", 27)}) {
        WqlStatement statement;
        EXPECT_EQ(ParseWql(WideFromUtf8(text), statement), wmi_status::invalidQuery) << text;
    }
}

TEST(Wql, ConditionsMatchObjects) {
    const Case cases[] = {
        {"numbers of each type",
         "I1=-1 AND I2=-300 AND I4=-70000 AND I8=-5000000000 AND U1=200 AND U2=60000 AND U4=4000000000 AND R4=0.1 AND "
         "R8=1e-1 AND U8=18446744073709551615",
         "1"},
        {"hexadecimal and signs", "I1>-0x1 AND U1<=+0xC8 AND I1!=0", "2"},
        {"64 bits exactly", "U8>9007199254740992 AND U8<9007199254740994", "4"},
        {"literals beyond the type", "U1<18446744073709551616 AND U1>-1.5 AND U1<>2.61e+2", "124"},
        {"literals with a fraction", "U1<5.5 AND 4.5<U1", "2"},
        {"the literal on the left", "200<=U1 OR 0>=U1", "14"},
        {"truth values", "B=TRUE OR 'false'=B AND I1=5", "12"},
        {"truth values as numbers", "B=1 OR B='0' AND I1=5", "12"},
        {"a date is midnight in local time", "T>'20240229' AND T<'2024-03-01'", "12"},
        {"dates with times",
         "T>='2/29/2024 11:00' AND T<'2024-02-29 11:00:00.000001' OR T='02/29/2024 11:0:0.000001 AM'", "12"},
        {"the object's path",
         R"(__RELPATH='kv_sample.I4=5,S="C:\\\\it\'s \\"x\\""' OR __PATH LIKE '%:KV_Sample.I4=0,S=""')", "24"},
        {"what is the same for all objects",
         "__GENUS=2 AND __PROPERTY_COUNT=15 AND __NAMESPACE='ROOT\\\\cimv2' AND __DYNASTY='CIM_ManagedSystemElement' "
         "AND "
         "__DERIVATION IS NOT NULL AND __SERVER LIKE '_%' AND I1=5",
         "2"},
        {"an embedded object", "N.X=5 OR NOT N.X=5 OR 5=N.X.Y OR I1=5", "2"},
        {"texts in any letter case", "S='ALPHA' OR S>'c:' AND S<\"C:\\\\j\"", "12"},
        {"escapes and quotes", R"(S='C:\\it\'s "x"' AND S="C:\\it's \"x\"")", "2"},
        {"a moment in another zone", "T='20240229060000.000000-300'", "1"},
        {"moments in order", "T>'20240229110000.000000+000' OR T<'19700101000001.000000-300'", "24"},
        {"NOT binds first, then AND", "NOT I1=5 AND I1=0 OR I1=5 AND NOT NOT I1=5 OR I1=5 AND I1=0", "24"},
        {"NULL is not unequal to a value", "S<>'x'", "124"},
        {"nor under NOT", "NOT S='x' AND NOT S LIKE 'x'", "124"},
        {"unknown OR true", "N='a' OR I1=5", "2"},
        {"unknown AND false, negated", "NOT(N='a' AND I1=5)", "14"},
        {"IS NULL tells NULL apart", "S IS NULL OR NULL<>U4 AND U4=5", "23"},
        {"patterns", "S LIKE 'al[o-q]%' OR S NOT LIKE '_%'", "14"},
        {"the class", "__CLASS='kv_sample' AND __THIS ISA 'KV_SAMPLE' AND __SUPERCLASS LIKE '%ELEMENT' AND I1=5", "2"},
    };
    for (const Case& row : cases) EXPECT_EQ(MatchingObjects(row.text), row.outcome) << row.title;
    // Unknown properties, literals of another type, operators that the type lacks, broken texts.
    // clang-format off
    const char* const refused[] = {
        "X=1", "S ISA 'x'", "U1='+-5'", "U1='0x-5'", "U1=5x", "R8<1e999", "B='maybe'", "B=2", "B<TRUE",
        "B>=0", "B='2'", "__X=1", "__X IS NULL", "__THIS=1", "N.=5", "T>'20240229120000.000000+***'",
        "T>'101231'", "T>'1/1/26'", "T>'2024-02-30'", "T>'2024-02-29 24:00'", "T>'2024-02-29T11:00'",
        "T>'2024-02-29 0:00 PM'", "T>'20230229000000.000000+000'", "I1 LIKE '5'", "A=1", "S<NULL", "I1=I2",
        R"(S='C:\a')", "S='a"
    };
    // clang-format on
    for (const char* where : refused) EXPECT_EQ(MatchingObjects(where), "invalid") << where;
    BoundCondition condition;
    ASSERT_EQ(Bind("NOT(S='x' OR N=NULL)AND __CLASS='x' AND T IS NULL", condition), wmi_status::ok);
    EXPECT_EQ(NeedsOf(condition), 96u);
}

TEST(Wql, ConditionsHintAtWhatCanMatch) {
    const std::pair<std::string, const char*> cases[] = {
        {"U4=0x10 AND S='b' AND I1>3", "U4:16,S:b,| U4:16..16 S:b..b I1:3.."},
        {"(U4=7 OR U4='5' OR 7.0=U4)", "U4:5,7,| U4:5..7"},
        {"S='b' OR S='B' OR S='b'", "S:B,b,| S:b..b"},
        {"(S='a' OR S='b')AND S='c' AND(S='d' OR S='e')", "S:c,| S:d..b"},
        {"U4=1 AND S='a' OR S='b' AND U4=2 AND B=TRUE", "U4:1,2,S:a,b,| U4:1..2 S:a..b"},
        {"NOT U4=1 AND T='20240229060000.000000-300'", "| T:1709204400000000..1709204400000000"},
        {"U1=300 AND I1=1.5", "U1:I1:| U1:300..300 I1:1.5..1.5"},
        {"U1=300 OR U1=3", "U1:3,| U1:3..300"},
        {"NOT(U4<>7 OR NOT S='b' OR NOT(NOT(I1<>2)))", "U4:7,S:b,I1:2,| U4:7..7 S:b..b I1:2..2"},
        {"U4>5 AND 9>=U4 AND I1<3", "| U4:5..9 I1:..3"},
        {"U4>5 AND U4>=7 AND U4<20 AND U4<30 AND U4<>8", "| U4:7..20"},
        {"U4=5 AND U4>9", "U4:5,| U4:9..5"},
        {"U4>-1 AND U4<1e12 AND R8<1.5", "| U4:-1..1e+12 R8:..1.5"},
        {"U4=3 OR U4>7 AND U4<9 OR U4=5", "| U4:3..9"},
        {"U4>3 AND S='b' OR S>'c' AND U4>1 AND U4<8", "| U4:1.. S:b.."},
        {"NOT(U4<=3 OR S='a' OR NOT I1<7)AND NOT(NOT U1>=4)", "| U4:3.. I1:..7 U1:4.."},
        {"T>='19700101000001.000000+000' AND T<'19700101000000.000005-060'", "| T:1000000..3600000005"},
    };
    for (const auto& [where, hints] : cases) EXPECT_EQ(HintsOf(where), hints) << where;
    for (const char* where :
         {"U4=1 OR S='a'", "U4=1 OR U4=NULL", "U4>3 OR U4<2", "U4>3 OR S='a'", "S='a' OR U4>3", "U4>3 OR U4 IS NULL",
          "NOT U4=3 AND NOT S LIKE 'a%' AND U4<>9 AND N IS NOT NULL AND __CLASS='KV_Sample'"})
        EXPECT_EQ(HintsOf(where), "|") << where;
}

TEST(Wql, LikeMatchesPatterns) {
    const std::tuple<std::u16string, std::u16string, bool> cases[] = {
        {u"", u"", true},        {u"", u"%%", true},        {u"a", u"", false},        {u"aXbXc", u"a%X_", true},
        {u"abc", u"A_C", true},  {u"abc", u"a_", false},    {u"b", u"[A-C]", true},    {u"d", u"[a-c]", false},
        {u"d", u"[^a-c]", true}, {u"%", u"[%]", true},      {u"a", u"[%]", false},     {u"]", u"[]]", true},
        {u"[a", u"[a", true},    {u"-", u"[a-]", true},     {u"^", u"[a^]", true},     {u"a", u"[^]a]", false},
        {u"ÄÖ", u"%ö", true},    {u"x.exe", u"%.e%", true}, {u"a]b", u"a[^b]b", true}, {u"", u"_", false},
    };
    for (const auto& [text, pattern, isLike] : cases) {
        EXPECT_EQ(IsLike(text, pattern), isLike) << Utf8FromWide(text) << " like " << Utf8FromWide(pattern);
    }
    std::u16string stars;
    for (int i = 0; i < 1000; ++i) stars += u"%a";
    EXPECT_FALSE(IsLike(std::u16string(3000, u'a'), stars + u"b"));
}

TEST(WmiValues, HaveTheVariantsOfTheirTypes) {
    constexpr auto uint16Array = static_cast<VariantType>(0x2003);
    const std::tuple<const char*, CimType, CimValue, VariantType, const char*> cases[] = {
        {"uint8", CimType::uint8, 255, VariantType::ui1, "255"},
        {"uint16", CimType::uint16, 65535, VariantType::i4, "65535"},
        {"uint32 is signed", CimType::uint32, 4294967295, VariantType::i4, "-1"},
        {"uint64 is text", CimType::uint64, ~0ULL, VariantType::bstr, "18446744073709551615"},
        {"real32", CimType::real32, 0.1, VariantType::r4, "0.10000000149011612"},
        {"boolean", CimType::boolean, true, VariantType::boolean, "true"},
        {"datetime", CimType::datetime, u"20240229060000.000000-300", VariantType::bstr, "20240229060000.000000-300"},
        {"array", ArrayOf(CimType::uint16), CimArray{{1, 2, 3}}, uint16Array, "[1, 2, 3]"},
        {"NULL", CimType::uint32, {}, VariantType::null, "NULL"},
        {"a counter wraps", CimType::uint32, 4294967301, VariantType::i4, "5"},
        {"a fraction is cut", CimType::uint64, 99.9, VariantType::bstr, "99"},
        {"not a number", CimType::uint64, std::numeric_limits<double>::quiet_NaN(), VariantType::null, "NULL"},
    };
    for (const auto& [title, type, value, expected, text] : cases) {
        const Variant variant = VariantOf(type, value);
        EXPECT_EQ(std::pair(variant.type, VariantText(variant)), std::pair(expected, std::string(text))) << title;
    }
}

}  // namespace
}  // namespace kv::test
