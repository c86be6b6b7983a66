// kvlab fault set, clear and list.
#include <algorithm>
#include <array>
#include <fmt/format.h>

#include "lab/command_line.h"

namespace kv::lab {

namespace {

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

}  // namespace

std::span<const Command> FaultCommands() {
    static const std::array<Command, 3> commands{{
        {"fault set",
         {{"--database", 1},
          {"--servlet", 1},
          {"--status", 1},
          {"--delay", 1},
          {"--drop", 0},
          {"--cut", 0},
          {"--count", 1}},
         {},
         RunFaultSet,
         R"(usage: kvlab fault set --database FILE --servlet NAME (--status CODE | --delay MS | --drop | --cut) [--count N]

Orders a fault, which a running server has from its next request on, and prints its number. Of several faults for one
servlet the oldest applies until it is used up.

  --servlet NAME  RegisterAgent, FileCollector, StatusUpdateServlet, DataAgentHandlerServlet, conf for the download of
                  plans, or * for all
  --status CODE   answer with this status, 200 to 599; nothing is stored
  --delay MS      wait so many milliseconds before the work
  --drop          close the connection without an answer; nothing is stored
  --cut           do the work, then send half of the answer's body; the requests of a list that is cut do not count as
                  fetched
  --count N       for the next N requests, 0 until it is cleared; the default is 1
)"},
        {"fault clear",
         {{"--database", 1}, {"--servlet", 1}, {"--number", 1}},
         {},
         RunFaultClear,
         R"(usage: kvlab fault clear --database FILE [--servlet NAME] [--number N]

Takes back all faults, those of one servlet (* for those ordered for all), or the one of that number.
)"},
        {"fault list",
         {{"--database", 1}},
         {},
         RunFaultList,
         R"(usage: kvlab fault list --database FILE

Prints the faults on order, one a line, with tabs between: number, servlet, fault, remaining requests (0: until cleared).
)"},
    }};
    return commands;
}

}  // namespace kv::lab
