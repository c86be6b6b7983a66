// kvlab serve, records and agents.
#include <array>
#include <chrono>
#include <csignal>
#include <thread>

#include "lab/command_line.h"
#include "lab/record_text.h"
#include "lab/server.h"

namespace kv::lab {

namespace {

constexpr auto followPause = std::chrono::milliseconds(250);

void RunServe(const Options& given) {
    ServerOptions options;
    options.database = NeededValue(given, "--database");
    options.port = static_cast<int>(Number(given, "--port", 0, {0, 65535}));
    options.listen = Value(given, "--listen", options.listen);
    options.timeDiff = Number(given, "--time-diff", 0, {INT32_MIN, INT32_MAX});
    if (const auto tls = given.find("--tls"); tls != given.end()) {
        options.certificate = tls->second[0];
        options.privateKey = tls->second[1];
    }
    for (const std::string& key : Values(given, "--refuse")) options.refusedKeys.insert(key);

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

}  // namespace

std::span<const Command> ServerCommands() {
    static const std::array<Command, 3> commands{{
        {"serve",
         {{"--database", 1}, {"--port", 1}, {"--listen", 1}, {"--tls", 2}, {"--time-diff", 1}, {"--refuse", 1}},
         {},
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
         {},
         RunRecords,
         R"(usage: kvlab records --database FILE [--agent KEY] [--follow]

Prints the accepted records, one a line, with tabs between: number, agent, zip, record file, time, values.

  --agent KEY  only this agent's
  --follow     go on with those that arrive, until interrupted
)"},
        {"agents",
         {{"--database", 1}},
         {},
         RunAgents,
         R"(usage: kvlab agents --database FILE

Prints the agents, one a line, with tabs between: key, name, DNS name, address, operating system, customer, office, last
contact, last status report.
)"},
    }};
    return commands;
}

}  // namespace kv::lab
