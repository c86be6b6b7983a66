// kvagentctl query: asks this computer in WQL, as the plan's WMI records do.
#include <algorithm>
#include <cstdio>
#include <fmt/format.h>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "commandline/run.h"
#include "foundation/file_utils.h"
#include "foundation/text.h"
#include "platform/console_tool.h"
#include "platform/line_prompt.h"
#include "platform/utf.h"
#include "tools/kvagentctl/output.h"
#include "tools/kvagentctl/query/query_session.h"
#include "tools/kvagentctl/verbs.h"

namespace kv::control {

namespace {

using commandline::Given;
using commandline::Has;
using commandline::UsageError;

struct FormOption {
    std::string_view name;
    Form form;
};
constexpr FormOption forms[] = {
    {"--table", Form::table}, {"--line", Form::line}, {"--json", Form::json}, {"--csv", Form::csv}};

std::optional<Form> FormOf(const Given& given) {
    std::optional<Form> form;
    for (const FormOption& option : forms) {
        if (!Has(given, option.name)) continue;
        if (form) throw UsageError("only one of --table, --line, --json and --csv can be given");
        form = option.form;
    }
    return form;
}

constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";

constexpr const char* usualNamespace = "ROOT\\CIMV2";

/// In bytes: that many are a query of the most characters that the engine takes, four bytes each.
constexpr std::size_t longestLine = std::size_t{4} * 65536;

/// The words of a query, which may stand in one or in several arguments.
std::string QueryText(const Given& given) {
    return fmt::format("{}", fmt::join(commandline::Values(given, "QUERY"), " "));
}

/// Whether a shell has put names of files in the place of the * of a query without quotes.
bool IsStarExpanded(const std::vector<std::string>& words) {
    const auto isWord = [](const std::string& word, std::u16string_view keyword) {
        return CompareIgnoreCase(platform::WideFromUtf8(word), keyword) == 0;
    };
    if (words.size() < 2 || !isWord(words.front(), u"SELECT")) return false;
    const auto from =
        std::find_if(words.begin(), words.end(), [&isWord](const std::string& word) { return isWord(word, u"FROM"); });
    return std::any_of(words.begin() + 1, from,
                       [](const std::string& word) { return MayExist(platform::WideFromUtf8(word)); });
}

void RunGivenQuery(const QuerySession& session, const Given& given) try {
    session.RunQuery(QueryText(given));
} catch (const Interrupted&) {
    throw;
} catch (const std::runtime_error&) {
    if (!IsStarExpanded(commandline::Values(given, "QUERY"))) throw;
    throw UsageError(
        "the shell has put names of files in the place of *: a query stands in single quotes, as in kvagentctl query "
        "'SELECT * FROM Win32_Process'");
}

int TellFailure(const std::string& place, const std::exception& error, int exitCode) {
    fmt::print(stderr, "{}{}\n", place, commandline::InLine(error.what()));
    return exitCode;
}

/// Runs a line that is one of several: a failure is told, behind its place, and the next one runs. The exit code of the
/// line; absent for the end.
std::optional<int> RunOne(QuerySession& session, const std::string& line, const std::string& place = "") {
    try {
        return session.RunLine(line) ? std::optional(0) : std::nullopt;
    } catch (const commandline::NotFoundError& error) {
        return TellFailure(place, error, 3);
    } catch (const UsageError& error) {
        return TellFailure(place, error, 2);
    } catch (const std::exception& error) {
        if (std::ferror(stdout) != 0) throw;  // of no use to go on
        return TellFailure(place, error, 1);
    }
}

/// The next line of standard input; false at its end. Throws when the line is longer than a query may be.
bool ReadLine(std::string& line, std::size_t number) {
    line.clear();
    std::streambuf& input = *std::cin.rdbuf();
    for (int byte = input.sbumpc(); byte != EOF; byte = input.sbumpc()) {
        if (byte == '\n') return true;
        if (line.size() >= longestLine)
            throw std::runtime_error(
                fmt::format("line {} of standard input has more than {} bytes", number, longestLine));
        line += static_cast<char>(byte);
    }
    return !line.empty();
}

/// Without a terminal: queries from standard input, one a line. The exit code is that of the first that fails.
void RunInput(QuerySession& session) {
    int exitCode = 0;
    std::size_t number = 1;
    for (std::string line; platform::OutputHasReader() && ReadLine(line, number); ++number) {
        if (number == 1 && line.starts_with(byteOrderMark)) line.erase(0, byteOrderMark.size());
        const std::optional<int> code = RunOne(session, line, fmt::format("kvagentctl: line {}: ", number));
        if (!code) break;
        if (exitCode == 0) exitCode = *code;
    }
    if (std::ferror(stdin) != 0)
        throw std::runtime_error("standard input cannot be read; give a query, or a file of them");
    if (exitCode != 0) throw commandline::ExitWith{exitCode};
}

void RunPrompt(QuerySession& session) {
    fmt::print("Queries in WQL, such as SELECT Name, FreeSpace FROM Win32_LogicalDisk. .help tells more.\n");
    commandline::FlushOutput();
    platform::LinePrompt prompt("kvagentctl", "wql> ", QuerySession::Completions);
    while (const std::optional<std::string> line = prompt.Read()) {
        const platform::InterruptWatch watch;
        if (!RunOne(session, *line)) break;
    }
}

void Run(const Given& given) {
    const std::string query = QueryText(given);
    const std::string nameSpace =
        Has(given, "--namespace") ? commandline::NeededValue(given, "--namespace") : usualNamespace;
    QuerySession session(nameSpace, FormOf(given), Has(given, "--record") ? Values::asRecord : Values::typed);
    if (Has(given, "--classes") && Has(given, "--describe"))
        throw UsageError("only one of --classes and --describe can be given");
    if (Has(given, "--describe")) {
        if (!query.empty()) throw UsageError("--describe takes one class and goes without a query");
        return session.PrintClass(commandline::NeededValue(given, "--describe"));
    }
    if (Has(given, "--classes")) {
        if (commandline::Values(given, "QUERY").size() > 1) throw UsageError("--classes takes one PATTERN");
        return session.PrintClasses(query);
    }
    if (Has(given, "QUERY")) return RunGivenQuery(session, given);
    if (platform::InputIsTerminal() && platform::OutputColumns() > 0) return RunPrompt(session);
    RunInput(session);
}

constexpr commandline::Word words[] = {
    {"QUERY", "a query in WQL, such as 'SELECT Name, ProcessId FROM Win32_Process'; with --classes a PATTERN", true,
     true},
};

constexpr commandline::Option options[] = {
    {"--classes", "", "lists the classes, with what they are about; with PATTERN those whose name has it in it"},
    {"--describe", "CLASS", "lists a class's properties: type, keys, unit and source"},
    {"--namespace", "NS", "asks in another namespace than ROOT\\CIMV2"},
    {"--json", "", "prints an array of objects: numbers, truth values, lists and null as such"},
    {"--csv", "", "prints comma-separated values with a line of names"},
    {"--line", "", "prints one property in a line"},
    {"--table", "", "prints a table however wide it is"},
    {"--record", "", "shows values as the agent's records have them: texts, NULL as -"},
};

}  // namespace

const commandline::Command& QueryVerb() {
    static const commandline::Command verb{
        "query",
        "Asks this computer in WQL, as a plan's WMI records do, and prints the rows. Columns stand in the order of "
        "SELECT. 64-bit and unsigned numbers are numbers, dates are texts as WHERE takes them, and NULL is - in a "
        "table. "
        "On a terminal rows too wide for a table are printed one property in a line.\n\n"
        "Without a query there is a prompt on a terminal, with history and completion (.help tells its commands); "
        "otherwise queries are read from standard input, one a line. "
        "Exit code 3 if the class does not exist, 1 if the query fails otherwise.",
        words, options, Run};
    return verb;
}

}  // namespace kv::control
