// Tables of properties that share rows, put together at compile time.
#pragma once

#include <algorithm>
#include <array>
#include <utility>

#include "wql/wmi_class.h"

namespace kv::wql {

namespace detail {

constexpr char16_t UpperCaseLetter(char16_t letter) {
    return letter >= u'a' && letter <= u'z' ? static_cast<char16_t>(letter - u'a' + u'A') : letter;
}

constexpr bool StandsBefore(const PropertyInfo& left, const PropertyInfo& right) {
    return std::ranges::lexicographical_compare(left.name, right.name, {}, UpperCaseLetter, UpperCaseLetter);
}

/// A table to fill in. A property cannot be made without a name.
template <std::size_t... At>
consteval auto BlankTable(std::index_sequence<At...>) {
    return std::array{(static_cast<void>(At), PropertyInfo(u"", CimType::string))...};
}

}  // namespace detail

/// One table of the shared properties, such as a superclass's, and a class's own. Both must be in order of name.
template <std::size_t Shared, std::size_t Own>
consteval auto Extend(const std::array<PropertyInfo, Shared>& shared, const PropertyInfo (&own)[Own]) {
    auto table = detail::BlankTable(std::make_index_sequence<Shared + Own>());
    std::ranges::merge(shared, own, table.begin(), detail::StandsBefore);
    return table;
}

}  // namespace kv::wql
