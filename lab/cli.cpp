#include "lab/cli.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "lab/record_text.h"
#include "lab/server.h"
#include "lab/store.h"

namespace kv::lab {

namespace {

constexpr auto followPause = std::chrono::milliseconds(250);

/// A wrong command line, and a thing that does not exist.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
struct NotFoundError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// An option and the names of its values.
struct Option {
    std::string_view name;
    std::size_t values = 0;
};

/// Options given, each with its values; one given again adds to them.
using Options = std::multimap<std::string, std::vector<std::string>, std::less<>>;

struct Command {
    std::string_view name;
    std::vector<Option> options;
    void (*run)(const Options&);
    std::string_view help;
};

Options ParseOptions(const Command& command, const std::vector<std::string>& words) {
    Options options;
    for (std::size_t at = 0; at < words.size(); ++at) {
        const auto known = std::find_if(command.options.begin(), command.options.end(),
                                        [&](const Option& option) { return option.name == words[at]; });
        if (known == command.options.end()) throw UsageError("unknown option '" + words[at] + "'");
        if (words.size() - at - 1 < known->values)
            throw UsageError(fmt::format("{} needs {}", words[at], known->values == 1 ? "a value" : "two values"));
        const auto first = words.begin() + static_cast<std::ptrdiff_t>(at) + 1;
        options.emplace(words[at], std::vector<std::string>(first, first + static_cast<std::ptrdiff_t>(known->values)));
        at += known->values;
    }
    return options;
}

bool Has(const Options& options, std::string_view name) { return options.find(name) != options.end(); }

std::string Value(const Options& options, std::string_view name, const std::string& fallback = "") {
    const auto found = options.find(name);
    return found == options.end() ? fallback : found->second.front();
}

struct Range {
    std::int64_t low;
    std::int64_t high;
};

std::int64_t Number(const Options& options, std::string_view name, std::int64_t fallback, Range range) {
    if (!Has(options, name)) return fallback;
    const std::string text = Value(options, name);
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < range.low || number > range.high)
        throw UsageError(fmt::format("{} takes a number from {} to {}, not '{}'", name, range.low, range.high, text));
    return number;
}

std::string DatabasePath(const Options& options) {
    std::string path = Value(options, "--database");
    if (path.empty()) throw UsageError("--database is missing");
    return path;
}

/// The database of a server that has been started at some time.
Store OpenExisting(const Options& options) {
    const std::string path = DatabasePath(options);
    if (!std::filesystem::exists(path)) throw NotFoundError("there is no database " + path);
    return OpenStore(path);
}

void PrintLine(const std::string& line) {
    if (std::puts(line.c_str()) < 0) throw std::runtime_error("cannot write to standard output");
}

void Flush() {
    if (std::fflush(stdout) != 0) throw std::runtime_error("cannot write to standard output");
}

void RunServe(const Options& given) {
    ServerOptions options;
    options.database = DatabasePath(given);
    options.port = static_cast<int>(Number(given, "--port", 0, {0, 65535}));
    options.listen = Value(given, "--listen", options.listen);
    options.timeDiff = Number(given, "--time-diff", 0, {INT32_MIN, INT32_MAX});
    if (const auto tls = given.find("--tls"); tls != given.end()) {
        options.certificate = tls->second[0];
        options.privateKey = tls->second[1];
    }
    const auto [first, last] = given.equal_range("--refuse");
    for (auto refused = first; refused != last; ++refused) options.refusedKeys.insert(refused->second.front());

    // Blocked before the server's threads start, so that the signals wait for sigwait below.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const LabServer server(options);
    PrintLine(server.address());
    Flush();
    int signal = 0;
    sigwait(&signals, &signal);
}

void RunAgents(const Options& options) {
    Store store = OpenExisting(options);
    for (const Agent& agent : Agents(store)) {
        const AgentDetails& details = agent.details;
        PrintLine(OneLine(details.key) + '\t' + OneLine(details.id) + '\t' + OneLine(details.dns) + '\t' +
                  OneLine(details.address) + '\t' + OneLine(details.osName) + '\t' + OneLine(details.customer) + '\t' +
                  OneLine(details.office) + '\t' + UtcText(agent.lastContact) + '\t' + OneLine(agent.status));
    }
    Flush();
}

void RunRecords(const Options& options) {
    Store store = OpenExisting(options);
    const bool follow = Has(options, "--follow");
    RecordQuery query;
    query.agent = Value(options, "--agent");
    if (!follow && !query.agent.empty() && !AgentExists(store, query.agent))
        throw NotFoundError("there is no agent with the key " + query.agent);
    while (true) {
        const std::vector<Record> records = RecordsAfter(store, query);
        for (const Record& record : records) PrintLine(RecordLine(record));
        Flush();
        if (!records.empty()) {
            query.after = records.back().number;
        } else if (follow) {
            std::this_thread::sleep_for(followPause);
        } else {
            return;
        }
    }
}

std::string ServletName(const Options& options) {
    std::string name = Value(options, "--servlet");
    if (name.empty() || name == "*" || std::count(servletNames.begin(), servletNames.end(), name) != 0) return name;
    throw UsageError(fmt::format("there is no servlet '{}'; it is {} or *", name, fmt::join(servletNames, ", ")));
}

void RunFaultSet(const Options& options) {
    constexpr std::array<std::string_view, 4> kinds{"--status", "--delay", "--drop", "--cut"};
    Fault fault;
    fault.servlet = ServletName(options);
    if (fault.servlet.empty()) throw UsageError("--servlet is missing");
    if (std::count_if(kinds.begin(), kinds.end(), [&](std::string_view kind) { return Has(options, kind); }) != 1)
        throw UsageError("exactly one of --status, --delay, --drop and --cut is needed");
    constexpr std::int64_t longestDelay = 3600000;
    if (Has(options, "--status")) fault.kind = FaultKind::status;
    if (Has(options, "--delay")) fault.kind = FaultKind::delay;
    if (Has(options, "--drop")) fault.kind = FaultKind::drop;
    if (Has(options, "--cut")) fault.kind = FaultKind::cut;
    fault.value = Number(options, "--status", Number(options, "--delay", 0, {0, longestDelay}), {200, 599});
    fault.remaining = Number(options, "--count", 1, {0, INT32_MAX});
    Store store = OpenExisting(options);
    PrintLine(std::to_string(AddFault(store, fault)));
    Flush();
}

void RunFaultClear(const Options& options) {
    const std::string servlet = ServletName(options);
    const std::int64_t number = Number(options, "--number", 0, {1, INT64_MAX});
    Store store = OpenExisting(options);
    const std::int64_t cleared = ClearFaults(store, number, servlet);
    if (cleared == 0 && (number != 0 || !servlet.empty())) throw NotFoundError("there is no such fault");
}

void RunFaultList(const Options& options) {
    Store store = OpenExisting(options);
    for (const Fault& fault : Faults(store))
        PrintLine(fmt::format("{}\t{}\t{}\t{}", fault.number, fault.servlet, FaultText(fault), fault.remaining));
    Flush();
}

constexpr std::string_view generalHelp = R"(kvlab: a central server to try and test the monitoring agent against.

usage: kvlab serve   --database FILE [--port N] [--listen ADDRESS] [--tls CERT KEY] ...
       kvlab records --database FILE [--agent KEY] [--follow]
       kvlab agents  --database FILE
       kvlab fault set|clear|list --database FILE ...

'kvlab COMMAND --help' tells about one command. All commands work while the server runs.

Exit codes: 0 success, 1 a failure, 2 a wrong command line, 3 the thing asked for does not exist.
)";

const std::array<Command, 6>& Commands() {
    static const std::array<Command, 6> commands{{
        {"serve",
         {{"--database", 1}, {"--port", 1}, {"--listen", 1}, {"--tls", 2}, {"--time-diff", 1}, {"--refuse", 1}},
         RunServe,
         R"(usage: kvlab serve --database FILE [options]

Serves agents until it gets SIGINT or SIGTERM. Prints its address in one line once it listens; the page of what has
arrived is there.

  --database FILE      where everything is kept; made when it is missing
  --port N             port to listen on; 0, the default, takes any free one
  --listen ADDRESS     address to listen on; the default is 127.0.0.1
  --tls CERT KEY       speak HTTPS with this certificate and key, both PEM files
  --time-diff SECONDS  what agents are told to add to their clock; the default is 0
  --refuse KEY         tell the agent with this key not to run; may be given several times
)"},
        {"records",
         {{"--database", 1}, {"--agent", 1}, {"--follow", 0}},
         RunRecords,
         R"(usage: kvlab records --database FILE [--agent KEY] [--follow]

Prints the accepted records, one a line, with tabs between: number, agent, zip, record file, time, values.

  --agent KEY  only this agent's
  --follow     go on with those that arrive, until interrupted
)"},
        {"agents",
         {{"--database", 1}},
         RunAgents,
         R"(usage: kvlab agents --database FILE

Prints the agents, one a line, with tabs between: key, name, DNS name, address, operating system, customer, office, last
contact, last status report.
)"},
        {"fault set",
         {{"--database", 1},
          {"--servlet", 1},
          {"--status", 1},
          {"--delay", 1},
          {"--drop", 0},
          {"--cut", 0},
          {"--count", 1}},
         RunFaultSet,
         R"(usage: kvlab fault set --database FILE --servlet NAME (--status CODE | --delay MS | --drop | --cut) [--count N]

Orders a fault, which a running server has from its next request on, and prints its number. Of several faults for one
servlet the oldest applies until it is used up.

  --servlet NAME  RegisterAgent, FileCollector, StatusUpdateServlet, DataAgentHandlerServlet, or * for all
  --status CODE   answer with this status, 200 to 599; nothing is stored
  --delay MS      wait so many milliseconds before the work
  --drop          close the connection without an answer; nothing is stored
  --cut           do the work, then send half of the answer's body
  --count N       for the next N requests, 0 until it is cleared; the default is 1
)"},
        {"fault clear",
         {{"--database", 1}, {"--servlet", 1}, {"--number", 1}},
         RunFaultClear,
         R"(usage: kvlab fault clear --database FILE [--servlet NAME] [--number N]

Takes back all faults, those of one servlet (* for those ordered for all), or the one of that number.
)"},
        {"fault list",
         {{"--database", 1}},
         RunFaultList,
         R"(usage: kvlab fault list --database FILE

Prints the faults on order, one a line, with tabs between: number, servlet, fault, remaining requests (0: until cleared).
)"},
    }};
    return commands;
}

bool AsksForHelp(std::string_view word) { return word == "--help" || word == "-h"; }

void PrintHelp(std::string_view text) {
    fmt::print("{}", text);
    Flush();
}

/// Help for all commands that begin with a word, such as the three of "fault".
void PrintHelpFor(std::string_view word) {
    for (const Command& command : Commands())
        if (command.name.starts_with(word)) fmt::print("{}\n", command.help);
    Flush();
}

/// The command that the first words name; they are taken away.
const Command& TakeCommand(std::vector<std::string>& words) {
    if (words.empty()) throw UsageError("a command is missing");
    const std::size_t length = words.front() == "fault" && words.size() > 1 ? 2 : 1;
    const std::string name = length == 2 ? words[0] + " " + words[1] : words[0];
    for (const Command& command : Commands()) {
        if (command.name != name) continue;
        words.erase(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(length));
        return command;
    }
    throw UsageError(name == "fault" ? "fault needs set, clear or list" : "unknown command '" + name + "'");
}

void Run(std::vector<std::string> words) {
    if (!words.empty() && AsksForHelp(words[0])) return PrintHelp(generalHelp);
    if (words.size() == 2 && words[0] == "fault" && AsksForHelp(words[1])) return PrintHelpFor("fault ");
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
