#include "commandline/run.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <fmt/format.h>
#include <memory>
#include <set>

#include "foundation/version.h"
#include "platform/near_name.h"
#include "platform/utf.h"

namespace kv::commandline {

namespace {

constexpr std::size_t helpWidth = 100;
constexpr std::size_t nameColumn = 26;
constexpr std::string_view exitCodes =
    "Exit code: 0 success, 1 failure, 2 wrong command line, 3 the thing asked for does not exist.";

/// Breaks the lines of a text at blanks.
std::string Wrapped(std::string_view text, std::size_t width) {
    std::string lines;
    std::size_t column = 0;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find_first_of(" \n", 1), text.size());
        const std::string_view word = text.substr(0, end);
        text.remove_prefix(end);
        if (word[0] == '\n') column = 0;
        const bool breaks = word[0] == ' ' && column > 0 && column + word.size() > width;
        lines += breaks ? "\n" + std::string(word.substr(1)) : std::string(word);
        column = breaks ? word.size() - 1 : column + word.size();
    }
    return lines;
}

std::string_view FirstSentence(std::string_view text) { return text.substr(0, text.find(". ")); }

class HelpFormatter : public CLI::Formatter {
  public:
    HelpFormatter() { column_width(nameColumn); }

    /// Words that help shows as needed although the parser lets them be absent.
    std::set<const CLI::Option*> needed;

    std::string make_option_usage(const CLI::Option* option) const override {
        const std::string usage = CLI::Formatter::make_option_usage(option);
        const bool isBracketed = usage.starts_with('[') && usage.ends_with(']');
        return isBracketed && needed.contains(option) ? usage.substr(1, usage.size() - 2) : usage;
    }

    /// CLI11 would not name the options that are needed.
    std::string make_usage(const CLI::App* app, std::string name) const override {
        for (const CLI::Option* option : app->get_options()) {
            if (option->get_required() && !option->get_positional())
                name += fmt::format(" {} {}", option->get_name(), option->get_option_text());
        }
        return CLI::Formatter::make_usage(app, name);
    }

    /// CLI11 would tell all of a command's text in the list of commands.
    std::string make_subcommand(const CLI::App* command) const override {
        std::string text(FirstSentence(command->get_description()));
        std::replace(text.begin(), text.end(), '\n', ' ');
        std::ostringstream line;
        CLI::detail::format_help(line, command->get_name(), Wrapped(text, helpWidth - nameColumn), nameColumn);
        return line.str();
    }
};

/// CLI11 ends a command at a "++", takes every "--" for the end of the options, and gives "--name=" the next word for a
/// value. A byte that no argument can hold keeps the first two for plain words, and the last one for an empty value.
constexpr char plainMark = '\0';

std::vector<std::string> MarkPlainWords(std::vector<std::string> words) {
    bool mayBeOption = true;
    for (std::string& word : words) {
        const bool isLastDashes = word == "--" && &word == &words.back();
        if (word == "++" || isLastDashes) word.insert(word.begin(), plainMark);
        if (mayBeOption && word.starts_with("--") && word.find('=') == word.size() - 1) word += plainMark;
        if (word == "--") mayBeOption = false;
    }
    return words;
}

std::string WithoutMark(std::string word) {
    if (word.starts_with(plainMark)) word.erase(0, 1);
    return word;
}

bool IsLeaf(const CLI::App& app) { return app.get_subcommands({}).empty(); }

/// "; did you mean check?"; empty when no name is near.
std::string NearName(const std::string& word, const std::vector<std::string>& names) {
    std::vector<std::u16string> wide;
    for (const std::string& name : names) wide.push_back(platform::WideFromUtf8(name));
    const std::vector<std::u16string_view> known(wide.begin(), wide.end());
    const std::u16string_view nearest = platform::NearestName(platform::WideFromUtf8(word), known);
    return nearest.empty() ? "" : fmt::format("; did you mean {}?", platform::Utf8FromWide(nearest));
}

/// The same among the options of a command. A letter alone is near each that begins with it.
std::string NearOption(const Command& command, const std::string& word) {
    const std::string_view name = std::string_view(word).substr(0, word.find('='));
    std::vector<std::string> names;
    for (const Option& option : command.options) {
        const bool beginsSo = name.size() == 2 && option.name.starts_with(fmt::format("-{}", name));
        if (beginsSo) return fmt::format("; did you mean {}?", option.name);
        names.emplace_back(option.name);
    }
    return NearName(std::string(name), names);
}

/// A program as CLI11 knows it.
class Parser {
  public:
    explicit Parser(const Program& program);
    Parser(const Parser&) = delete;
    Parser& operator=(const Parser&) = delete;

    /// The command that was given; null when a text was asked for. UsageError when the words are not a command line.
    const Command* Parse(const std::vector<std::string>& words, Given& given);

    /// The help or the version, whichever was asked for.
    const std::string& text() const { return text_; }

  private:
    /// What holds the commands of a group; makes it for the first of them. No group: the program itself.
    CLI::App* AddParent(std::string_view group);
    void AddCommand(const Command& command);
    /// The last of the commands that the words named.
    const CLI::App& Reached() const;
    [[noreturn]] void Refuse(const CLI::ParseError& error) const;
    [[noreturn]] void RefuseExtra(const std::string& word) const;
    std::string NearCommand(const std::string& word) const;
    std::string CommandsNeeded(const CLI::App& parent) const;
    std::string CommandsWith(std::string_view option) const;

    const Program& program_;
    const std::shared_ptr<HelpFormatter> formatter_ = std::make_shared<HelpFormatter>();
    CLI::App app_;
    std::string text_;
    std::map<std::string_view, CLI::App*> parents_;
    std::map<const CLI::App*, const Command*> commands_;
};

Parser::Parser(const Program& program) : program_(program), app_(fmt::format("{} {}.", program.name, program.summary)) {
    app_.name(std::string(program.name));
    app_.formatter(formatter_);
    app_.allow_windows_style_options(false);
    app_.require_subcommand(1);
    app_.set_help_flag("-h,--help", "prints this help");
    app_.set_version_flag("--version", fmt::format("{} {}", program.name, programVersion), "prints the version");
    app_.footer(Wrapped(program.notes() + std::string(exitCodes), helpWidth));
    for (const std::span<const Command> topic : program.topics) {
        for (const Command& command : topic) AddCommand(command);
    }
}

CLI::App* Parser::AddParent(std::string_view group) {
    if (group.empty()) return &app_;
    CLI::App*& parent = parents_[group];
    if (parent != nullptr) return parent;
    const auto item = std::find_if(program_.groups.begin(), program_.groups.end(),
                                   [&](const Item& candidate) { return candidate.name == group; });
    const std::string text(item == program_.groups.end() ? "" : item->text);
    return parent = app_.add_subcommand(std::string(group), text)->require_subcommand(1);
}

void Parser::AddCommand(const Command& command) {
    const std::size_t blank = command.name.find(' ');
    const bool isGrouped = blank != std::string_view::npos;
    CLI::App* parent = AddParent(isGrouped ? command.name.substr(0, blank) : "");
    CLI::App* app = parent->add_subcommand(std::string(isGrouped ? command.name.substr(blank + 1) : command.name),
                                           Wrapped(command.text, helpWidth));
    commands_[app] = &command;
    for (const Word& word : command.words) {
        CLI::Option* const added = app->add_option(std::string(word.name));
        if (word.isCheckedByCommand) formatter_->needed.insert(added);
        added->description(Wrapped(word.text, helpWidth - nameColumn))
            ->option_text(" ")
            ->required(!word.isOptional && !word.isCheckedByCommand)
            ->allow_extra_args(word.isRepeated)
            ->expected(1, word.isRepeated ? CLI::detail::expected_max_vector_size : 1);
    }
    for (const Option& option : command.options) {
        const std::string name = NamesOf(option, ",");
        CLI::Option* added = option.values.empty() ? app->add_flag(name) : app->add_option(name);
        added->description(Wrapped(option.text, helpWidth - nameColumn))->required(option.times == Times::once);
        if (option.values.empty()) continue;
        added->option_text(std::string(option.values));
        added->expected(1 + static_cast<int>(std::count(option.values.begin(), option.values.end(), ' ')));
        if (option.times == Times::any) added->take_all();
        added->allow_extra_args(false);
    }
    std::string items(command.itemsTitle);
    for (const Item& item : command.items) {
        std::ostringstream entry;
        CLI::detail::format_help(entry, std::string(item.name), Wrapped(item.text, helpWidth - nameColumn), nameColumn);
        items += "\n" + entry.str();
    }
    app->footer(items);
}

const CLI::App& Parser::Reached() const {
    const CLI::App* reached = &app_;
    while (!reached->get_subcommands().empty()) reached = reached->get_subcommands().front();
    return *reached;
}

const Command* Parser::Parse(const std::vector<std::string>& words, Given& given) {
    std::vector<std::string> marked = MarkPlainWords(words);
    std::reverse(marked.begin(), marked.end());
    try {
        app_.parse(marked);
    } catch (const CLI::CallForHelp&) {
        text_ = app_.help();
        return nullptr;
    } catch (const CLI::CallForVersion&) {
        text_ = app_.version() + "\n";
        return nullptr;
    } catch (const CLI::ParseError& error) {
        Refuse(error);
    }
    for (const CLI::Option* option : Reached().get_options()) {
        const std::string name = option->get_name();
        const bool isSwitch = option->get_expected_min() == 0;
        for (const std::string& value : option->results()) {
            if (isSwitch && value != "true") throw UsageError(name + " takes no value");
            given.emplace(name, isSwitch ? "" : WithoutMark(value));
        }
    }
    return commands_.at(&Reached());
}

void Parser::Refuse(const CLI::ParseError& error) const {
    const CLI::App& reached = Reached();
    std::vector<std::string> extras = app_.remaining(true);
    std::erase(extras, "--");
    if (!extras.empty()) RefuseExtra(WithoutMark(extras.front()));
    if (!IsLeaf(reached)) throw UsageError(CommandsNeeded(reached));
    const std::string message = error.what();
    for (const CLI::Option* option : reached.get_options()) {
        if (!message.starts_with(option->get_name() + ":")) continue;
        const bool isTooOften = static_cast<int>(option->count()) > option->get_expected_max();
        throw UsageError(isTooOften ? option->get_name() + " is given twice"
                                    : fmt::format("{} needs {}", option->get_name(), option->get_option_text()));
    }
    throw UsageError(message);
}

void Parser::RefuseExtra(const std::string& word) const {
    const CLI::App& reached = Reached();
    if (&reached == &app_) throw UsageError(fmt::format("unknown command '{}'{}", word, NearCommand(word)));
    if (!IsLeaf(reached)) throw UsageError(CommandsNeeded(reached));
    if (reached.get_option_no_throw(word) != nullptr)
        throw UsageError(fmt::format("{} stands behind {} and before --", word, reached.get_name()));
    const std::string others = CommandsWith(word);
    if (!others.empty()) throw UsageError(fmt::format("{} goes with {} only", word, others));
    const Command& command = *commands_.at(&reached);
    if (word.starts_with('-') && word != "--")
        throw UsageError(fmt::format("unknown option '{}'{}", word, NearOption(command, word)));
    const bool takesWords = !command.words.empty() || command.options.empty();
    const std::string reason =
        takesWords ? "" : fmt::format(": {} takes options only; a value with blanks stands in quotes", command.name);
    throw UsageError(fmt::format("unexpected '{}'{}", word, reason));
}

std::string Parser::NearCommand(const std::string& word) const {
    std::vector<std::string> names;
    for (const CLI::App* command : app_.get_subcommands({})) names.push_back(command->get_name());
    return NearName(word, names);
}

/// "fault needs set, clear or list".
std::string Parser::CommandsNeeded(const CLI::App& parent) const {
    if (&parent == &app_) return "a command is missing";
    std::string text;
    const auto commands = parent.get_subcommands({});
    for (const CLI::App* command : commands) {
        if (!text.empty()) text += command == commands.back() ? " or " : ", ";
        text += command->get_name();
    }
    return parent.get_name() + " needs " + text;
}

std::string Parser::CommandsWith(std::string_view option) const {
    std::vector<std::string_view> names;
    for (const std::span<const Command> topic : program_.topics) {
        for (const Command& command : topic) {
            const auto has = [&](const Option& candidate) {
                return candidate.name == option || candidate.shortName == option;
            };
            if (std::any_of(command.options.begin(), command.options.end(), has)) names.push_back(command.name);
        }
    }
    return fmt::format("{}", fmt::join(names, ", "));
}

/// The command that words begin with; null when they begin with none.
const Command* CommandOf(const Program& program, const std::vector<std::string>& words) {
    for (const std::span<const Command> topic : program.topics) {
        for (const Command& command : topic) {
            const std::size_t count = command.name.find(' ') == std::string_view::npos ? 1 : 2;
            if (words.size() < count) continue;
            if (fmt::format("{}", fmt::join(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(count), " ")) ==
                command.name)
                return &command;
        }
    }
    return nullptr;
}

int Failure(const Program& program, int exitCode, const std::string& message, const std::string& hint = "") {
    static_cast<void>(std::fflush(stdout));
    const std::string line = fmt::format("{}: {}{}\n", program.name, InLine(message), hint);
    static_cast<void>(std::fputs(line.c_str(), stderr));  // which may be closed
    return exitCode;
}

/// Tells of a wrong command line, which some commands do by themselves.
int WrongUsage(const Program& program, const std::vector<std::string>& words, const std::string& reason) {
    constexpr int wrongUsage = 2;
    const Command* const command = CommandOf(program, words);
    try {
        if (command && command->refused) command->refused(words, reason);
    } catch (const ExitWith& result) {
        return result.code;
    }
    const std::string place = command ? fmt::format(" {}", command->name) : "";
    return Failure(program, wrongUsage, reason, fmt::format(" (see {}{} --help)", program.name, place));
}

}  // namespace

int RunCommandLine(const Program& program, const std::vector<std::string>& words) {
    constexpr int success = 0;
    constexpr int failure = 1;
    constexpr int notFound = 3;
    constexpr const char* unwritable = "standard output cannot be written";
    try {
        Parser parser(program);
        Given given;
        if (const Command* command = parser.Parse(words, given)) {
            command->run(given);
        } else {
            fmt::print("{}", parser.text());
        }
        FlushOutput();
        return success;
    } catch (const ExitWith& result) {
        if (std::fflush(stdout) == 0) return result.code;
        Failure(program, failure, unwritable);
        return result.code != success ? result.code : failure;
    } catch (const UsageError& error) {
        return WrongUsage(program, words, error.what());
    } catch (const NotFoundError& error) {
        return Failure(program, notFound, error.what());
    } catch (const std::exception& error) {
        const bool isOutput = std::ferror(stdout) != 0;
        return Failure(program, failure, isOutput ? unwritable : error.what());
    }
}

void FlushOutput() {
    // An error of an earlier write, after which nothing is left to flush, counts as well.
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        throw std::runtime_error("cannot write to standard output");
}

std::string InLine(std::string_view text) {
    std::string line;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char character = text[i];
        const auto byte = static_cast<unsigned char>(character);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : '\0');
        if (byte == 0xC2 && next >= 0x80 && next < 0xA0) {  // U+0080 to U+009F in UTF-8
            line += fmt::format("\\u00{:02x}", next);
            ++i;
        } else if (character == '\n') {
            line += "\\n";
        } else if (character == '\r') {
            line += "\\r";
        } else if (character == '\t') {
            line += "\\t";
        } else if (byte < 0x20 || byte == 0x7F) {
            line += fmt::format("\\x{:02x}", byte);
        } else {
            line += character;
        }
    }
    return line;
}

}  // namespace kv::commandline
