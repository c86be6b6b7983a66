#include "lab/server/server.h"

#include <atomic>
#include <cstdio>
#include <optional>
#include <vector>

#include "lab/page/views.h"
#include "lab/server/failure_log.h"
#include "lab/server/http_daemon.h"
#include "lab/server/servlets.h"
#include "lab/server/tls_files.h"
#include "lab/store/prune.h"
#include "lab/store/store.h"

namespace kv::lab {

namespace {

constexpr std::size_t workers = 8;

/// What bodies, and what is unpacked of them, may take together; see MemoryBudget.
constexpr std::size_t bodyBudget = std::size_t{384} << 20;
constexpr std::size_t unpackedBudget = std::size_t{384} << 20;

constexpr auto prunePause = std::chrono::hours(1);

/// The store of each worker. When the database fails for one, all open theirs again, because a database server that
/// comes back knows none of its former connections.
class WorkerStores {
  public:
    explicit WorkerStores(const std::string& database) : database_(database), stores_(workers) {}

    /// Throws DatabaseError.
    Store& At(std::size_t worker) {
        const unsigned failures = failures_;
        Opened& opened = stores_[worker];
        if (!opened.store || opened.failures != failures) {
            opened.store.reset();
            opened.store.emplace(OpenStore(database_));
            opened.failures = failures;
        }
        return *opened.store;
    }

    void NoteFailure() { ++failures_; }

  private:
    struct Opened {
        std::optional<Store> store;
        unsigned failures = 0;  // as many as there were when it was opened
    };

    const std::string database_;
    std::atomic<unsigned> failures_ = 0;
    std::vector<Opened> stores_;
};

/// The servlet, one of servletNames or another word, that a path leads to; empty for other paths.
std::string ServletAt(const std::string& path) {
    constexpr std::string_view servlets = "/servlets/";
    constexpr std::string_view configurations = "/conf/";
    if (path.starts_with(servlets)) return path.substr(servlets.size());
    return path.starts_with(configurations) ? "conf" : "";
}

Answer AnswerView(Store& store, ServletRequest call) {
    if (call.method == "HEAD") call.method = "GET";
    if (call.method != "GET") return ShownError(TextAnswer(405, "this path is called with GET"), call);
    return ShownError(ServeView(store, call).value_or(TextAnswer(404, "there is nothing here")), call);
}

ServerOptions Checked(const ServerOptions& options) {
    if (options.certificate.empty()) return options;
    if (const std::string fault = TlsFault(options.certificate, options.privateKey); !fault.empty())
        throw ServerError(fault);
    return options;
}

}  // namespace

struct LabServer::Running {
    ServerOptions options;
    Store keepOpen;  // when the last connection closes, SQLite merges and deletes the database's log, which is slow
    MemoryBudget unpacked{unpackedBudget};
    ServletSettings settings;
    WorkerStores stores;
    FailureLog failures;
    HttpDaemon http;  // the last, so that it ends before what it uses

    explicit Running(const ServerOptions& given)
        : options(Checked(given)),
          keepOpen(OpenStore(given.database)),
          settings{given.timeDiff, given.refusedKeys, unpacked},
          stores(given.database),
          http({given.listen, given.port, given.certificate, given.privateKey, workers, bodyBudget},
               [this](std::size_t worker, const HttpRequest& request) { return Handle(worker, request); }) {}

    void PruneEachHour();
    HttpOutcome Handle(std::size_t worker, const HttpRequest& request) noexcept;
    HttpOutcome Failed(const std::exception& error, const ServletRequest& call);
    HttpOutcome HandleServlet(Store& store, const std::string& servlet, const HttpRequest& request) const;
};

void LabServer::Running::PruneEachHour() {
    http.Repeat(prunePause, [this](std::size_t worker) {
        try {
            Prune(stores.At(worker), Now() - options.keep);
        } catch (const std::exception& error) {
            stores.NoteFailure();
            std::fprintf(stderr, "kvlab: old records are not deleted: %s\n", error.what());
        }
    });
}

HttpOutcome LabServer::Running::Handle(std::size_t worker, const HttpRequest& request) noexcept {
    try {
        Store& store = stores.At(worker);
        const std::string servlet = ServletAt(request.call.path);
        if (!servlet.empty()) return HandleServlet(store, servlet, request);
        return {HttpOutcome::Kind::answer, AnswerView(store, request.call), {}};
    } catch (const DatabaseError& error) {
        stores.NoteFailure();
        return Failed(error, request.call);
    } catch (const std::exception& error) {
        return Failed(error, request.call);
    }
}

HttpOutcome LabServer::Running::Failed(const std::exception& error, const ServletRequest& call) {
    failures.Tell(error.what());
    // Where the database is concerns nobody outside.
    const Answer answer = TextAnswer(500, "the server failed; its standard error tells why");
    return {HttpOutcome::Kind::answer, ShownError(answer, call), {}};
}

/// Serves a request to a servlet, with the fault that is set for it.
HttpOutcome LabServer::Running::HandleServlet(Store& store, const std::string& servlet,
                                              const HttpRequest& request) const {
    using Kind = HttpOutcome::Kind;
    ServletRequest call = request.call;
    if (request.fault == BodyFault::incomplete)
        return {Kind::drop, RefuseBody(store, *request.fault, servlet, call), {}};
    const std::optional<Fault> fault = request.delayed ? std::nullopt : TakeFault(store, servlet);
    if (fault && fault->kind == FaultKind::drop) return {Kind::drop, {}, {}};
    if (fault && fault->kind == FaultKind::delay) return {Kind::delay, {}, std::chrono::milliseconds(fault->value)};
    if (fault && fault->kind == FaultKind::status)
        return {Kind::answer, TextAnswer(static_cast<int>(fault->value), "a fault is set: " + FaultText(*fault)), {}};
    call.cut = fault && fault->kind == FaultKind::cut;
    return {call.cut ? Kind::half : Kind::answer,
            request.fault ? RefuseBody(store, *request.fault, servlet, call) : Serve(store, settings, servlet, call),
            {}};
}

LabServer::LabServer(const ServerOptions& options) : running_(std::make_unique<Running>(options)) {
    if (options.keep > 0) running_->PruneEachHour();
}

LabServer::~LabServer() = default;

int LabServer::port() const { return running_->http.port(); }

std::string LabServer::address() const {
    const ServerOptions& options = running_->options;
    const bool isInet6 = options.listen.find(':') != std::string::npos;
    return (options.certificate.empty() ? "http://" : "https://") +
           (isInet6 ? "[" + options.listen + "]" : options.listen) + ":" + std::to_string(port()) + "/";
}

}  // namespace kv::lab
