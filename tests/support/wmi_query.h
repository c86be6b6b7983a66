// A query through the operations of platform/wmi.h, step by step, with its rows as texts to compare.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/wmi.h"

namespace kv::test {

struct WmiProperty {
    platform::VariantType type = platform::VariantType::empty;
    std::string text;  // UTF-8: the value in decimal, "true" or "false", the text; "NULL"; "array"
};

using WmiRow = std::map<std::string, WmiProperty>;

struct WmiResult {
    platform::WmiStatus status = 0;  // of the first step that failed, else 0
    std::vector<WmiRow> rows;
    std::vector<std::string> names;    // of the first row, in the order of its enumeration
    std::vector<std::string> notices;  // UTF-8
};

/// As WmiProperty tells it.
std::string TextOf(const platform::Variant& value);

WmiResult RunWmiQuery(std::string_view query, std::u16string_view nameSpace = u"ROOT\\CIMV2");

/// The text of one property of a row; "(none)" where the row has no such property.
std::string TextOf(const WmiRow& row, const std::string& name);

/// Those of several, which are named with commas between, with blanks between.
std::string TextsOf(const WmiRow& row, const std::string& names);

}  // namespace kv::test
