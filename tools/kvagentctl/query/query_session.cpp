#include "tools/kvagentctl/query/query_session.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <iterator>
#include <sstream>

#include "commandline/run.h"
#include "platform/console_tool.h"
#include "platform/name_pattern.h"
#include "platform/utf.h"
#include "tools/kvagentctl/query/class_guide.h"
#include "tools/kvagentctl/query/query_hints.h"

namespace kv::control {

namespace {

using commandline::NotFoundError;
using commandline::UsageError;
using platform::WideFromUtf8;

constexpr std::string_view blanks = " \t\r\n";

struct Mode {
    std::string_view name;
    std::optional<Form> form;
    Values values = Values::typed;
};

constexpr std::array<Mode, 6> modes = {{
    {"auto", std::nullopt},
    {"table", Form::table},
    {"line", Form::line},
    {"json", Form::json},
    {"csv", Form::csv},
    {"record", std::nullopt, Values::asRecord},
}};

/// A command at the prompt, and how many words may follow it.
struct DotCommand {
    std::string_view name;
    std::string_view words;
    std::size_t least;
    std::size_t most;
};
constexpr DotCommand dotCommands[] = {
    {".classes", " [PATTERN]", 0, 1},
    {".describe", " CLASS", 1, 1},
    {".exit", "", 0, 0},
    {".help", "", 0, 0},
    {".mode", " auto|table|line|json|csv|record", 1, 1},
    {".quit", "", 0, 0},
};

constexpr std::string_view keywords[] = {
    "SELECT",           "FROM",           "WHERE", "AND", "OR", "NOT", "LIKE", "IS", "NULL", "TRUE", "FALSE", "ISA",
    "ASSOCIATORS OF {", "REFERENCES OF {"};

constexpr const char* help =
    "SELECT * or names FROM class [WHERE condition]   rows of a class\n"
    ".classes [PATTERN]     the classes, with what they are about\n"
    ".describe CLASS        the properties of a class, with type, unit and source\n"
    ".mode auto|table|line|json|csv|record\n"
    "                       how rows are printed; auto is a table, or lines where it is too wide\n"
    ".help                  this text\n"
    ".quit                  ends, as Ctrl-D does; Ctrl-C gives up a line\n";

std::string Upper(std::string_view text) {
    std::string upper(text);
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char character) { return static_cast<char>(std::toupper(character)); });
    return upper;
}

bool Matches(const std::string& name, const std::string& pattern) {
    if (pattern.find_first_of("*?") != std::string::npos)
        return platform::NamePattern(WideFromUtf8(pattern)).Matches(WideFromUtf8(name));
    return Upper(name).find(Upper(pattern)) != std::string::npos;
}

std::string_view LastWord(std::string_view line) {
    return line.substr(line.find_last_of(" \t,({=<>!") + 1);  // the whole line if no such character is in it
}

/// A line's command and the word behind it, which may be empty. UsageError for an unknown command, and for more or
/// fewer words than it takes.
std::pair<std::string, std::string> CommandAndWord(const std::string& line) {
    std::istringstream words(line);
    std::vector<std::string> all{std::istream_iterator<std::string>(words), {}};
    const auto* const known = std::find_if(std::begin(dotCommands), std::end(dotCommands),
                                           [&](const DotCommand& one) { return one.name == all.front(); });
    if (known == std::end(dotCommands))
        throw UsageError(fmt::format("unknown command '{}'; .help lists them", all.front()));
    if (all.size() - 1 < known->least || all.size() - 1 > known->most)
        throw UsageError(fmt::format("usage: {}{}", known->name, known->words));
    return {all.front(), all.size() > 1 ? all[1] : ""};
}

/// UsageError for a command without its dot, or as other prompts call it.
void RefuseWithoutDot(const std::string& line) {
    constexpr std::pair<std::string_view, std::string_view> others[] = {
        {"?", ".help"}, {"\\q", ".quit"}, {"\\h", ".help"}, {"SHOW", ".classes"}, {"DESC", ".describe"}};
    const std::string word = line.substr(0, line.find_first_of(blanks));
    std::string_view meant;
    for (const auto& [other, command] : others) {
        if (Upper(word) == Upper(other)) meant = command;
    }
    for (const DotCommand& command : dotCommands) {
        if (Upper(word) == Upper(command.name.substr(1))) meant = command.name;
    }
    if (!meant.empty()) throw UsageError(fmt::format("'{}' is not a query; did you mean {}?", word, meant));
}

/// The names that a word may be the beginning of.
std::vector<std::string> NamesFor(std::string_view line) {
    std::vector<std::string> names;
    const auto add = [&](const auto& more) { names.insert(names.end(), std::begin(more), std::end(more)); };
    const std::string_view before = line.substr(0, line.size() - LastWord(line).size());
    const std::string head = Upper(before.substr(0, before.find_last_not_of(blanks) + 1));
    if (head.empty() && line.starts_with('.')) {
        for (const DotCommand& command : dotCommands) names.emplace_back(command.name);
    } else if (head == ".MODE") {
        for (const Mode& mode : modes) names.emplace_back(mode.name);
    } else if (head == ".DESCRIBE" || head == ".CLASSES" || head.ends_with("FROM") || head.ends_with("{")) {
        for (const ListedClass& one : ListClasses()) names.push_back(one.name);
    } else if (!head.starts_with('.')) {
        add(keywords);
        if (const auto described = DescribeClass("ROOT\\CIMV2", QueriedClass(line))) {
            for (const DescribedProperty& property : described->properties) names.push_back(property.name);
        }
    }
    return names;
}

}  // namespace

QuerySession::QuerySession(std::string nameSpace, std::optional<Form> form, Values values)
    : nameSpace_(std::move(nameSpace)), form_(form), values_(values) {}

void QuerySession::Print(const Table& table) const {
    Form form = form_.value_or(Form::table);
    if (const std::size_t terminal = platform::OutputColumns(); !form_ && terminal > 0) {
        const TableWidth width = WidthOf(table);
        if (width.names > terminal || (table.rows.size() == 1 && width.longest > terminal)) form = Form::line;
    }
    if (table.rows.empty() && (form == Form::table || form == Form::line)) return;
    PrintText(Printed(table, form));
}

void QuerySession::RunQuery(const std::string& query) const {
    const WmiRows rows = QueryRows(nameSpace_, query, values_);
    const bool isFailure = platform::IsFailure(rows.status);
    if (!isFailure || !rows.table.rows.empty()) Print(rows.table);
    for (const std::string& notice : rows.notices) fmt::print(stderr, "{}\n", commandline::InLine(notice));
    std::vector<std::string> hints = QueryHints(WideFromUtf8(query));
    if (isFailure) {
        const std::string elsewhere = OtherComputerHint(nameSpace_);
        if (!elsewhere.empty()) hints = {elsewhere};
        const std::string separator = hints.empty() ? "" : "; ";
        const std::string failure = fmt::format("{}{}{}", rows.failure, separator, fmt::join(hints, "; "));
        if (rows.status == platform::wmi_status::invalidClass) throw NotFoundError(failure);
        throw std::runtime_error(failure);
    }
    if (rows.table.rows.empty()) {
        if (form_.value_or(Form::table) == Form::table) fmt::print(stderr, "no objects\n");
        for (const std::string& hint : hints) fmt::print(stderr, "{}\n", commandline::InLine(hint));
    }
    if (!rows.hidden.empty())
        fmt::print(stderr, "{}: system properties can be tested, and are not shown\n", fmt::join(rows.hidden, ", "));
}

void QuerySession::PrintClasses(const std::string& pattern) const {
    Table table{.columns = {"class", "meaning"}, .rows = {}};
    const std::vector<ListedClass> all = ListClasses();
    if (all.empty()) throw std::runtime_error(ClassGuideHint());
    for (const ListedClass& one : all) {
        if (Matches(one.name, pattern)) table.rows.push_back({one.name, one.meaning});
    }
    if (table.rows.empty())
        throw NotFoundError(fmt::format("no class has '{}' in its name; without PATTERN all are listed", pattern));
    PrintText(Printed(table, form_.value_or(Form::table)));
}

void QuerySession::PrintClass(const std::string& name) const {
    const std::optional<DescribedClass> described = DescribeClass(nameSpace_, name);
    if (!described) {
        const std::string meant = NearestClass(name);
        const std::string hint = ClassGuideHint();
        throw NotFoundError(hint.empty()
                                ? fmt::format("the class {} does not exist{}", name,
                                              meant.empty() ? "; query --classes, or .classes at the prompt, lists them"
                                                            : "; did you mean " + meant + "?")
                                : fmt::format("WMI does not tell of the class {}; {}", name, hint));
    }
    const Form form = form_.value_or(Form::table);
    Table table{.columns = {"property", "type", "key", "meaning"}, .rows = {}};
    const bool isForPeople = form == Form::table || form == Form::line;
    for (const DescribedProperty& property : described->properties) {
        const Cell key =
            isForPeople ? Cell(property.isKey ? "key" : "") : Cell::Literal(property.isKey ? "true" : "false");
        table.rows.push_back({property.name, property.type, key, property.meaning});
    }
    if (isForPeople) {
        const std::string superclass = described->superclass.empty() ? "" : " A " + described->superclass + ".";
        fmt::print("{}{}{}.{}\n\n", described->name, described->meaning.empty() ? "" : ": ", described->meaning,
                   superclass);
    }
    PrintText(Printed(table, form));
    if (const std::string hint = ClassGuideHint(); !hint.empty()) fmt::print(stderr, "{}\n", hint);
}

void QuerySession::SetMode(const std::string& mode) {
    const auto* found = std::find_if(modes.begin(), modes.end(), [&](const Mode& known) { return known.name == mode; });
    if (found == modes.end())
        throw UsageError(".mode takes auto, table, line, json, csv or record, not '" + mode + "'");
    form_ = found->form;
    values_ = found->values;
}

bool QuerySession::RunLine(const std::string& line) {
    const std::size_t begin = line.find_first_not_of(blanks);
    if (begin == std::string_view::npos) return true;
    const std::size_t last = line.find_last_not_of(std::string(blanks) + ";") + 1;
    if (last <= begin) return true;
    const std::string text = line.substr(begin, last - begin);
    if (!text.starts_with('.')) {
        RefuseWithoutDot(text);
        RunQuery(text);
        return true;
    }
    const auto [command, argument] = CommandAndWord(text);
    if (command == ".quit" || command == ".exit") return false;
    if (command == ".help") {
        fmt::print("{}", help);
    } else if (command == ".classes") {
        PrintClasses(argument);
    } else if (command == ".describe") {
        PrintClass(argument);
    } else {
        SetMode(argument);
    }
    return true;
}

std::vector<std::string> QuerySession::Completions(std::string_view line) {
    const std::string begun = Upper(LastWord(line));
    std::vector<std::string> names = NamesFor(line);
    std::erase_if(names, [&](const std::string& name) { return !Upper(name).starts_with(begun); });
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

}  // namespace kv::control
