// Types and values of a class's properties, and the form in which the agent gets them. The routines keep no state: any
// thread may call them.
#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/utf.h"
#include "platform/wmi.h"

namespace kv::wql {

using platform::IsFailure;
using platform::WmiStatus;
namespace wmi_status = platform::wmi_status;

using platform::ArrayOf;
using platform::CimType;
using platform::IsArray;
using platform::NameOf;

struct CimValue;

/// The elements of an array.
struct CimArray {
    std::vector<CimValue> elements;
};

/// A value, or NULL. A whole number is held signed if it fits, else unsigned. Text is UTF-16; a datetime is its DMTF
/// text, a reference the path of an object.
struct CimValue {
    std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::u16string, CimArray> held;

    CimValue() = default;
    CimValue(bool value) : held(value) {}
    template <std::integral Number>
    CimValue(Number value) {
        if (std::in_range<std::int64_t>(value)) {
            held = static_cast<std::int64_t>(value);
        } else {
            held = static_cast<std::uint64_t>(value);
        }
    }
    CimValue(double value) : held(value) {}
    CimValue(std::u16string value) : held(std::move(value)) {}
    CimValue(std::u16string_view value) : held(std::u16string(value)) {}
    CimValue(const char16_t* value) : held(std::u16string(value)) {}
    CimValue(std::string_view utf8) : held(platform::WideFromUtf8(utf8)) {}
    CimValue(const std::string& utf8) : held(platform::WideFromUtf8(utf8)) {}
    CimValue(const char* utf8) : held(platform::WideFromUtf8(utf8)) {}
    CimValue(CimArray value) : held(value) {}
    template <class Value>
    CimValue(const std::optional<Value>& value) {
        if (value) *this = CimValue(*value);
    }

    bool isNull() const { return held.index() == 0; }
};

/// An array of things that a CimValue can be made of.
template <class Things>
CimArray ListOf(const Things& things) {
    CimArray list;
    for (const auto& thing : things) list.elements.emplace_back(thing);
    return list;
}

/// The same; NULL if it would be empty.
template <class Things>
CimValue ListOrNull(const Things& things) {
    CimArray list = ListOf(things);
    return list.elements.empty() ? CimValue() : CimValue(std::move(list));
}

/// Converts a value to a declared type. A whole number too large for the type loses its upper bits, like a counter that
/// wraps; a real number loses its fraction and is clamped to the type's limits. Text is read as a number and a number
/// written as text; a number becomes a datetime as microseconds since 1970. A single value becomes an array of one.
/// NULL if none of this is possible.
CimValue BroughtTo(CimType type, CimValue value);

/// The value, converted to its type, as the agent gets it by the rules of Windows: 64-bit numbers and datetimes as
/// text, unsigned 32-bit numbers as signed ones, unsigned 16-bit numbers as 32-bit ones.
platform::Variant VariantOf(CimType type, const CimValue& value);

/// Compares texts without regard to case, and numbers and truth values exactly. Unordered if one is NULL, an array or
/// not-a-number, or if only one is text.
std::partial_ordering CompareValues(const CimValue& left, const CimValue& right);

/// Reads a whole text as a number: an optional sign, then decimal digits with an optional fraction and exponent, or 0x
/// and hexadecimal digits. A whole number too large for 64 bits becomes a real one. NULL for any other text, and for a
/// number that a double cannot hold.
CimValue NumberOfText(std::u16string_view text);

/// The DMTF text of a moment in local time, "yyyymmddHHMMSS.mmmmmm+UUU" with the offset from UTC in minutes. Moments
/// outside the years 1 to 9999 are clamped to them.
std::u16string DmtfTime(std::int64_t microsecondsSince1970);

/// The moment that a DMTF text of full length names, in microseconds since 1970; absent for any other text.
std::optional<std::int64_t> MicrosecondsOfDmtf(std::u16string_view text);

/// The moment that a text in a query names, in microseconds since 1970: a DMTF text of full length, or a date in local
/// time, "20260131", "2026-01-31" or "1/31/2026", alone or with a time after a blank: "9:05", "09:05:30",
/// "09:05:30.25", "9:05 PM". A date without a time is its midnight. Absent for any other text.
std::optional<std::int64_t> MicrosecondsOfQueryText(std::u16string_view text);

}  // namespace kv::wql
