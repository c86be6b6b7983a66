#include "tools/kvreg/kvreg_commands.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "commandline/confirm.h"
#include "commandline/run.h"
#include "foundation/registry_failure.h"
#include "foundation/text.h"
#include "platform/backend.h"
#include "platform/clock.h"
#include "platform/console_tool.h"
#include "platform/registry_names.h"
#include "platform/utf.h"
#include "tools/kvreg/key_judgement.h"
#include "tools/kvreg/reg_file.h"
#include "tools/kvreg/registry_tree.h"
#include "tools/kvreg/value_judgement.h"
#include "tools/kvreg/value_text.h"

namespace kv {

namespace {

using platform::Error;
using platform::RegistryType;
namespace error = platform::error;
namespace fs = std::filesystem;

using commandline::Given;
using commandline::Has;
using commandline::NotFoundError;
using commandline::UsageError;
using commandline::Value;

constexpr std::uint32_t watchMilliseconds = 1000;  // between two checks whether anyone reads
constexpr std::uint32_t watchMissingMilliseconds = 200;
constexpr std::size_t maximumRegFileBytes = 64U << 20;  // far more than an agent's registry needs

/// A command that rarely prints would not otherwise notice that the reader of its pipe has gone.
void RequireReader() {
    if (!platform::OutputHasReader()) throw std::runtime_error("nobody reads standard output any more");
}

std::string WholePath(std::u16string_view path) {
    return path.empty() ? "HKEY_LOCAL_MACHINE" : "HKEY_LOCAL_MACHINE\\" + platform::Utf8FromWide(path);
}

std::string Hint(const std::string& text) { return text.empty() ? "" : "; " + text; }

/// Throws unless the result is success. If something does not exist, missing says what, and hint what was meant.
void Require(Error result, const std::string& what, const std::string& missing, const std::string& hint = "") {
    if (result == error::success) return;
    if (IsGone(result)) {
        const std::string why = EmptyRegistryText();
        throw NotFoundError("there is no " + missing + (why.empty() ? Hint(hint) : ", because " + why));
    }
    throw std::runtime_error(fmt::format("{}: {}", what, RegistryFailureText(result)));
}

/// Throws when the registry's directory is missing. It would be made, and so would be every one of a mistyped path.
void RequireRegistryDirectory(const char* done) {
    if (const std::string missing = MissingRegistryText(); !missing.empty())
        throw NotFoundError(fmt::format("{}; nothing was {}", missing, done));
}

/// Says that a change has made the registry: a slip in KVAGENT_STATE_DIR may be why.
void TellNewRegistry(bool wasNew) {
    if (wasNew && !IsRegistryNew()) fmt::print(stderr, "kvreg: made a new registry at {}\n", platform::RegistryFile());
}

std::u16string WideArgument(const std::string& argument) {
    if (!platform::IsValidUtf8(argument)) throw UsageError("an argument is not UTF-8");
    return platform::WideFromUtf8(argument);
}

/// Whether a path begins like a root other than HKEY_LOCAL_MACHINE, which was looked for before.
bool NamesAnotherRoot(std::u16string_view path) {
    constexpr std::u16string_view beginning = u"HKEY_";
    const std::u16string_view root = path.substr(0, path.find(u'\\'));
    if (CompareIgnoreCase(root.substr(0, beginning.size()), beginning) == 0) return true;
    constexpr std::u16string_view shortNames[] = {u"HKCU", u"HKCR", u"HKU", u"HKCC"};
    return std::any_of(std::begin(shortNames), std::end(shortNames),
                       [root](std::u16string_view name) { return CompareIgnoreCase(root, name) == 0; });
}

/// A path as it was typed, without the colon that PowerShell puts behind the root's name.
std::u16string WithoutColon(std::u16string path) {
    const std::size_t end = std::min(path.find(u'\\'), path.size());
    if (end > 0 && path[end - 1] == u':') path.erase(end - 1, 1);
    return path;
}

/// What becomes of a path that looks like a slip.
enum class Slip { warned, refused };

std::u16string KeyArgument(const std::string& argument, KeyUse use = KeyUse::looking, Slip slip = Slip::warned) {
    const std::u16string wide = WithoutColon(WideArgument(argument));
    std::u16string_view below;
    const bool hasRoot = SplitRootName(wide, below);
    std::u16string_view path = hasRoot ? below : wide;
    if (path.ends_with(u'\\')) path.remove_suffix(1);
    if (slip == Slip::refused) RefuseKeySlip(path);
    const std::string doubt = KeyDoubt(path, use);
    if (!hasRoot && NamesAnotherRoot(wide))
        throw UsageError("only HKEY_LOCAL_MACHINE exists here" +
                         (doubt.empty() ? fmt::format(", not '{}'", argument) : Hint(doubt)));
    if (!platform::IsRegistryKeyPath(path))
        throw UsageError(fmt::format("'{}' is not the path of a key{}", argument, BackslashHint(path)));
    Warn(doubt);
    return std::u16string(path);
}

std::u16string NameArgument(const std::string& argument) {
    std::u16string name = WideArgument(argument);
    if (!platform::IsRegistryValueName(name)) throw UsageError(fmt::format("'{}' cannot name a value", argument));
    return name;
}

std::vector<std::byte> DwordArgument(const std::string& argument) {
    const bool hexadecimal = argument.starts_with("0x") || argument.starts_with("0X");
    const std::string digits = hexadecimal ? argument.substr(2) : argument;
    const char* allowed = hexadecimal ? "0123456789abcdefABCDEF" : "0123456789";
    const bool fits = !digits.empty() && digits.size() <= 16 && digits.find_first_not_of(allowed) == std::string::npos;
    const unsigned long long number = fits ? std::stoull(digits, nullptr, hexadecimal ? 16 : 10) : ~0ULL;
    if (number > UINT32_MAX) throw UsageError(fmt::format("'{}' is not a number from 0 to 4294967295", argument));
    std::vector<std::byte> data;
    for (int shift = 0; shift < 32; shift += 8) data.push_back(static_cast<std::byte>(number >> shift));
    return data;
}

/// As Require, for what needs a key.
void RequireKey(Error result, const std::string& what, std::u16string_view path) {
    Require(result, what, "key " + WholePath(path), JoinedValueHint(path));
}

std::string ValueTitle(std::u16string_view path, std::u16string_view name) {
    return fmt::format("value {} in {}", NameInLine(name), WholePath(path));
}

void Get(const Given& given) {
    const std::u16string path = KeyArgument(Value(given, "KEY"));
    const std::u16string name = NameArgument(Value(given, "NAME"));
    RegFileValue value;
    const Error result = ReadValue(path, name, value);
    KeyContents contents;
    const bool isKeyGone = IsGone(result) && IsGone(ReadKey(path, contents));
    const std::string joined = JoinedValueHint(path);
    Require(result, "cannot read the " + ValueTitle(path, name),
            isKeyGone ? "key " + WholePath(path) : ValueTitle(path, name),
            joined.empty() ? NameHint(path, name) : joined);
    fmt::print("{}\n", PlainData(value));
}

void Set(const Given& given) {
    const std::u16string path =
        KeyArgument(Value(given, "KEY"), KeyUse::storing, Has(given, "--force") ? Slip::warned : Slip::refused);
    if (path.empty() && !Has(given, "--force"))
        throw UsageError("KEY is the root itself, where no program looks for a value; --force stores it there");
    if (!Has(given, "DATA")) throw UsageError("DATA is required");
    RegFileValue value;
    const std::string data = Value(given, "DATA");
    const bool isNumber = Has(given, "--dword");
    value.name = NameArgument(Value(given, "NAME"));
    value.type = isNumber ? RegistryType::dword : RegistryType::text;
    value.data = isNumber ? DwordArgument(data) : DataOfText(WideArgument(data));
    if (!Has(given, "--force")) RefuseFault(path, value);
    RequireRegistryDirectory("stored");
    WarnOfValue(path, value);
    const bool isNew = IsRegistryNew();
    const Error result = WriteValue(path, value);
    TellNewRegistry(isNew);
    Require(result, "cannot write the " + ValueTitle(path, value.name), "key " + WholePath(path));
}

/// Throws unless a person at the terminal agrees.
void ConfirmDeletion(const std::u16string& path, const std::string& title) {
    RegFile tree;
    std::u16string failedAt;
    RequireKey(ReadTree(path, tree, failedAt), "cannot read the key " + WholePath(failedAt), path);
    std::size_t values = 0;
    for (const RegFileKey& key : tree) values += key.values.size();
    const std::string question =
        fmt::format("Delete the {} with {} values, in it and in {} keys below it?", title, values, tree.size() - 1);
    if (!commandline::Confirmed(question)) throw std::runtime_error("nothing was deleted");
}

void Delete(const Given& given) {
    const std::u16string path = KeyArgument(Value(given, "KEY"));
    if (Has(given, "NAME")) {
        const std::u16string name = NameArgument(Value(given, "NAME"));
        const std::string title = ValueTitle(path, name);
        Require(DeleteValue(path, name), "cannot delete the " + title, title, NameHint(path, name));
        return;
    }
    if (path.empty()) throw UsageError("the root itself cannot be deleted");
    const std::string title = "key " + WholePath(path);
    if (!Has(given, "--yes")) ConfirmDeletion(path, title);
    RequireKey(platform::Registry().RegDeleteTreeW(platform::RootKey::localMachine, path), "cannot delete the " + title,
               path);
}

std::string ValueLine(const RegFileValue& value) {
    return fmt::format("    {}    {}    {}", NameInLine(value.name), TypeName(value.type), DataInLine(value));
}

void List(const Given& given) {
    const std::u16string path = KeyArgument(Value(given, "KEY"));
    const std::string title = WholePath(path);
    KeyContents contents;
    RequireKey(ReadKey(path, contents), "cannot read the key " + title, path);
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
    commandline::FlushOutput();
}

/// Runs until interrupted, or until nobody reads. If the key is deleted, waits until it exists again.
void Watch(const Given& given) {
    const std::u16string path = KeyArgument(Value(given, "KEY"));
    platform::OwnedRegistryKey key;
    const auto open = [&] {
        return platform::Registry().RegOpenKeyExW(platform::RootKey::localMachine, path, platform::RegistryAccess::read,
                                                  key.Place());
    };
    const std::string what = "cannot watch the key " + WholePath(path);
    RequireKey(open(), what, path);
    Snapshot before = TakeSnapshot(path);
    while (true) {
        RequireReader();
        const Error result = key ? platform::Registry().RegNotifyChangeKeyValue(key.get(), watchMilliseconds) : open();
        if (result == error::waitTimeout) continue;
        if (IsGone(result)) {
            key.Close();
            platform::Clock().Sleep(watchMissingMilliseconds);
        } else {
            Require(result, what, "");
        }
        Snapshot after = TakeSnapshot(path);
        PrintChanges(before, after);
        before = std::move(after);
    }
}

/// The first bytes of a file: all of it, or more than mostBytes.
std::string ReadBeginning(const std::string& name, std::size_t mostBytes) {
    const fs::path path(std::u8string(name.begin(), name.end()));
    std::error_code ignored;  // a file without a status cannot be opened either
    const fs::file_status status = fs::status(path, ignored);
    if (status.type() == fs::file_type::not_found) throw NotFoundError(fmt::format("there is no file {}", name));
    std::error_code failure;
    if (fs::is_directory(status)) failure = std::make_error_code(std::errc::is_a_directory);
    std::string bytes;
    if (!failure) {
        std::ifstream file(path, std::ios::binary);
        if (!file) failure = {errno, std::generic_category()};
        for (char buffer[65536]; file && bytes.size() <= mostBytes;) {
            file.read(buffer, sizeof buffer);
            bytes.append(buffer, static_cast<std::size_t>(file.gcount()));
        }
        if (file.bad()) failure = std::make_error_code(std::errc::io_error);
    }
    if (failure) throw std::runtime_error(fmt::format("cannot read {}: {}", name, failure.message()));
    return bytes;
}

std::string ReadFileWhole(const std::string& name) {
    std::string bytes = ReadBeginning(name, maximumRegFileBytes);
    if (bytes.size() > maximumRegFileBytes) throw std::runtime_error(fmt::format("{} is larger than 64 MB", name));
    return bytes;
}

/// Whether a word can only be meant as a key.
bool LooksLikeKey(const std::string& word) {
    if (!platform::IsValidUtf8(word)) return false;
    const std::u16string wide = WithoutColon(platform::WideFromUtf8(word));
    std::u16string_view below;
    if (SplitRootName(wide, below) || IsAgentKeyByLetters(wide)) return true;
    std::u16string_view path = wide;
    if (path.ends_with(u'\\')) path.remove_suffix(1);
    KeyContents contents;
    return path.find(u'\\') != std::u16string_view::npos && platform::IsRegistryKeyPath(path) &&
           ReadKey(path, contents) == error::success;
}

/// Throws when the export would destroy something: the registry, or without force another file than an export.
void RefuseToReplace(const std::string& file, bool force) {
    if (platform::LeadsToRegistryFile(file))
        throw UsageError(
            fmt::format("{} belongs to the registry itself, whose file is {}; FILE is where the export "
                        "goes, and KEY what is exported",
                        file, platform::RegistryFile()));
    if (force || !platform::ReplacesFile(file)) return;
    const std::string bytes = ReadBeginning(file, 0);
    if (!bytes.empty() && !BeginsAsRegFile(bytes))
        throw UsageError(fmt::format("{} is not a .reg file; --force replaces it", file));
}

void Export(const Given& given) {
    const std::string file = commandline::NeededValue(given, "FILE");
    const std::string keyWord = Value(given, "KEY");
    if (LooksLikeKey(file))
        throw UsageError(fmt::format("'{0}' is a key; FILE comes first, then KEY: kvreg export {1} \"{0}\"", file,
                                     keyWord.empty() ? "FILE" : keyWord));
    const std::u16string path = KeyArgument(keyWord);
    RefuseToReplace(file, Has(given, "--force"));
    RegFile tree;
    std::u16string failedAt;
    const Error result = ReadTree(path, tree, failedAt);
    const std::string hint = path.ends_with(u".reg") ? "FILE comes first, then KEY" : JoinedValueHint(path);
    Require(result, "cannot read the key " + WholePath(failedAt), "key " + WholePath(path), hint);
    const std::string failure = platform::WriteFileWhole(file, PrintRegFile(tree));
    if (!failure.empty()) throw std::runtime_error(fmt::format("cannot write {}: {}", file, failure));
}

void Import(const Given& given) {
    const std::string path = commandline::NeededValue(given, "FILE");
    RegFile file;
    RegFileError parseError;
    if (!ParseRegFile(ReadFileWhole(path), file, parseError)) {
        throw std::runtime_error(
            fmt::format("{}:{}: {}; nothing was imported", path, parseError.line, parseError.message));
    }
    RequireRegistryDirectory("imported");
    WarnOfFile(file, path);
    std::u16string failedAt;
    const bool isNew = IsRegistryNew();
    const Error result = ApplyRegFile(file, failedAt);
    TellNewRegistry(isNew);
    Require(result, "the import stopped at the key " + WholePath(failedAt), "key " + WholePath(failedAt));
}

using commandline::Command;
using commandline::Option;
using commandline::Word;

constexpr Word key{"KEY", "path of the key"};
constexpr Word optionalName{"NAME", "name of the value", true};

constexpr Word getWords[] = {key,
                             {"NAME", "name of the value; '', the default, is the default value of the key", true}};
constexpr Word setWords[] = {key,
                             {"NAME", "name of the value; '' is the default value of the key"},
                             {"DATA", "what to store", false, false, true}};
constexpr Option setOptions[] = {
    {"--dword", "", "DATA is a number from 0 to 4294967295, decimal or 0x and hexadecimal"},
    {"--force", "", "stores what the agent cannot use, too"}};
constexpr Option exportOptions[] = {{"--force", "", "replaces a file that is not a .reg file, too"}};
constexpr Option deleteOptions[] = {{"--yes", "", "deletes a whole key without a question"}};
constexpr Word deleteWords[] = {key, optionalName};
constexpr Word keyWords[] = {key};
constexpr Word exportWords[] = {{"FILE", "file to write, new or a .reg file"},
                                {"KEY", "path of the key; the root is the default", true}};
constexpr Word importWords[] = {{"FILE", "file to read, at most 64 MB"}};

constexpr Command commands[] = {
    {"get", "Prints the data of a value.", getWords, {}, Get},
    {"set",
     "Stores a text, or a number with --dword. Makes the key if it is missing, but not the registry's directory. A "
     "setting of the agent is stored only "
     "if the agent can use it, and a name that the agent does not know is stored with a warning.",
     setWords, setOptions, Set},
    {"delete",
     "Deletes a value, or without NAME the key and all below it. Asks before a whole key goes; where nobody can be "
     "asked, it needs --yes.",
     deleteWords, deleteOptions, Delete},
    {"list", "Shows the values of a key, and its subkeys.", keyWords, {}, List},
    {"watch",
     "Prints a line for each value in the key or below it that differs from the last look, until interrupted. It looks "
     "up to five times a second: of several changes in between, and of one that is taken back, only what came of them "
     "shows. If the key is deleted, waits until it exists again.",
     keyWords,
     {},
     Watch},
    {"export",
     "Writes the registry, or a key and all below it, to a .reg file: a new one, or in the place of another .reg file. "
     "What is not one is replaced only with --force, and the registry's own files never. Only its owner can read a new "
     "file, because it may hold the password of a proxy.",
     exportWords, exportOptions, Export},
    {"import",
     "Applies a .reg file. A malformed file changes nothing. What the agent does not know or cannot use is imported "
     "with a warning.",
     importWords,
     {},
     Import},
};

constexpr std::span<const Command> topics[] = {commands};

std::string Notes() {
    return fmt::format(
        "KEY is a path under HKEY_LOCAL_MACHINE, such as 'Software\\Halvorine\\Kestrova\\KVAgent\\ServerInfo'; a "
        "leading HKEY_LOCAL_MACHINE\\, HKLM\\ or HKLM:\\ is accepted.\n\n"
        "After -- a word that looks like an option is an argument: kvreg set KEY NAME -- --dword stores the text "
        "--dword. A -- at the very end is an argument itself.\n\n{}\n\n",
        platform::RegistryPlace());
}

constexpr commandline::Program program{"kvreg", "reads and changes the agent's registry", topics, {}, Notes};

}  // namespace

const commandline::Program& RegistryTool() { return program; }

}  // namespace kv
