// What the commands of kvlab are made of: their options, and how they end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "lab/store.h"

namespace kv::lab {

/// A wrong command line, and a thing that does not exist.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
struct NotFoundError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// An option and the number of its values.
struct Option {
    std::string_view name;
    std::size_t values = 0;
};

/// What was given: options, each with its values, one given again adds to them; and plain words by the names that the
/// command has for them.
using Options = std::multimap<std::string, std::vector<std::string>, std::less<>>;

struct Command {
    std::string_view name;
    std::vector<Option> options;
    std::vector<std::string_view> words;  // plain words, all of them needed, in this order
    void (*run)(const Options&);
    std::string_view help;
};

/// UsageError when they are not what the command takes.
Options ParseOptions(const Command& command, const std::vector<std::string>& words);

bool Has(const Options& options, std::string_view name);

/// First value of an option, or a plain word.
std::string Value(const Options& options, std::string_view name, const std::string& fallback = "");

/// UsageError when it is missing or empty.
std::string NeededValue(const Options& options, std::string_view name);

/// The value of each time that an option was given.
std::vector<std::string> Values(const Options& options, std::string_view name);

struct Range {
    std::int64_t low;
    std::int64_t high;
};
std::int64_t Number(const Options& options, std::string_view name, std::int64_t fallback, Range range);

/// The database of a server that has been started at some time.
Store OpenExisting(const Options& options);

/// Both raise std::runtime_error when standard output cannot be written.
void PrintLine(const std::string& line);
void Flush();

/// The commands by topic, in the order of the help.
std::span<const Command> ServerCommands();         // serve, records, agents
std::span<const Command> RequestCommands();        // request
std::span<const Command> ConfigurationCommands();  // conf
std::span<const Command> FaultCommands();          // fault

}  // namespace kv::lab
