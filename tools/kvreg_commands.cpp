// kvreg, the command-line tool of the agent's registry.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/backend.h"
#include "platform/clock.h"
#include "platform/console_tool.h"
#include "platform/messages.h"
#include "platform/registry_names.h"
#include "platform/utf.h"
#include "tools/reg_file.h"
#include "tools/registry_tree.h"
#include "tools/value_text.h"

namespace kv {

namespace {

using platform::Error;
using platform::RegistryType;
namespace error = platform::error;
namespace fs = std::filesystem;

enum ExitCode { exitSuccess = 0, exitFailure = 1, exitUsage = 2, exitMissing = 3 };

/// With a place for the sentence that tells where the registry is.
constexpr std::string_view help =
    R"(kvreg reads and changes the agent's registry.

  kvreg get KEY [NAME]              prints the data of a value
  kvreg set KEY NAME DATA           stores a text; makes the key where it is missing
  kvreg set KEY NAME DATA --dword   stores a number, decimal or 0x and hexadecimal
  kvreg delete KEY [NAME]           deletes a value; without NAME the key with all below it
  kvreg list KEY                    shows the values of a key, and its subkeys
  kvreg watch KEY                   prints a line for each change of a value in the key or below it, until interrupted
  kvreg export FILE [KEY]           writes the registry, or a key with all below it, to a .reg file
  kvreg import FILE                 carries out a .reg file; a malformed one changes nothing

KEY is a path under HKEY_LOCAL_MACHINE, such as 'Software\Halvorine\Kestrova\KVAgent\ServerInfo'; a leading
HKEY_LOCAL_MACHINE\ or HKLM\ is accepted. NAME '' is the default value of the key, and so is no NAME for get.
After -- a word that looks like an option is an argument: kvreg set KEY NAME -- --dword stores the text --dword. A --
at the very end is an argument itself.
{}

Exit code: 0 success, 1 failure, 2 wrong command line, 3 the thing asked for does not exist.
)";

constexpr std::uint32_t watchMilliseconds = 1000;  // until the next look whether anyone reads
constexpr std::uint32_t watchMissingMilliseconds = 200;
constexpr std::size_t maximumRegFileBytes = 64U << 20;  // far above any registry of the agent's

/// Ends the program with one line on standard error.
struct Quit {
    ExitCode code;
    std::string message;
};

/// Text that could not be printed is a failure too.
void FlushOutput() {
    if (std::fflush(stdout) != 0) throw Quit{exitFailure, "cannot write to standard output"};
}

/// What prints seldom would not notice otherwise that a pipe's reader has gone.
void RequireReader() {
    if (!platform::OutputHasReader()) throw Quit{exitFailure, "nobody reads standard output any more"};
}

[[noreturn]] void WrongUsage(const std::string& message) { throw Quit{exitUsage, message + " (see kvreg --help)"}; }

std::string WholePath(std::u16string_view path) {
    return path.empty() ? "HKEY_LOCAL_MACHINE" : "HKEY_LOCAL_MACHINE\\" + platform::Utf8FromWide(path);
}

std::string SystemText(Error failure) {
    const std::string text = platform::MessageInLine(failure);
    return text.empty() ? fmt::format("error {}", failure) : fmt::format("{} (error {})", text, failure);
}

bool IsGone(Error failure) { return failure == error::fileNotFound || failure == error::keyDeleted; }

/// Quits unless the result is success; missing says what is not there when that is the reason.
void Require(Error result, const std::string& what, const std::string& missing) {
    if (result == error::success) return;
    if (IsGone(result)) throw Quit{exitMissing, "there is no " + missing};
    throw Quit{exitFailure, fmt::format("{}: {}", what, SystemText(result))};
}

std::u16string WideArgument(const std::string& argument) {
    if (!platform::IsValidUtf8(argument)) WrongUsage("an argument is not UTF-8");
    return platform::WideFromUtf8(argument);
}

/// Of a path that does not begin with the one root that there is.
bool NamesAnotherRoot(std::string_view path) {
    constexpr std::string_view beginning = "hkey_";
    return path.size() >= beginning.size() &&
           std::equal(beginning.begin(), beginning.end(), path.begin(), [](char expected, char given) {
               return given == expected || (given >= 'A' && given <= 'Z' && given - 'A' + 'a' == expected);
           });
}

std::u16string KeyArgument(const std::string& argument) {
    const std::u16string wide = WideArgument(argument);
    std::u16string_view path;
    if (!SplitRootName(wide, path)) {
        if (NamesAnotherRoot(argument))
            WrongUsage(fmt::format("only HKEY_LOCAL_MACHINE exists here, not '{}'", argument));
        path = wide;
    }
    if (path.ends_with(u'\\')) path.remove_suffix(1);
    if (!platform::IsRegistryKeyPath(path)) WrongUsage(fmt::format("'{}' is not the path of a key", argument));
    return std::u16string(path);
}

std::u16string NameArgument(const std::string& argument) {
    std::u16string name = WideArgument(argument);
    if (!platform::IsRegistryValueName(name)) WrongUsage(fmt::format("'{}' cannot name a value", argument));
    return name;
}

std::vector<std::byte> DwordArgument(const std::string& argument) {
    const bool hexadecimal = argument.starts_with("0x") || argument.starts_with("0X");
    const std::string digits = hexadecimal ? argument.substr(2) : argument;
    const char* allowed = hexadecimal ? "0123456789abcdefABCDEF" : "0123456789";
    const bool fits = !digits.empty() && digits.size() <= 16 && digits.find_first_not_of(allowed) == std::string::npos;
    const unsigned long long number = fits ? std::stoull(digits, nullptr, hexadecimal ? 16 : 10) : ~0ULL;
    if (number > UINT32_MAX) WrongUsage(fmt::format("'{}' is not a number from 0 to 4294967295", argument));
    std::vector<std::byte> data;
    for (int shift = 0; shift < 32; shift += 8) data.push_back(static_cast<std::byte>(number >> shift));
    return data;
}

struct CommandLine {
    std::vector<std::string> arguments;  // without the command
    bool dword = false;
};

std::string ValueTitle(std::u16string_view path, std::u16string_view name) {
    return fmt::format("value {} in {}", NameInLine(name), WholePath(path));
}

void Get(const CommandLine& line) {
    const std::u16string path = KeyArgument(line.arguments[0]);
    const std::u16string name = line.arguments.size() > 1 ? NameArgument(line.arguments[1]) : u"";
    RegFileValue value;
    Require(ReadValue(path, name, value), "cannot read the " + ValueTitle(path, name), ValueTitle(path, name));
    fmt::print("{}\n", PlainData(value));
}

void Set(const CommandLine& line) {
    const std::u16string path = KeyArgument(line.arguments[0]);
    RegFileValue value;
    value.name = NameArgument(line.arguments[1]);
    value.type = line.dword ? RegistryType::dword : RegistryType::text;
    value.data = line.dword ? DwordArgument(line.arguments[2]) : DataOfText(WideArgument(line.arguments[2]));
    Require(WriteValue(path, value), "cannot write the " + ValueTitle(path, value.name), "key " + WholePath(path));
}

void Delete(const CommandLine& line) {
    const std::u16string path = KeyArgument(line.arguments[0]);
    if (line.arguments.size() > 1) {
        const std::u16string name = NameArgument(line.arguments[1]);
        Require(DeleteValue(path, name), "cannot delete the " + ValueTitle(path, name), ValueTitle(path, name));
        return;
    }
    if (path.empty()) WrongUsage("the root itself cannot be deleted");
    const std::string title = "key " + WholePath(path);
    Require(platform::Registry().RegDeleteTreeW(platform::RootKey::localMachine, path), "cannot delete the " + title,
            title);
}

std::string ValueLine(const RegFileValue& value) {
    return fmt::format("    {}    {}    {}", NameInLine(value.name), TypeName(value.type), DataInLine(value));
}

void List(const CommandLine& line) {
    const std::u16string path = KeyArgument(line.arguments[0]);
    const std::string title = WholePath(path);
    KeyContents contents;
    Require(ReadKey(path, contents), "cannot read the key " + title, "key " + title);
    fmt::print("{}\n", title);
    for (const RegFileValue& value : contents.values) fmt::print("{}\n", ValueLine(value));
    for (const std::u16string& name : contents.subkeys) fmt::print("{}\\{}\n", title, NameInLine(name));
}

/// Every value of a tree, by its key's path and its name.
using Snapshot = std::map<std::pair<std::u16string, std::u16string>, RegFileValue>;

/// The tree's state; empty when the key does not exist.
Snapshot TakeSnapshot(const std::u16string& path) {
    RegFile tree;
    std::u16string failedAt;
    const Error result = ReadTree(path, tree, failedAt);
    if (!IsGone(result)) Require(result, "cannot read the key " + WholePath(failedAt), "");
    Snapshot snapshot;
    for (RegFileKey& key : tree) {
        for (RegFileValue& value : key.values) snapshot[{key.path, value.name}] = std::move(value);
    }
    return snapshot;
}

void PrintChanges(const Snapshot& before, const Snapshot& after) {
    for (const auto& [place, value] : after) {
        const auto former = before.find(place);
        const bool same =
            former != before.end() && former->second.type == value.type && former->second.data == value.data;
        if (!same) fmt::print("set      {}{}\n", WholePath(place.first), ValueLine(value));
    }
    for (const auto& [place, value] : before) {
        if (after.contains(place)) continue;
        fmt::print("deleted  {}    {}\n", WholePath(place.first), NameInLine(value.name));
    }
    FlushOutput();
}

/// Until interrupted, or until nobody reads. A key that is deleted is waited for until it is there again.
void Watch(const CommandLine& line) {
    const std::u16string path = KeyArgument(line.arguments[0]);
    platform::RegistryKey key = 0;
    const auto open = [&] {
        return platform::Registry().RegOpenKeyExW(platform::RootKey::localMachine, path, platform::RegistryAccess::read,
                                                  key);
    };
    const std::string what = "cannot watch the key " + WholePath(path);
    Require(open(), what, "key " + WholePath(path));
    Snapshot before = TakeSnapshot(path);
    while (true) {
        RequireReader();
        const Error result = key ? platform::Registry().RegNotifyChangeKeyValue(key, watchMilliseconds) : open();
        if (result == error::waitTimeout) continue;
        if (IsGone(result)) {
            if (key) platform::Registry().RegCloseKey(key);
            key = 0;
            platform::Clock().Sleep(watchMissingMilliseconds);
        } else {
            Require(result, what, "");
        }
        Snapshot after = TakeSnapshot(path);
        PrintChanges(before, after);
        before = std::move(after);
    }
}

void Export(const CommandLine& line) {
    const std::u16string path = line.arguments.size() > 1 ? KeyArgument(line.arguments[1]) : u"";
    RegFile tree;
    std::u16string failedAt;
    const Error result = ReadTree(path, tree, failedAt);
    Require(result, "cannot read the key " + WholePath(failedAt), "key " + WholePath(path));
    const std::string& file = line.arguments[0];
    const std::string failure = platform::WriteFileWhole(file, PrintRegFile(tree));
    if (!failure.empty()) throw Quit{exitFailure, fmt::format("cannot write {}: {}", file, failure)};
}

std::string ReadFileWhole(const std::string& name) {
    const fs::path path(std::u8string(name.begin(), name.end()));
    std::error_code ignored;  // what cannot be asked cannot be opened either
    const fs::file_status status = fs::status(path, ignored);
    if (status.type() == fs::file_type::not_found) throw Quit{exitMissing, fmt::format("there is no file {}", name)};
    std::error_code failure;
    if (fs::is_directory(status)) failure = std::make_error_code(std::errc::is_a_directory);
    std::string bytes;
    if (!failure) {
        std::ifstream file(path, std::ios::binary);
        if (!file) failure = {errno, std::generic_category()};
        for (char buffer[65536]; file && bytes.size() <= maximumRegFileBytes;) {
            file.read(buffer, sizeof buffer);
            bytes.append(buffer, static_cast<std::size_t>(file.gcount()));
        }
        if (file.bad()) failure = std::make_error_code(std::errc::io_error);
    }
    if (failure) throw Quit{exitFailure, fmt::format("cannot read {}: {}", name, failure.message())};
    if (bytes.size() > maximumRegFileBytes) throw Quit{exitFailure, fmt::format("{} is larger than 64 MB", name)};
    return bytes;
}

void Import(const CommandLine& line) {
    const std::string& path = line.arguments[0];
    RegFile file;
    RegFileError parseError;
    if (!ParseRegFile(ReadFileWhole(path), file, parseError)) {
        throw Quit{exitFailure,
                   fmt::format("{}:{}: {}; nothing was imported", path, parseError.line, parseError.message)};
    }
    std::u16string failedAt;
    const Error result = ApplyRegFile(file, failedAt);
    Require(result, "the import stopped at the key " + WholePath(failedAt), "key " + WholePath(failedAt));
}

struct Command {
    const char* name;
    std::size_t minimum;  // arguments after it
    std::size_t maximum;
    void (*run)(const CommandLine& line);
};

constexpr Command commands[] = {
    {"get", 1, 2, Get},     {"set", 3, 3, Set},       {"delete", 1, 2, Delete}, {"list", 1, 1, List},
    {"watch", 1, 1, Watch}, {"export", 1, 2, Export}, {"import", 1, 1, Import},
};

bool AsksForHelp(std::string_view argument) { return argument == "--help" || argument == "-h"; }

void Run(std::span<const std::string> words) {
    if (words.empty()) WrongUsage("a command is missing");
    if (AsksForHelp(words[0]) || (words.size() == 2 && AsksForHelp(words[1]))) {
        fmt::print(help, platform::RegistryPlace());
        return;
    }
    CommandLine line;
    bool optionsEnded = false;
    for (const std::string& word : words.subspan(1)) {
        const bool last = &word == &words.back();  // -- is stored too, as the placeholder of an empty text
        if (!optionsEnded && word == "--" && !last) {
            optionsEnded = true;
        } else if (!optionsEnded && word == "--dword") {
            line.dword = true;
        } else {
            line.arguments.push_back(word);
        }
    }
    for (const Command& command : commands) {
        if (words[0] != command.name) continue;
        if (line.arguments.size() < command.minimum) WrongUsage(words[0] + ": an argument is missing");
        if (line.arguments.size() > command.maximum) WrongUsage(words[0] + ": too many arguments");
        if (line.dword && command.run != Set) WrongUsage("--dword goes with set only");
        return command.run(line);
    }
    WrongUsage(fmt::format("unknown command '{}'", words[0]));
}

}  // namespace

}  // namespace kv

int main(int argc, char** argv) {
    try {
        platform::InstallBackend();
        platform::InstallRegistry();
        const std::vector<std::string> words = platform::CommandLineWords(argc, argv);
        kv::Run(std::span(words).subspan(words.empty() ? 0 : 1));
        kv::FlushOutput();
        return kv::exitSuccess;
    } catch (const kv::Quit& quit) {
        static_cast<void>(std::fflush(stdout));
        fmt::print(stderr, "kvreg: {}\n", kv::InLine(quit.message));
        return quit.code;
    } catch (const std::exception& failure) {
        fmt::print(stderr, "kvreg: {}\n", failure.what());
        return kv::exitFailure;
    }
}
