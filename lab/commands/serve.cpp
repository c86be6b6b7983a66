// kvlab serve, agents and prune.
#include <csignal>

#include "commandline/run.h"
#include "lab/commands/command_line.h"
#include "lab/commands/duration.h"
#include "lab/server/server.h"
#include "lab/store/plans.h"
#include "lab/store/prune.h"
#include "lab/store/record_text.h"

namespace kv::lab {

namespace {

/// Keeps the plan that agents start with, for the page.
void KeepPlan(const std::string& database, const std::string& path) {
    const std::string bytes = ReadPlanFile(path);
    Store store = OpenStore(database);
    if (!KeepStartPlan(store, bytes))
        throw std::runtime_error(path + " is not a plan that lists records; kvagentctl check " + path + " tells more");
}

void RunServe(const Given& given) {
    ServerOptions options;
    options.database = NeededValue(given, "--database");
    options.port = static_cast<int>(Number(given, "--port", 0, {0, 65535}));
    options.listen = Value(given, "--listen", options.listen);
    options.timeDiff = Number(given, "--time-diff", 0, {INT32_MIN, INT32_MAX});
    if (const std::vector<std::string> tls = Values(given, "--tls"); !tls.empty()) {
        options.certificate = tls[0];
        options.privateKey = tls[1];
    }
    for (const std::string& key : Values(given, "--refuse")) options.refusedKeys.insert(key);

    if (Has(given, "--keep")) options.keep = DurationOf("--keep", Value(given, "--keep"));
    if (const std::string plan = Value(given, "--plan"); !plan.empty()) KeepPlan(options.database, plan);

    // Blocked before the server's threads start, so that the signals wait for sigwait below.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const LabServer server(options);
    PrintLine(server.address());
    commandline::FlushOutput();
    int signal = 0;
    sigwait(&signals, &signal);
}

void RunAgents(const Given& given) {
    Store store = OpenExisting(given);
    for (const Agent& agent : Agents(store)) {
        const AgentDetails& details = agent.details;
        PrintLine(OneLine(details.key) + '\t' + OneLine(details.id) + '\t' + OneLine(details.dns) + '\t' +
                  OneLine(details.address) + '\t' + OneLine(details.osName) + '\t' + OneLine(details.customer) + '\t' +
                  OneLine(details.office) + '\t' + UtcText(agent.lastContact) + '\t' + OneLine(agent.status));
    }
}

void RunPrune(const Given& given) {
    const std::int64_t keep = DurationOf("--keep", NeededValue(given, "--keep"));
    Store store = OpenExisting(given);
    PrintLine(std::to_string(Prune(store, Now() - keep)));
}

constexpr Option serveOptions[] = {
    {"--database", "FILE", "where everything is kept: a file, which is made if it is missing, or postgresql://...",
     Times::once},
    {"--port", "N", "port to listen on; 0, the default, takes any free one"},
    {"--listen", "ADDRESS", "address to listen on; the default is 127.0.0.1"},
    {"--tls", "CERT_FILE KEY_FILE", "speak HTTPS with this certificate and key, both PEM files"},
    {"--time-diff", "SECONDS", "what agents are told to add to their clock; the default is 0"},
    {"--keep", "TIME", "delete what is older, such as 12h, 7d or 4w, at the start and each hour; the default is never"},
    {"--plan", "FILE", "the plan that agents start with, for the page to show what they collect"},
    {"--refuse", "KEY", "tell the agent with this key not to run; may be given several times", Times::any},
};

constexpr Option agentsOptions[] = {databaseOption};

constexpr Option pruneOptions[] = {
    databaseOption,
    {"--keep", "TIME", "how old a record may be by its time of collection, such as 12h, 7d or 4w", Times::once},
};

constexpr Command commands[] = {
    {"serve",
     "Serves agents until it gets SIGINT or SIGTERM. Prints its address in one line once it listens; a page there "
     "shows "
     "what has arrived.",
     {},
     serveOptions,
     RunServe},
    {"agents",
     "Prints the agents. One a line, with tabs between: key, name, DNS name, address, operating system, customer, "
     "office, last contact, last status report.",
     {},
     agentsOptions,
     RunAgents},
    {"prune",
     "Deletes records that are older, with their values, and older refusals, reports, answers and requests that have "
     "ended. Prints how many records went.",
     {},
     pruneOptions,
     RunPrune},
};

}  // namespace

std::span<const Command> ServerCommands() { return commands; }

}  // namespace kv::lab
