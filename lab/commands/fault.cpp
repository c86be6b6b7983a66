// kvlab fault set, clear and list.
#include <algorithm>
#include <array>
#include <fmt/format.h>

#include "lab/commands/command_line.h"

namespace kv::lab {

namespace {

std::string ServletName(const Given& given) {
    std::string name = Value(given, "--servlet");
    if (name.empty() || name == "*" || std::count(servletNames.begin(), servletNames.end(), name) != 0) return name;
    throw UsageError(fmt::format("there is no servlet '{}'; it is {} or *", name, fmt::join(servletNames, ", ")));
}

void RunFaultSet(const Given& given) {
    constexpr std::array<std::string_view, 4> kinds{"--status", "--delay", "--drop", "--cut"};
    Fault fault;
    fault.servlet = ServletName(given);
    if (fault.servlet.empty()) throw UsageError("--servlet is missing");
    if (std::count_if(kinds.begin(), kinds.end(), [&](std::string_view kind) { return Has(given, kind); }) != 1)
        throw UsageError("exactly one of --status, --delay, --drop and --cut is needed");
    constexpr std::int64_t longestDelay = 3600000;
    if (Has(given, "--status")) fault.kind = FaultKind::status;
    if (Has(given, "--delay")) fault.kind = FaultKind::delay;
    if (Has(given, "--drop")) fault.kind = FaultKind::drop;
    if (Has(given, "--cut")) fault.kind = FaultKind::cut;
    fault.value = Number(given, "--status", Number(given, "--delay", 0, {0, longestDelay}), {200, 599});
    fault.remaining = Number(given, "--count", 1, {0, INT32_MAX});
    Store store = OpenExisting(given);
    PrintLine(std::to_string(AddFault(store, fault)));
}

void RunFaultClear(const Given& given) {
    const std::string servlet = ServletName(given);
    const std::int64_t number = Number(given, "--number", 0, {1, INT64_MAX});
    Store store = OpenExisting(given);
    const std::int64_t cleared = ClearFaults(store, number, servlet);
    if (cleared > 0 || (number == 0 && servlet.empty())) return;
    throw NotFoundError(fmt::format("no fault{}{} is set", number > 0 ? fmt::format(" with the number {}", number) : "",
                                    servlet.empty() ? "" : " for " + servlet));
}

void RunFaultList(const Given& given) {
    Store store = OpenExisting(given);
    for (const Fault& fault : Faults(store))
        PrintLine(fmt::format("{}\t{}\t{}\t{}", fault.number, fault.servlet, FaultText(fault), fault.remaining));
}

constexpr Option setOptions[] = {
    databaseOption,
    {"--servlet", "NAME",
     "RegisterAgent, FileCollector, StatusUpdateServlet, DataAgentHandlerServlet, conf for the download of plans, or * "
     "for all",
     Times::once},
    {"--status", "CODE", "answer with this status, 200 to 599; nothing is stored"},
    {"--delay", "MS", "wait so many milliseconds before the work"},
    {"--drop", "", "close the connection without an answer; nothing is stored"},
    {"--cut", "",
     "do the work, then send half of the answer's body; the requests of a list that is cut do not count as fetched"},
    {"--count", "N", "for the next N requests, 0 until it is cleared; the default is 1"},
};

constexpr Option clearOptions[] = {
    databaseOption,
    {"--servlet", "NAME", "only those of one servlet; * for those set for all servlets"},
    {"--number", "N", "only the one with that number"},
};

constexpr Option listOptions[] = {databaseOption};

constexpr Command commands[] = {
    {"fault set",
     "Sets a fault and prints its number. It applies from a running server's next request on. Exactly one of --status, "
     "--delay, --drop and --cut says what it is. Of several faults for one servlet the oldest applies until it is used "
     "up.",
     {},
     setOptions,
     RunFaultSet},
    {"fault clear", "Clears all faults, or some of them.", {}, clearOptions, RunFaultClear},
    {"fault list",
     "Prints the faults that are set. One a line, with tabs between: number, servlet, fault, remaining requests (0: "
     "until cleared).",
     {},
     listOptions,
     RunFaultList},
};

}  // namespace

std::span<const Command> FaultCommands() { return commands; }

}  // namespace kv::lab
