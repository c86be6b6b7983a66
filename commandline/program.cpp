#include "commandline/program.h"

#include <charconv>
#include <fmt/format.h>

namespace kv::commandline {

std::string NamesOf(const Option& option, std::string_view separator) {
    if (option.shortName.empty()) return std::string(option.name);
    return fmt::format("{}{}{}", option.shortName, separator, option.name);
}

bool Has(const Given& given, std::string_view name) { return given.find(name) != given.end(); }

std::string Value(const Given& given, std::string_view name, const std::string& fallback) {
    const auto found = given.lower_bound(name);
    return found == given.end() || found->first != name ? fallback : found->second;
}

std::string NeededValue(const Given& given, std::string_view name) {
    std::string value = Value(given, name);
    if (value.empty()) throw UsageError(fmt::format("{} is {}", name, Has(given, name) ? "empty" : "missing"));
    return value;
}

std::vector<std::string> Values(const Given& given, std::string_view name) {
    std::vector<std::string> values;
    const auto [first, last] = given.equal_range(name);
    for (auto entry = first; entry != last; ++entry) values.push_back(entry->second);
    return values;
}

std::int64_t Number(const Given& given, std::string_view name, std::int64_t fallback, Range range) {
    if (!Has(given, name)) return fallback;
    const std::string text = Value(given, name);
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < range.low || number > range.high)
        throw UsageError(fmt::format("{} takes a number from {} to {}, not '{}'", name, range.low, range.high, text));
    return number;
}

}  // namespace kv::commandline
