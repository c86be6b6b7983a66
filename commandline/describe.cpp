#include "commandline/describe.h"

#include <algorithm>
#include <fmt/format.h>
#include <sstream>
#include <vector>

namespace kv::commandline {

namespace {

/// Above that many optional options a synopsis only says that there are some.
constexpr std::ptrdiff_t mostOptionsInSynopsis = 3;

std::vector<const Command*> AllCommands(const Program& program) {
    std::vector<const Command*> commands;
    for (const std::span<const Command> topic : program.topics) {
        for (const Command& command : topic) commands.push_back(&command);
    }
    return commands;
}

// --- troff

/// A text that troff prints as it is. A line must not begin with what troff takes for a request.
std::string Troff(std::string_view text) {
    std::string escaped;
    for (const char character : text) {
        if (character == '-') {
            escaped += "\\-";
        } else if (character == '\\') {
            escaped += "\\e";
        } else if (character == '\'') {
            escaped += "\\(aq";
        } else {
            escaped += character;
        }
    }
    return escaped.starts_with('.') ? "\\&" + escaped : escaped;
}

/// Sentences, each in a line of its own; blank lines become paragraphs of the same indentation.
std::string TroffText(std::string_view text) {
    std::string lines = Troff(text);
    for (std::size_t at = 0; (at = lines.find("\n\n", at)) != std::string::npos;) lines.replace(at, 2, "\n.IP\n");
    for (std::size_t at = 0; (at = lines.find(". ", at)) != std::string::npos;) lines[++at] = '\n';
    return lines + "\n";
}

std::string Bold(std::string_view text) { return "\\fB" + Troff(text) + "\\fR"; }
std::string Italic(std::string_view text) { return "\\fI" + Troff(text) + "\\fR"; }

std::string OptionTroff(const Option& option) {
    const std::string shortName = option.shortName.empty() ? "" : Bold(option.shortName) + ", ";
    return shortName + Bold(option.name) + (option.values.empty() ? "" : "\\~" + Italic(option.values));
}

std::string WordTroff(const Word& word) {
    const std::string name = Italic(word.name) + (word.isRepeated ? " ..." : "");
    return word.isOptional ? "[" + name + "]" : name;
}

std::string OptionsTroff(const Command& command) {
    std::string text;
    const auto isNeeded = [](const Option& option) { return option.times == Times::once; };
    for (const Option& option : command.options) {
        if (isNeeded(option)) text += " " + OptionTroff(option);
    }
    const auto needed = std::count_if(command.options.begin(), command.options.end(), isNeeded);
    if (std::ssize(command.options) - needed > mostOptionsInSynopsis) return text + " [" + Italic("OPTION") + " ...]";
    for (const Option& option : command.options) {
        if (!isNeeded(option)) text += " [" + OptionTroff(option) + "]";
    }
    return text;
}

std::string WordsTroff(const Command& command) {
    std::string text;
    for (const Word& word : command.words) text += " " + WordTroff(word);
    return text;
}

std::string SynopsisTroff(const Program& program) {
    std::string text;
    for (const Command* command : AllCommands(program)) {
        text += Bold(fmt::format("{} {}", program.name, command->name)) + OptionsTroff(*command) +
                WordsTroff(*command) + "\n.br\n";
    }
    text += Bold(program.name) + " [" + Italic("COMMAND") + "] " + Bold("--help") + "\n.br\n";
    return text + Bold(program.name) + " " + Bold("--version") + "\n";
}

std::string TermTroff(const std::string& term, std::string_view text) {
    return ".TP\n" + term + "\n" + TroffText(text);
}

std::string CommandTroff(const Command& command) {
    std::string text = TermTroff(Bold(command.name) + WordsTroff(command), command.text);
    text += ".RS\n";
    for (const Word& word : command.words) text += TermTroff(Italic(word.name), word.text);
    for (const Option& option : command.options) text += TermTroff(OptionTroff(option), option.text);
    text += ".RE\n";
    if (command.items.empty()) return text;
    text += ".IP\n" + TroffText(command.itemsTitle) + ".RS\n";
    for (const Item& item : command.items) text += TermTroff(Bold(item.name), item.text);
    return text + ".RE\n";
}

std::string CommandsTroff(const Program& program) {
    std::string text;
    for (const Command* command : AllCommands(program)) text += CommandTroff(*command);
    return text;
}

void ReplaceLine(std::string& text, std::string_view line, std::string_view by) {
    const std::size_t at = text.find(line);
    if (at != std::string::npos) text.replace(at, line.size(), by);
}

// --- bash

std::string_view FirstWord(std::string_view name) { return name.substr(0, name.find(' ')); }

/// The commands that may follow what was typed: first words, or the second words after one.
std::string NextWords(const Program& program, std::string_view group) {
    std::vector<std::string_view> words;
    for (const Command* command : AllCommands(program)) {
        const bool isOfGroup = command->name.starts_with(fmt::format("{} ", group));
        if (!group.empty() && !isOfGroup) continue;
        const std::string_view word = group.empty() ? FirstWord(command->name) : command->name.substr(group.size() + 1);
        if (std::find(words.begin(), words.end(), word) == words.end()) words.push_back(word);
    }
    return fmt::format("{} --help{}", fmt::join(words, " "), group.empty() ? " --version" : "");
}

std::string OptionNames(const Command& command) {
    std::string names;
    for (const Option& option : command.options) names += NamesOf(option, " ") + " ";
    return names + "--help";
}

/// What bash completes by itself where it gets no words.
std::string_view Completion(std::string_view valueName) {
    if (valueName.ends_with("FILE") || valueName == "PLAN") return "compopt -o default";
    return valueName == "DIR" ? "compopt -o dirnames" : ":";
}

/// A command's options behind which a value stands, by what completes it.
std::string ValueCases(const Command& command) {
    std::string cases;
    for (const Option& option : command.options) {
        if (option.values.empty()) continue;
        std::string patterns;
        for (const std::string_view name : {option.name, option.shortName}) {
            if (name.empty()) continue;
            patterns += fmt::format("{}'{} {}' | '{} '*' {}'", patterns.empty() ? "" : " | ", command.name, name,
                                    command.name, name);
        }
        if (option.choices.empty())
            cases += fmt::format("        {}) {}; return ;;\n", patterns, Completion(FirstWord(option.values)));
        else
            cases += fmt::format("        {}) words='{}' ;;\n", patterns, option.choices);
    }
    return cases;
}

bool TakesFile(const Command& command) {
    return std::any_of(command.words.begin(), command.words.end(),
                       [](const Word& word) { return Completion(word.name) != ":"; });
}

/// Offers the choices of a word that is still to come: so far the line has options alone.
std::string ChoiceCase(const Command& command) {
    const auto chosen = std::find_if(command.words.begin(), command.words.end(),
                                     [](const Word& word) { return !word.choices.empty(); });
    if (chosen == command.words.end()) return "";
    std::string given;  // patterns of a line that has the word
    std::istringstream choices{std::string(chosen->choices)};
    for (std::string choice; choices >> choice;)
        given += fmt::format("{}'{} {}'* | '{} '*' {}'*", given.empty() ? "" : " | ", command.name, choice,
                             command.name, choice);
    return fmt::format(
        "        {0}) words='{1}' ;;\n"
        "        '{2}' | '{2} '*) words='{3}'; [[ $word == -* ]] && words='{1}' ;;\n",
        given, OptionNames(command), command.name, chosen->choices);
}

/// Where a file may stand, the options are offered once a dash is typed: bash completes files only where it gets no
/// words.
std::string CommandCase(const Command& command) {
    const char* const files = TakesFile(command) ? "[[ $word == -* ]] || { compopt -o default; return; }; " : "";
    return fmt::format("        '{0}' | '{0} '*) {2}words='{1}' ;;\n", command.name, OptionNames(command), files);
}

std::string CommandCases(const Program& program) {
    std::string cases = fmt::format("        '') words='{}' ;;\n", NextWords(program, ""));
    for (const Item& group : program.groups)
        cases += fmt::format("        '{}') words='{}' ;;\n", group.name, NextWords(program, group.name));
    for (const Command* command : AllCommands(program))
        cases += ValueCases(*command) + ChoiceCase(*command) + CommandCase(*command);
    return cases;
}

}  // namespace

std::string ManualPage(const Program& program, std::string_view pageTemplate) {
    std::string page(pageTemplate);
    ReplaceLine(page, "@SYNOPSIS@\n", SynopsisTroff(program));
    ReplaceLine(page, "@COMMANDS@\n", CommandsTroff(program));
    return page;
}

std::string BashCompletion(const Program& program) {
    return fmt::format(R"(# Completion of {0} for bash; made from the description of its commands.
_{0}() {{
    local word=${{COMP_WORDS[COMP_CWORD]}} words=
    COMPREPLY=()
    local before="${{COMP_WORDS[*]:1:COMP_CWORD-1}}"
    # Of --name=VALUE bash makes three words.
    if [[ $word == = ]]; then word=; else before=${{before% =}}; fi
    case $before in
{1}    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}}
complete -F _{0} {0}
)",
                       program.name, CommandCases(program));
}

}  // namespace kv::commandline
