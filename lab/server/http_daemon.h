// HTTP for the lab's server, on libmicrohttpd. A few threads read requests and send answers; a request that is complete
// waits, without a thread, for one of the workers, which serve requests. So slow senders and readers hold nobody up,
// and thousands of connections may be open.
//
// A body is read up to its end before the answer, however large it is, so that its sender sees the answer; of one that
// is larger than maxBodyBytes nothing is kept. Bodies wait for room in the memory while all of them together would take
// more than their budget.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "lab/server/http_request.h"

namespace kv::lab {

struct HttpOptions {
    std::string listen;
    int port = 0;             // 0 for any free port
    std::string certificate;  // PEM files that TlsFault finds good; with both of them it speaks HTTPS
    std::string privateKey;
    std::size_t workers = 8;
    std::size_t bodyBudget = std::size_t{384} << 20;  // bytes
};

/// Serves a request, on the thread of a worker, which is numbered from 0 below HttpOptions::workers. It may not throw.
/// It is also called for a request whose sender went away before its body was whole; that answer reaches nobody.
using HttpHandler = std::function<HttpOutcome(std::size_t worker, const HttpRequest& request)>;

class HttpDaemon {
  public:
    /// Listens and serves from then on, and raises the process's limit of open files to the highest that it may have.
    /// Throws ServerError.
    HttpDaemon(const HttpOptions& options, HttpHandler handler);

    /// Stops listening, ends delays and requests that are still arriving without an answer, and waits until the others
    /// are served and, for some seconds, until their answers are sent.
    ~HttpDaemon();
    HttpDaemon(const HttpDaemon&) = delete;
    HttpDaemon& operator=(const HttpDaemon&) = delete;

    int port() const;

    /// Runs work on a worker at once and then again and again, with such a pause in between. It may not throw.
    void Repeat(std::chrono::milliseconds pause, const std::function<void(std::size_t worker)>& work);

  private:
    struct Running;
    std::unique_ptr<Running> running_;
};

}  // namespace kv::lab
