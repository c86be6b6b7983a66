// kvlab fleet.
#include "lab/fleet/fleet.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <regex>
#include <unistd.h>

#include "commandline/run.h"
#include "lab/commands/command_line.h"
#include "lab/page/units.h"
#include "platform/backend.h"

namespace kv::lab {

namespace {

std::atomic<bool> wasInterrupted{false};

std::string ServerAddress(const Given& given) {
    std::string server = NeededValue(given, "--server");
    while (server.ends_with('/')) server.pop_back();
    static const std::regex form(R"(https?://([^/:?#@\[\]]+|\[[0-9A-Fa-f:.]+\])(:([0-9]{1,5}))?)");
    std::smatch found;
    if (!std::regex_match(server, found, form) || (found[3].matched && std::stoi(found[3]) > 65535))
        throw UsageError("--server takes http://HOST:PORT or https://HOST:PORT, not '" + server + "'");
    return server;
}

/// Keys stand in addresses and names of files.
std::string KeyPrefix(const Given& given, const std::string& usual) {
    const std::string prefix = Value(given, "--prefix", usual);
    if (!std::regex_match(prefix, std::regex("[A-Za-z0-9._-]{1,60}")))
        throw UsageError("--prefix takes up to 60 letters, digits, '.', '_' and '-', not '" + prefix + "'");
    return prefix;
}

std::string CaFile(const Given& given, const std::string& server) {
    const std::string file = Value(given, "--ca");
    if (file.empty()) return file;
    if (!server.starts_with("https://")) throw UsageError("--ca is for a server with https://");
    RequireFile(file);
    std::ifstream stream(file, std::ios::binary);
    for (std::string line; std::getline(stream, line);)
        if (line.starts_with("-----BEGIN")) return file;
    throw std::runtime_error(file + " holds no certificate in PEM");
}

double Rate(const Given& given) {
    const std::string text = Value(given, "--rate", "1");
    char* end = nullptr;
    const double rate = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(rate >= 0.01 && rate <= 10000))
        throw UsageError("--rate takes a number from 0.01 to 10000, not '" + text + "'");
    return rate;
}

FleetOptions OptionsOf(const Given& given) {
    FleetOptions options;
    options.server = ServerAddress(given);
    options.caFile = CaFile(given, options.server);
    options.prefix = KeyPrefix(given, options.prefix);
    options.agents = static_cast<int>(Number(given, "--agents", options.agents, {1, 100'000}));
    options.rate = Rate(given);
    options.seconds = static_cast<int>(Number(given, "--seconds", options.seconds, {1, 864'000}));
    options.records = static_cast<int>(Number(given, "--records", options.records, {1, 2500}));
    return options;
}

/// On a terminal the line stays in its place; in a file there is one every ten seconds.
void ShowProgress(const FleetReport& report) {
    const bool isTerminal = isatty(STDERR_FILENO) != 0;
    const auto second = static_cast<std::int64_t>(report.seconds);
    if (!isTerminal && second % 10 != 0) return;
    const std::int64_t failed = report.registrations.failed() + report.requestLists.failed() + report.uploads.failed();
    fmt::print(stderr, "{}{:4} s  registered {}  lists {}  zips accepted {}  failed {}{}", isTerminal ? "\r\033[K" : "",
               second, report.registrations.count() - report.registrations.failed(), report.requestLists.count(),
               report.acceptedZips, failed, isTerminal ? "" : "\n");
}

std::string Row(const std::string& title, const Statistics& statistics, double seconds) {
    const auto milliseconds = [&](double share) { return statistics.Quantile(share) * 1000; };
    return fmt::format("{:<14}{:>9}{:>9.1f}{:>8}{:>10.1f}{:>10.1f}{:>10.1f}{:>12}{:>12}", title, statistics.count(),
                       static_cast<double>(statistics.count()) / std::max(seconds, 0.001), statistics.failed(),
                       milliseconds(0.5), milliseconds(0.99), milliseconds(1),
                       ValueText(static_cast<double>(statistics.bytesSent()), Unit::bytes),
                       ValueText(static_cast<double>(statistics.bytesReceived()), Unit::bytes));
}

void PrintReport(const FleetReport& report) {
    PrintLine(fmt::format("{:<14}{:>9}{:>9}{:>8}{:>10}{:>10}{:>10}{:>12}{:>12}", "", "requests", "a second", "failed",
                          "median ms", "p99 ms", "max ms", "sent", "received"));
    const std::pair<const char*, const Statistics&> rows[]{{"registration", report.registrations},
                                                           {"request list", report.requestLists},
                                                           {"upload", report.uploads},
                                                           {"stop", report.stops}};
    for (const auto& [title, statistics] : rows) PrintLine(Row(title, statistics, report.seconds));
    for (const auto& [title, statistics] : rows)
        for (const auto& [failure, times] : statistics.failures())
            PrintLine(fmt::format("{} failed {} times: {}", title, times, failure));
    PrintLine(fmt::format("zips: {} accepted, {} wait with their agents", report.acceptedZips, report.waitingZips));
    PrintLine(report.zipsHeld
                  ? fmt::format("the server holds {} more than before: {} lost", *report.zipsHeld, report.lost())
                  : "the server does not tell how many it holds, so that a loss would not be seen");
}

void RunFleetCommand(const Given& given) {
    const FleetOptions options = OptionsOf(given);
    platform::InstallBackend();  // which the packer of zips works on
    std::signal(SIGINT, [](int) { wasInterrupted = true; });
    std::signal(SIGTERM, [](int) { wasInterrupted = true; });
    const FleetReport report = RunFleet(options, ShowProgress, [] { return wasInterrupted.load(); });
    if (isatty(STDERR_FILENO) != 0) fmt::print(stderr, "\r\033[K");
    PrintReport(report);
    commandline::FlushOutput();
    if (report.lost() > 0) throw std::runtime_error(fmt::format("{} accepted zips were lost", report.lost()));
    if (report.registrations.count() > 0 && report.registrations.failed() == report.registrations.count())
        throw std::runtime_error("the server registered no agent: " + report.registrations.failures().begin()->first);
}

constexpr Option fleetOptions[] = {
    {"--server", "URL", "http://HOST:PORT or https://HOST:PORT", Times::once},
    {"--agents", "N", "how many agents are played; the default is 100"},
    {"--rate", "R", "how many times faster than an agent's rhythm they are; the default is 1"},
    {"--seconds", "S", "how long they run; the default is 300"},
    {"--records", "N", "records in each zip; the default is 65, what 13 records a minute make in 5 minutes"},
    {"--prefix", "TEXT", "what the agents' keys begin with; the default is FLEET"},
    {"--ca", "FILE", "verify the server's certificate by this PEM file; without it nothing is verified"},
};

constexpr Command commands[] = {
    {"fleet",
     "Plays many agents against a central server: they register, look for requests each 30 seconds (a real agent does "
     "so only while requests are announced to it), upload a zip each 300 seconds, made by the agent's own packer, and "
     "say at the end that they stop. Prints its progress on standard error, and at the end how long the server took, "
     "what failed and what was lost. Exit code 1 when an accepted zip was lost, or no agent registered.",
     {},
     fleetOptions,
     RunFleetCommand},
};

}  // namespace

std::span<const Command> FleetCommands() { return commands; }

}  // namespace kv::lab
