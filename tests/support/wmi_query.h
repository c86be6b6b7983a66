// A query through the operations of platform/wmi.h, whose rows come as texts to compare.
#pragma once

#include <gtest/gtest.h>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/backend.h"
#include "platform/wmi.h"

namespace kv::test {

struct WmiProperty {
    platform::VariantType type = platform::VariantType::empty;
    std::string text;  // of VariantText
};

using WmiRow = std::map<std::string, WmiProperty>;

struct WmiResult {
    platform::WmiStatus status = 0;  // of the first step that failed; 0 for success
    std::vector<WmiRow> rows;
    std::vector<std::string> names;    // of the first row's properties, in their order
    std::vector<std::string> notices;  // UTF-8
    std::string refusal;               // of TakeRefusal
};

/// "80041004 0 notice notice": the status, how many rows there are, and the notices.
std::string OutcomeText(platform::WmiStatus status, std::size_t rows, const std::vector<std::string>& notices);
inline std::string Outcome(const WmiResult& result) {
    return OutcomeText(result.status, result.rows.size(), result.notices);
}

/// A number in decimal, "true" or "false", the text itself in UTF-8, "NULL", or the elements of an array in brackets.
std::string VariantText(const platform::Variant& value);

WmiResult RunWmiQuery(std::string_view query, std::u16string_view nameSpace = u"ROOT\\CIMV2");

/// The text of a row's property; "(absent)" if the row does not have it.
std::string PropertyText(const WmiRow& row, const std::string& name);

/// The texts of several properties, with blanks between them. names: with commas between them.
std::string PropertyTexts(const WmiRow& row, const std::string& names);

/// The texts of what "SELECT A,B FROM C WHERE ..." finds, as PropertyTexts has them, one for each row; the status in
/// eight digits if the query fails. selected: without the word SELECT.
std::vector<std::string> RowTexts(const std::string& selected);

/// The same with line ends between the rows.
std::string TextsOf(const std::string& selected);

/// A fixture that installs WMI.
struct WmiTest : ::testing::Test {
    WmiTest() {
        platform::InstallBackend();
        platform::InstallWmi();
    }
};

}  // namespace kv::test
