#include "wql/cim_value.h"

#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <system_error>

#include "wql/class_tree.h"

namespace kv::wql {

namespace {

/// Wide enough to hold every number exactly, so that comparisons are exact.
using Number = long double;
static_assert(std::numeric_limits<Number>::digits >= std::numeric_limits<std::uint64_t>::digits);

bool IsDigit(char character) { return character >= '0' && character <= '9'; }

template <class Value, class... Format>
std::optional<Value> ReadWhole(std::string_view text, Format... format) {
    Value value{};
    const char* const end = text.data() + text.size();
    const auto [stopped, failure] = std::from_chars(text.data(), end, value, format...);
    if (failure != std::errc() || stopped != end) return std::nullopt;
    return value;
}

CimValue Signed(std::uint64_t magnitude, bool isNegative) {
    constexpr std::uint64_t lowest = std::uint64_t{1} << 63;
    if (!isNegative) return magnitude;
    if (magnitude <= lowest) return static_cast<std::int64_t>(0 - magnitude);
    return -static_cast<double>(magnitude);
}

/// Whether there are digits before and after the point. The C++ reader also accepts a number without them.
bool HasDigitsAroundPoint(std::string_view text) {
    const std::size_t point = text.find('.');
    return IsDigit(text.front()) && (point == text.npos || (point + 1 < text.size() && IsDigit(text[point + 1])));
}

CimValue HexNumber(std::string_view digits, bool isNegative) {
    if (digits.find_first_of("+-.") != digits.npos) return {};
    if (const auto whole = ReadWhole<std::uint64_t>(digits, 16)) return Signed(*whole, isNegative);
    const auto real = ReadWhole<double>(digits, std::chars_format::hex);
    return real && isNegative ? -*real : CimValue(real);
}

CimValue DecimalNumber(std::string_view text, bool isNegative) {
    if (text.empty() || !HasDigitsAroundPoint(text)) return {};
    if (const auto whole = ReadWhole<std::uint64_t>(text, 10)) return Signed(*whole, isNegative);
    const auto real = ReadWhole<double>(text, std::chars_format::general);
    return real && isNegative ? -*real : CimValue(real);
}

/// The value as a number, whole or real; NULL if it is not a number.
CimValue AsNumber(const CimValue& value) {
    if (const auto* truth = std::get_if<bool>(&value.held)) return std::int64_t{*truth};
    if (const auto* text = std::get_if<std::u16string>(&value.held)) return NumberOfText(*text);
    return value;
}

Number WorthOf(const CimValue& value) {
    if (const auto* truth = std::get_if<bool>(&value.held)) return *truth ? 1 : 0;
    if (const auto* whole = std::get_if<std::int64_t>(&value.held)) return static_cast<Number>(*whole);
    if (const auto* large = std::get_if<std::uint64_t>(&value.held)) return static_cast<Number>(*large);
    const auto* real = std::get_if<double>(&value.held);
    return real != nullptr ? *real : std::numeric_limits<Number>::quiet_NaN();
}

template <std::integral Whole>
CimValue CutReal(double real) {
    using Limits = std::numeric_limits<Whole>;
    if (std::isnan(real)) return {};
    if (real <= static_cast<double>(Limits::min())) return Limits::min();
    if (real >= static_cast<double>(Limits::max())) return Limits::max();
    return static_cast<Whole>(real);
}

template <std::integral Whole>
CimValue Cut(const CimValue& number) {
    if (const auto* real = std::get_if<double>(&number.held)) return CutReal<Whole>(*real);
    if (const auto* large = std::get_if<std::uint64_t>(&number.held)) return static_cast<Whole>(*large);
    return static_cast<Whole>(std::get<std::int64_t>(number.held));
}

CimValue AsText(CimValue value) {
    if (const auto* truth = std::get_if<bool>(&value.held)) return *truth ? u"True" : u"False";
    if (const auto* whole = std::get_if<std::int64_t>(&value.held)) return std::to_string(*whole);
    if (const auto* large = std::get_if<std::uint64_t>(&value.held)) return std::to_string(*large);
    const auto* real = std::get_if<double>(&value.held);
    if (real == nullptr) return value;
    std::array<char, 32> text{};
    const double unsignedZero = *real == 0 ? 0 : *real;  // a zero has one text, also in the path of an object
    return std::string(text.data(), std::to_chars(text.data(), text.data() + text.size(), unsignedZero).ptr);
}

CimValue AsTruth(const CimValue& value) {
    if (const auto* text = std::get_if<std::u16string>(&value.held)) {
        if (CompareNames(*text, u"TRUE") == 0) return true;
        if (CompareNames(*text, u"FALSE") == 0) return false;
    }
    const CimValue number = AsNumber(value);
    return number.isNull() ? number : CimValue(WorthOf(number) != 0);
}

CimValue AsDatetime(CimValue value) {
    if (std::holds_alternative<std::u16string>(value.held)) return value;
    const CimValue microseconds = Cut<std::int64_t>(AsNumber(value));
    return microseconds.isNull() ? CimValue() : CimValue(DmtfTime(std::get<std::int64_t>(microseconds.held)));
}

/// Converts a number to a numeric type.
CimValue AsNumberOf(CimType type, const CimValue& number) {
    switch (type) {
        case CimType::sint8:
            return Cut<std::int8_t>(number);
        case CimType::uint8:
            return Cut<std::uint8_t>(number);
        case CimType::sint16:
            return Cut<std::int16_t>(number);
        case CimType::uint16:
            return Cut<std::uint16_t>(number);
        case CimType::sint32:
            return Cut<std::int32_t>(number);
        case CimType::uint32:
            return Cut<std::uint32_t>(number);
        case CimType::sint64:
            return Cut<std::int64_t>(number);
        case CimType::uint64:
            return Cut<std::uint64_t>(number);
        case CimType::real32:
            return double{static_cast<float>(WorthOf(number))};
        case CimType::real64:
            return static_cast<double>(WorthOf(number));
        default:
            return {};
    }
}

platform::VariantType VariantTypeOf(CimType type) {
    if (IsArray(type)) {
        const platform::VariantType element = VariantTypeOf(ElementOf(type));
        return static_cast<platform::VariantType>(static_cast<unsigned>(element) |
                                                  static_cast<unsigned>(platform::VariantType::arrayFlag));
    }
    switch (type) {
        case CimType::sint8:
        case CimType::sint16:
            return platform::VariantType::i2;
        case CimType::uint8:
            return platform::VariantType::ui1;
        case CimType::uint16:
        case CimType::sint32:
        case CimType::uint32:
            return platform::VariantType::i4;
        case CimType::real32:
            return platform::VariantType::r4;
        case CimType::real64:
            return platform::VariantType::r8;
        case CimType::boolean:
            return platform::VariantType::boolean;
        default:
            return platform::VariantType::bstr;
    }
}

}  // namespace

CimValue BroughtTo(CimType type, CimValue value) {
    const bool isArray = std::holds_alternative<CimArray>(value.held);
    if (value.isNull() || (isArray && IsArray(type))) return value;
    if (IsArray(type)) return CimArray{{std::move(value)}};
    if (isArray) return {};
    if (type == CimType::string || type == CimType::reference) return AsText(std::move(value));
    if (type == CimType::boolean) return AsTruth(value);
    if (type == CimType::datetime) return AsDatetime(std::move(value));
    const CimValue number = AsNumber(value);
    return number.isNull() ? number : AsNumberOf(type, number);
}

platform::Variant VariantOf(CimType type, const CimValue& value) {
    CimValue brought = BroughtTo(type, value);
    platform::Variant variant;
    variant.declared = type;
    variant.type = brought.isNull() ? platform::VariantType::null : VariantTypeOf(type);
    if (brought.isNull()) return variant;
    if (const auto* list = std::get_if<CimArray>(&brought.held)) {
        for (const CimValue& element : list->elements) variant.elements.push_back(VariantOf(ElementOf(type), element));
        return variant;
    }
    if (const auto* real = std::get_if<double>(&brought.held)) {
        variant.real = *real;
    } else if (const auto* truth = std::get_if<bool>(&brought.held)) {
        variant.integer = *truth ? -1 : 0;
    } else if (variant.type == platform::VariantType::bstr) {
        variant.text = std::get<std::u16string>(AsText(std::move(brought)).held);
    } else {
        variant.integer = static_cast<std::int32_t>(std::get<std::int64_t>(brought.held));
    }
    return variant;
}

std::partial_ordering CompareValues(const CimValue& left, const CimValue& right) {
    const auto* leftText = std::get_if<std::u16string>(&left.held);
    const auto* rightText = std::get_if<std::u16string>(&right.held);
    if (leftText != nullptr && rightText != nullptr) return CompareNames(*leftText, *rightText) <=> 0;
    return WorthOf(left) <=> WorthOf(right);
}

CimValue NumberOfText(std::u16string_view text) {
    if (text.find_first_not_of(u"0123456789abcdefABCDEFxX+-.") != text.npos) return {};
    const std::string narrow(text.begin(), text.end());
    std::string_view digits = narrow;
    const bool isNegative = digits.starts_with('-');
    if (isNegative || digits.starts_with('+')) digits.remove_prefix(1);
    const bool isHex = digits.starts_with("0x") || digits.starts_with("0X");
    return isHex ? HexNumber(digits.substr(2), isNegative) : DecimalNumber(digits, isNegative);
}

}  // namespace kv::wql
