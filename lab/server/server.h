// The lab's server: answers the agents' servlets, keeps what they send, and shows it at "/". The same code runs in the
// program and, as a real server on a free port, in tests.
//
//   GET  /servlets/RegisterAgent            agentKey, agentID, agentDNS, ipAddress, customerName, remoteOffice, osName
//   POST /servlets/FileCollector            AGENTKEY, FILENAME; the body is a zip
//   GET  /servlets/StatusUpdateServlet      agentKey, agentStatus, serviceName
//   GET  /servlets/DataAgentHandlerServlet  agentKey, without action and requestId: the request list, UTF-16LE JSON
//   GET  /servlets/DataAgentHandlerServlet  agentKey, action, requestId: a notice; status and moId for a download
//   POST /servlets/DataAgentHandlerServlet  agentKey, action, requestId; the body is UTF-16LE text
//   GET  /conf/N/queryconf.zip              a configuration
//   GET  any other path                     the views of lab/page/views.h
//
// A request that is malformed gets status 400 and one line that says why; when the database fails, 500.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "lab/server/server_error.h"

namespace kv::lab {

struct ServerOptions {
    std::string database;
    std::string listen = "127.0.0.1";
    int port = 0;             // 0 for any free port
    std::string certificate;  // PEM files; with both of them the server speaks HTTPS
    std::string privateKey;
    std::int64_t timeDiff = 0;          // seconds that agents add to their clock
    std::set<std::string> refusedKeys;  // agents with these keys are told not to run
    std::int64_t keep = 0;              // milliseconds after which records and the like are deleted; 0 for never
};

/// A server that listens, on its own threads, from the end of its construction to its destruction. The destructor ends
/// requests that wait for a delay and lets the others finish. Construction throws ServerError or DatabaseError.
class LabServer {
  public:
    explicit LabServer(const ServerOptions& options);
    ~LabServer();
    LabServer(const LabServer&) = delete;
    LabServer& operator=(const LabServer&) = delete;

    int port() const;

    /// Such as "http://127.0.0.1:8080/".
    std::string address() const;

  private:
    struct Running;
    std::unique_ptr<Running> running_;
};

}  // namespace kv::lab
