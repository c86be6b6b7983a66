#include "lab/command_line.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fmt/format.h>

namespace kv::lab {

Options ParseOptions(const Command& command, const std::vector<std::string>& words) {
    Options options;
    std::size_t plain = 0;
    for (std::size_t at = 0; at < words.size(); ++at) {
        if (plain < command.words.size() && !words[at].starts_with("--")) {
            options.emplace(command.words[plain++], std::vector<std::string>{words[at]});
            continue;
        }
        const auto known = std::find_if(command.options.begin(), command.options.end(),
                                        [&](const Option& option) { return option.name == words[at]; });
        if (known == command.options.end())
            throw UsageError((words[at].starts_with("-") ? "unknown option '" : "unexpected '") + words[at] + "'");
        if (words.size() - at - 1 < known->values)
            throw UsageError(fmt::format("{} needs {}", words[at], known->values == 1 ? "a value" : "two values"));
        const auto first = words.begin() + static_cast<std::ptrdiff_t>(at) + 1;
        options.emplace(words[at], std::vector<std::string>(first, first + static_cast<std::ptrdiff_t>(known->values)));
        at += known->values;
    }
    if (plain < command.words.size()) throw UsageError(fmt::format("{} is missing", command.words[plain]));
    return options;
}

bool Has(const Options& options, std::string_view name) { return options.find(name) != options.end(); }

std::string Value(const Options& options, std::string_view name, const std::string& fallback) {
    const auto found = options.find(name);
    return found == options.end() ? fallback : found->second.front();
}

std::string NeededValue(const Options& options, std::string_view name) {
    std::string value = Value(options, name);
    if (value.empty()) throw UsageError(fmt::format("{} is missing", name));
    return value;
}

std::vector<std::string> Values(const Options& options, std::string_view name) {
    std::vector<std::string> values;
    const auto [first, last] = options.equal_range(name);
    for (auto given = first; given != last; ++given) values.push_back(given->second.front());
    return values;
}

std::int64_t Number(const Options& options, std::string_view name, std::int64_t fallback, Range range) {
    if (!Has(options, name)) return fallback;
    const std::string text = Value(options, name);
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < range.low || number > range.high)
        throw UsageError(fmt::format("{} takes a number from {} to {}, not '{}'", name, range.low, range.high, text));
    return number;
}

Store OpenExisting(const Options& options) {
    const std::string path = NeededValue(options, "--database");
    if (!std::filesystem::exists(path)) throw NotFoundError("there is no database " + path);
    return OpenStore(path);
}

void PrintLine(const std::string& line) {
    if (std::puts(line.c_str()) < 0) throw std::runtime_error("cannot write to standard output");
}

void Flush() {
    if (std::fflush(stdout) != 0) throw std::runtime_error("cannot write to standard output");
}

}  // namespace kv::lab
