#include "tests/support/wmi_query.h"

#include <fmt/format.h>
#include <sstream>

#include "platform/utf.h"

namespace kv::test {

using namespace platform;

std::string OutcomeText(WmiStatus status, std::size_t rows, const std::vector<std::string>& notices) {
    std::string text = fmt::format("{:08x} {}", status, rows);
    for (const std::string& notice : notices) text += " " + notice;
    return text;
}

std::string VariantText(const Variant& value) {
    const auto isOf = [&value](auto... types) { return ((value.type == types) || ...); };
    if (isOf(VariantType::null)) return "NULL";
    if (isOf(VariantType::bstr)) return Utf8FromWide(value.text);
    if (isOf(VariantType::r4, VariantType::r8)) return fmt::format("{}", value.real);
    if (isOf(VariantType::boolean) && value.integer >= -1 && value.integer <= 0)
        return value.integer ? "true" : "false";
    const bool isWhole = isOf(VariantType::i2, VariantType::i4, VariantType::ui1, VariantType::boolean);
    if (isWhole) return std::to_string(value.integer);
    std::vector<std::string> elements;
    for (const Variant& element : value.elements) elements.push_back(VariantText(element));
    return fmt::format("[{}]", fmt::join(elements, ", "));
}

namespace {

void ReadRow(WmiHandle object, WmiResult& result) {
    const bool isFirst = result.rows.empty();
    WmiRow& row = result.rows.emplace_back();
    if (IsFailure(Wmi().BeginEnumeration(object))) return;
    std::u16string name;
    Variant value;
    while (Wmi().NextProperty(object, name, value) == wmi_status::ok) {
        if (isFirst) result.names.push_back(Utf8FromWide(name));
        row[Utf8FromWide(name)] = {value.type, VariantText(value)};
    }
    Wmi().EndEnumeration(object);
}

void ReadRows(WmiHandle enumerator, WmiResult& result) {
    WmiHandle object = 0;
    std::uint32_t count = 0;
    WmiStatus status = Wmi().Next(enumerator, object, count);
    for (; status == wmi_status::ok && count == 1; status = Wmi().Next(enumerator, object, count)) {
        ReadRow(object, result);
        Wmi().Release(object);
    }
    if (IsFailure(status)) result.status = status;
    for (const std::u16string& notice : Wmi().TakeNotices(enumerator)) result.notices.push_back(Utf8FromWide(notice));
}

}  // namespace

WmiResult RunWmiQuery(std::string_view query, std::u16string_view nameSpace) {
    WmiResult result;
    result.status = Wmi().CoInitializeEx();
    if (IsFailure(result.status)) return result;
    WmiHandle locator = 0;
    WmiHandle services = 0;
    WmiHandle enumerator = 0;
    result.status = Wmi().CoInitializeSecurity();
    if (!IsFailure(result.status)) result.status = Wmi().CoCreateInstance(locator);
    if (!IsFailure(result.status)) result.status = Wmi().ConnectServer(locator, nameSpace, services);
    if (!IsFailure(result.status)) result.status = Wmi().CoSetProxyBlanket(services);
    if (!IsFailure(result.status)) result.status = Wmi().ExecQuery(services, WideFromUtf8(query), enumerator);
    if (!IsFailure(result.status)) ReadRows(enumerator, result);
    if (services != 0) result.refusal = Utf8FromWide(Wmi().TakeRefusal(services));
    for (const WmiHandle handle : {enumerator, services, locator}) {
        if (handle != 0) Wmi().Release(handle);
    }
    Wmi().CoUninitialize();
    return result;
}

std::string PropertyText(const WmiRow& row, const std::string& name) {
    const auto found = row.find(name);
    return found == row.end() ? "(absent)" : found->second.text;
}

std::string PropertyTexts(const WmiRow& row, const std::string& names) {
    std::istringstream list(names);
    std::string texts;
    for (std::string name; std::getline(list, name, ',');)
        texts += (texts.empty() ? "" : " ") + PropertyText(row, name);
    return texts;
}

std::vector<std::string> RowTexts(const std::string& selected) {
    const WmiResult result = RunWmiQuery("SELECT " + selected);
    if (IsFailure(result.status)) return {fmt::format("{:08x}", result.status)};
    std::vector<std::string> rows;
    for (const WmiRow& row : result.rows)
        rows.push_back(PropertyTexts(row, selected.substr(0, selected.find(" FROM "))));
    return rows;
}

std::string TextsOf(const std::string& selected) { return fmt::format("{}", fmt::join(RowTexts(selected), "\n")); }

}  // namespace kv::test
