// Any bytes as the text of a query over a class that has a property of each type, and as each property's value.
//
// A condition in one more pair of parentheses matches the same objects, and none that its negation matches. What
// matches is among the values of every restriction and within every range. Texts are like themselves, and moments come
// back from their texts.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <string_view>

#include "platform/backend.h"
#include "platform/utf.h"
#include "wql/class_tree.h"
#include "wql/condition.h"
#include "wql/refusal.h"
#include "wql/wql_token.h"

namespace {

using namespace platform;
using namespace kv::wql;

void Require(bool held, const char* what) {
    if (held) return;
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

struct Row {
    CimValue flag;
    CimValue small;
    CimValue large;
    CimValue real;
    CimValue text;
    CimValue time;
};

constexpr PropertyInfo properties[] = {
    {u"Array", ArrayOf(CimType::string), 1, "",
     [](const Row& row) {
         return CimArray{{row.text, row.small}};
     }},
    {u"B", CimType::boolean, 1, "", [](const Row& row) { return row.flag; }},
    {u"I1", CimType::sint8, 1, "", [](const Row& row) { return row.small; }},
    {u"I2", CimType::sint16, 1, "", [](const Row& row) { return row.small; }},
    {u"I4", CimType::sint32, 1, "", [](const Row& row) { return row.small; }},
    {u"I8", CimType::sint64, 1, "", [](const Row& row) { return row.large; }},
    {u"N", CimType::string},
    {u"R4", CimType::real32, 1, "", [](const Row& row) { return row.real; }},
    {u"R8", CimType::real64, 1, "", [](const Row& row) { return row.real; }},
    {u"S", CimType::string, 1, "", [](const Row& row) { return row.text; }},
    {u"T", CimType::datetime, 1, "", [](const Row& row) { return row.time; }},
    {u"U1", CimType::uint8, 1, "", [](const Row& row) { return row.small; }},
    {u"U2", CimType::uint16, 1, "", [](const Row& row) { return row.small; }},
    {u"U4", CimType::uint32, 1, "", [](const Row& row) { return row.large; }},
    {u"U8", CimType::uint64, 1, "", [](const Row& row) { return row.large; }},
};

constexpr ClassInfo everyType{.name = u"EveryType", .superclass = u"", .properties = properties, .keys = u"I4,S"};

const Row rows[] = {
    {true, 1, 1, 1.0, u"a", DmtfTime(0)},
    {false, -1, std::numeric_limits<std::uint64_t>::max(), 0.1, u"C:\\A", DmtfTime(1'700'000'000'000'000)},
    {true, 300, 0x1'0000'0005, std::numeric_limits<double>::infinity(), u"", u"no datetime"},
    {u"5", u"5", u"5", u"5", 5, 5},
    {false, 0, std::numeric_limits<std::int64_t>::min(), std::numeric_limits<double>::quiet_NaN(), u"%[_]", {}},
    {},
};

CimValue ReadProperty(const Row& row, const PropertyInfo& property) {
    return property.read == nullptr ? CimValue() : BroughtTo(property.type, property.read(&row, property));
}

/// The same text with its condition in parentheses.
std::u16string Wrapped(std::u16string_view text, std::u16string_view before) {
    std::u16string_view rest = text;
    while (CompareNames(TakeToken(rest).spelling, u"WHERE") != 0) continue;
    std::u16string wrapped(text.substr(0, text.size() - rest.size()));
    return wrapped.append(before).append(u"(").append(rest).append(u")");
}

/// False when the text now exceeds the bounds.
bool ReadAgain(std::u16string_view text, BoundCondition& bound) {
    WqlStatement statement;
    const WmiStatus status = ParseWql(text, statement);
    if (status == wmi_status::quotaViolation) return false;
    const auto* query = std::get_if<WqlQuery>(&statement);
    Require(status == wmi_status::ok && query != nullptr && query->where != nullptr,
            "a condition in parentheses was refused");
    Require(BindCondition(*query->where, everyType, bound) == wmi_status::ok, "the same condition was not bound");
    return true;
}

/// What a range's ends are compared with.
CimValue Comparable(const PropertyInfo& property, const CimValue& value) {
    const auto* text = std::get_if<std::u16string>(&value.held);
    return property.type == CimType::datetime && text != nullptr ? MicrosecondsOfDmtf(*text) : value;
}

bool LiesWithin(const Leeway& leeway, const Row& row) {
    const auto allows = [&row](const Restriction& one) {
        const PropertyInfo* property = FindProperty(everyType, one.property);
        const CimValue value = property != nullptr ? ReadProperty(row, *property) : CimValue();
        return property == nullptr ||
               std::any_of(one.values.begin(), one.values.end(),
                           [&value](const CimValue& other) { return CompareValues(other, value) == 0; });
    };
    const auto includes = [&row](const Range& range) {
        const PropertyInfo* property = FindProperty(everyType, range.property);
        if (property == nullptr || property->type == CimType::reference) return true;
        const CimValue value = Comparable(*property, ReadProperty(row, *property));
        return (range.lowest.isNull() || CompareValues(value, range.lowest) >= 0) &&
               (range.highest.isNull() || CompareValues(value, range.highest) <= 0);
    };
    return std::all_of(leeway.restrictions.begin(), leeway.restrictions.end(), allows) &&
           std::all_of(leeway.ranges.begin(), leeway.ranges.end(), includes);
}

/// What matches is left by the condition as a whole, and by one of its alternatives.
void CheckLeeway(const BoundCondition& condition) {
    const Leeway whole{RestrictionsOf(condition), RangesOf(condition)};
    const std::vector<Leeway> alternatives = AlternativesOf(condition);
    for (const Row& row : rows) {
        if (!Matches(condition, &row)) continue;
        Require(LiesWithin(whole, row), "an object matches that is outside a restriction or a range");
        const bool isWithin = std::any_of(alternatives.begin(), alternatives.end(),
                                          [&row](const Leeway& one) { return LiesWithin(one, row); });
        Require(isWithin, "an object matches that is outside every alternative");
    }
}

/// A path that is written again from what was read names the same.
void CheckPath(const ObjectName& object) {
    if (std::ranges::any_of(object.keys, [](const PathKey& key) { return key.name.empty(); })) return;
    const std::u16string path = RelativePath(object.className, object.keys);
    const std::optional<ObjectName> again = ParseObjectPath(path);
    Require(again && RelativePath(again->className, again->keys) == path, "a path came back as another");
}

void RunQuery(std::u16string_view text) {
    WqlStatement statement;
    BoundCondition condition;
    if (ParseWql(text, statement) != wmi_status::ok) {
        const std::u16string refusal = DescribeRefusal(text);
        Require(!refusal.empty() && refusal.find(u":  is expected") == refusal.npos, "a refusal without a reason");
        return;
    }
    const auto* query = std::get_if<WqlQuery>(&statement);
    if (query == nullptr) return CheckPath(std::get<AssociationQuery>(statement).object);
    if (query->where == nullptr || BindCondition(*query->where, everyType, condition) != wmi_status::ok) return;
    Require(NeedsOf(condition) <= 1, "a need that no property has");
    CheckLeeway(condition);
    BoundCondition again;
    BoundCondition opposite;
    const bool isReadAgain = ReadAgain(Wrapped(text, u""), again) && ReadAgain(Wrapped(text, u" NOT"), opposite);
    if (!isReadAgain) return;
    for (const Row& row : rows) {
        const bool isMatch = Matches(condition, &row);
        Require(isMatch == Matches(again, &row), "parentheses changed what matches");
        Require(!isMatch || CanMatch(condition), "an object matches that cannot");
        Require(!isMatch || !Matches(opposite, &row), "an object matches a condition and its opposite");
    }
}

/// A pattern that only this text matches.
std::u16string PatternOf(std::u16string_view text) {
    std::u16string pattern;
    for (const char16_t unit : text) pattern.append(u"[").append(1, unit).append(u"]");
    return pattern;
}

void CheckPatterns(std::u16string_view text) {
    const std::u16string pattern = text.find(u'^') == text.npos ? PatternOf(text) : std::u16string(u"%");
    Require(IsLike(text, u"%"), "a text that is not like anything");
    Require(IsLike(text, pattern), "a text is not like itself");
    Require(IsLike(std::u16string(u"<").append(text) + u">", u"%" + pattern + u"%"), "a text is not found in another");
    Require(!IsLike(text, u"_" + std::u16string(text.size(), u'_') + u"%"), "a text is longer than it is");
    IsLike(u"abcabcabcabcabcabcabcabcabcabcabcabcabc[a-b]", text);
}

void CheckValue(std::u16string_view text) {
    for (const PropertyInfo& property : properties) {
        const CimValue value = BroughtTo(property.type, text);
        const Variant variant = VariantOf(property.type, text);
        Require(value.isNull() == (variant.type == VariantType::null), "NULL in one form and not in the other");
        Require(CompareValues(BroughtTo(property.type, value), value) == CompareValues(value, value),
                "a converted value changes when it is converted again");
    }
    const std::optional<std::int64_t> moment = MicrosecondsOfQueryText(text);
    if (!moment) return;
    const bool isInside = *moment > *MicrosecondsOfDmtf(u"00010102000000.000000+000") &&
                          *moment < *MicrosecondsOfDmtf(u"99991231000000.000000+000");
    Require(!isInside || MicrosecondsOfDmtf(DmtfTime(*moment)) == moment, "a moment came back as another");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool backendInstalled = (platform::InstallBackend(), platform::InstallWmi(), true);
    if (!backendInstalled) return 0;
    const std::u16string text = WideFromUtf8({reinterpret_cast<const char*>(data), size});
    RunQuery(text);
    CheckPatterns(text);
    CheckValue(text);
    return 0;
}
