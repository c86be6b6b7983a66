// A program as its users meet it: its commands with their words and options. From this one description come the parsing
// of the command line, --help, the manual page and the shell's completion.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kv::commandline {

/// A plain word after a command. Words are told apart by their order; options may stand between them.
struct Word {
    std::string_view name;  // as KEY; a FILE, a PLAN and a DIR are completed by the shell
    std::string_view text;  // a phrase
    bool isOptional = false;
    bool isRepeated = false;          // the last word of a command: as many as follow, and Values gives them
    bool isCheckedByCommand = false;  // needed, but the command refuses its absence in its own words
    std::string_view choices = {};  // all that it may be, with blanks between, if that is known; the shell offers them
};

enum class Times { atMostOnce, once, any };

struct Option {
    std::string_view name;    // as "--port"
    std::string_view values;  // what its values are called, one word each; empty for a switch
    std::string_view text;    // a phrase
    Times times = Times::atMostOnce;
    std::string_view shortName = {};  // one dash and a letter, as "-p"; the value is found by the long name
    std::string_view choices = {};    // as those of a word
};

/// The short name, where an option has one, and the name.
std::string NamesOf(const Option& option, std::string_view separator);

/// What is told of something that has a name.
struct Item {
    std::string_view name;
    std::string_view text;
};

/// What was given on a command line: words and values of options by their names. An option with two values, and one
/// that was given twice, has two entries. A switch has one entry, an empty value.
using Given = std::multimap<std::string, std::string, std::less<>>;

struct Command {
    std::string_view name;  // one word; two when several commands share their first word
    std::string_view text;  // sentences; the first one alone stands in the list of commands
    std::span<const Word> words;
    std::span<const Option> options;
    void (*run)(const Given& given);
    std::string_view itemsTitle = {};
    std::span<const Item> items = {};
    /// Called before a wrong command line is told in the usual way, with its words and the reason. A command that has
    /// to answer in another way does so and throws ExitWith.
    void (*refused)(const std::vector<std::string>& words, const std::string& reason) = nullptr;
};

struct Program {
    std::string_view name;
    std::string_view summary;  // goes on from the name
    std::span<const std::span<const Command>> topics;
    std::span<const Item> groups;  // the first words that several commands share
    std::string (*notes)();        // the end of --help: sentences, a blank line between paragraphs
};

/// A wrong command line, and a thing that does not exist. Every other exception of a command is a failure.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
struct NotFoundError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Ends a command whose result is an exit code of its own; what it had to print is printed.
struct ExitWith {
    int code;
};

bool Has(const Given& given, std::string_view name);

/// The first value of an option, or a word; the fallback when it is absent.
std::string Value(const Given& given, std::string_view name, const std::string& fallback = "");

/// As Value. UsageError when it is absent or empty.
std::string NeededValue(const Given& given, std::string_view name);

/// All values of an option, or of a repeated word.
std::vector<std::string> Values(const Given& given, std::string_view name);

struct Range {
    std::int64_t low;
    std::int64_t high;
};

/// A decimal number; the fallback when it is absent. UsageError when it is not a number, or out of the range.
std::int64_t Number(const Given& given, std::string_view name, std::int64_t fallback, Range range);

}  // namespace kv::commandline
