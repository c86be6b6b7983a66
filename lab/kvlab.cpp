#include "lab/cli.h"

#include <algorithm>
#include <cstdio>
#include <fmt/format.h>
#include <string>
#include <string_view>
#include <vector>

#include "lab/command_line.h"
#include "lab/record_text.h"

namespace kv::lab {

namespace {

constexpr std::string_view generalHelp = R"(kvlab: a central server to try and test the monitoring agent against.

usage: kvlab serve   --database FILE [--port N] [--listen ADDRESS] [--tls CERT KEY] ...
       kvlab records --database FILE [--agent KEY] [--follow]
       kvlab agents  --database FILE
       kvlab request add  --database FILE --agent KEY --type TYPE [--set NAME=VALUE] ...
       kvlab request list --database FILE [--agent KEY]
       kvlab request answers --database FILE [--agent KEY] [--id ID]
       kvlab conf push    --database FILE [--agent MASTER] ... KEY FILE
       kvlab fault set|clear|list --database FILE ...

'kvlab COMMAND --help' tells about one command. All commands work while the server runs.

Exit codes: 0 success, 1 a failure, 2 a wrong command line, 3 the thing asked for does not exist.
)";

bool AsksForHelp(std::string_view word) { return word == "--help" || word == "-h"; }

void PrintHelp(std::string_view text) {
    fmt::print("{}", text);
    Flush();
}

/// "fault " gives the three commands of faults.
std::vector<const Command*> CommandsFrom(std::string_view prefix) {
    std::vector<const Command*> commands;
    for (const auto& topic : {ServerCommands(), RequestCommands(), ConfigurationCommands(), FaultCommands()})
        for (const Command& command : topic)
            if (command.name.starts_with(prefix)) commands.push_back(&command);
    return commands;
}

void PrintHelpFor(std::string_view prefix) {
    for (const Command* command : CommandsFrom(prefix)) fmt::print("{}\n", command->help);
    Flush();
}

/// "fault needs set, clear or list".
std::string SecondWordsOf(const std::string& word) {
    std::string text;
    const std::vector<const Command*> commands = CommandsFrom(word + " ");
    for (std::size_t at = 0; at < commands.size(); ++at) {
        if (at > 0) text += at + 1 == commands.size() ? " or " : ", ";
        text += commands[at]->name.substr(word.size() + 1);
    }
    return word + " needs " + text;
}

/// The command that the first words name; they are taken away.
const Command& TakeCommand(std::vector<std::string>& words) {
    if (words.empty()) throw UsageError("a command is missing");
    const bool ofTwoWords = !CommandsFrom(words[0] + " ").empty();
    const std::size_t length = ofTwoWords && words.size() > 1 ? 2 : 1;
    const std::string name = length == 2 ? words[0] + " " + words[1] : words[0];
    for (const Command* command : CommandsFrom("")) {
        if (command->name != name) continue;
        words.erase(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(length));
        return *command;
    }
    throw UsageError(ofTwoWords ? SecondWordsOf(words[0]) : "unknown command '" + name + "'");
}

void Run(std::vector<std::string> words) {
    if (!words.empty() && AsksForHelp(words[0])) return PrintHelp(generalHelp);
    if (words.size() == 2 && !CommandsFrom(words[0] + " ").empty() && AsksForHelp(words[1]))
        return PrintHelpFor(words[0] + " ");
    const Command& command = TakeCommand(words);
    if (std::any_of(words.begin(), words.end(), AsksForHelp)) return PrintHelp(command.help);
    command.run(ParseOptions(command, words));
}

int Failure(int exitCode, const std::string& text, const char* hint) {
    fmt::print(stderr, "kvlab: {}{}\n", OneLine(text), hint);
    return exitCode;
}

}  // namespace

int RunCommandLine(int count, char** arguments) {
    try {
        Run({arguments + std::min(count, 1), arguments + count});
        return 0;
    } catch (const UsageError& error) {
        return Failure(2, error.what(), " (see kvlab --help)");
    } catch (const NotFoundError& error) {
        return Failure(3, error.what(), "");
    } catch (const std::exception& error) {
        return Failure(1, error.what(), "");
    }
}

}  // namespace kv::lab
