#include "lab/server/server.h"

#include <arpa/inet.h>
#include <array>
#include <charconv>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <httplib.h>
#include <mutex>
#include <netinet/in.h>
#include <optional>
#include <sys/socket.h>
#include <thread>

#include "lab/page/views.h"
#include "lab/server/servlets.h"
#include "lab/server/tls_files.h"
#include "lab/store/archive.h"
#include "lab/store/store.h"

namespace kv::lab {

namespace {

/// Seconds without a byte after which a sender is given up, and seconds for which an idle connection is kept.
constexpr time_t transferTimeout = 30;
constexpr time_t idleTimeout = 2;

constexpr std::size_t serverThreads = 16;

struct Body {
    std::string bytes;
    std::optional<BodyFault> fault;
};

/// Reads a body of at most maxBodyBytes. The rest of a larger body is read and dropped, so that the sender sees the
/// answer.
Body ReadBody(const httplib::ContentReader& reader) {
    Body body;
    const bool complete = reader([&](const char* data, std::size_t size) {
        if (body.bytes.size() + size > maxBodyBytes) body.fault = BodyFault::tooLarge;
        if (!body.fault) body.bytes.append(data, size);
        return true;
    });
    if (!complete && !body.fault) body.fault = BodyFault::incomplete;
    return body;
}

/// Whether a socket leads to this address and port.
bool IsConnectedTo(int socket, const std::string& address, int port) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    if (getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return false;
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (peer.ss_family == AF_INET6) {
        const auto* const inet6 = reinterpret_cast<const sockaddr_in6*>(&peer);
        return ntohs(inet6->sin6_port) == port && inet_ntop(AF_INET6, &inet6->sin6_addr, text.data(), text.size()) &&
               address == text.data();
    }
    const auto* const inet = reinterpret_cast<const sockaddr_in*>(&peer);
    return peer.ss_family == AF_INET && ntohs(inet->sin_port) == port &&
           inet_ntop(AF_INET, &inet->sin_addr, text.data(), text.size()) && address == text.data();
}

/// Ends the connection on which a request came, so that nothing more reaches the sender. The HTTP library does not tell
/// its socket, which is therefore searched for among the process's own. The library's writes fail from then on, and it
/// closes the socket.
void DropConnection(const httplib::Request& request) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const std::string name = entry.path().filename();
        int socket = -1;
        std::from_chars(name.data(), name.data() + name.size(), socket);
        if (IsConnectedTo(socket, request.remote_addr, request.remote_port)) {
            shutdown(socket, SHUT_RDWR);
            return;
        }
    }
}

void Send(httplib::Response& response, const Answer& answer) {
    response.status = answer.status;
    for (const auto& [name, value] : answer.headers) response.set_header(name, value);
    response.set_content(answer.body, answer.type);
}

/// Announces the whole body and sends half of it. Two blanks replace an empty body, because a half must be missing.
void SendHalf(httplib::Response& response, Answer answer) {
    if (answer.body.empty()) answer.body = "  ";
    const std::size_t size = answer.body.size();
    response.status = answer.status;
    for (const auto& [name, value] : answer.headers) response.set_header(name, value);
    response.set_content_provider(
        size, answer.type, [body = std::move(answer.body)](std::size_t offset, std::size_t, httplib::DataSink& sink) {
            if (offset == 0) sink.write(body.data(), body.size() / 2);
            return false;
        });
}

}  // namespace

struct LabServer::Running {
    ServerOptions options;
    Store keepOpen;  // when the last connection closes, SQLite merges and deletes the database's log, which is slow
    std::unique_ptr<httplib::Server> http;
    int port = 0;
    std::thread listener;

    std::mutex mutex;  // guards stopping
    std::condition_variable wake;
    bool stopping = false;

    explicit Running(const ServerOptions& given) : options(given), keepOpen(OpenStore(given.database)) {}
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;
    ~Running() {
        {
            const std::lock_guard guard(mutex);
            stopping = true;
        }
        wake.notify_all();
        if (!listener.joinable()) return;
        http->stop();
        listener.join();
    }

    void MakeHttpServer();
    void SetRoutes();
    void Listen();
    void HandleServlet(const httplib::Request& request, httplib::Response& response, const Body& body);
    bool Delay(std::int64_t milliseconds);
};

/// Waits; false when the server stops meanwhile.
bool LabServer::Running::Delay(std::int64_t milliseconds) {
    std::unique_lock lock(mutex);
    return !wake.wait_for(lock, std::chrono::milliseconds(milliseconds), [this] { return stopping; });
}

/// Serves a request to one of servletNames, with the fault that is set for it.
void LabServer::Running::HandleServlet(const httplib::Request& request, httplib::Response& response, const Body& body) {
    const std::string servlet = request.matches[1];
    Store store = OpenStore(options.database);
    const std::optional<Fault> fault = TakeFault(store, servlet);
    const bool cut = fault && fault->kind == FaultKind::cut;
    const ServletRequest call{request.method, request.path, request.params, body.bytes, request.remote_addr, cut};
    if (fault && fault->kind == FaultKind::drop) return DropConnection(request);
    if (fault && fault->kind == FaultKind::delay && !Delay(fault->value)) return DropConnection(request);
    if (fault && fault->kind == FaultKind::status)
        return Send(response, TextAnswer(static_cast<int>(fault->value), "a fault is set: " + FaultText(*fault)));
    const Enrolment enrolment{options.timeDiff, options.refusedKeys};
    Answer answer = body.fault ? RefuseBody(store, *body.fault, servlet, call) : Serve(store, enrolment, servlet, call);
    if (cut) return SendHalf(response, std::move(answer));
    Send(response, answer);
}

void LabServer::Running::SetRoutes() {
    for (const char* path : {R"(/servlets/(\w+))", R"(/(conf)/\d+/queryconf\.zip)"}) {
        http->Get(path, [this](const httplib::Request& request, httplib::Response& response) {
            HandleServlet(request, response, Body());
        });
    }
    http->Post(R"(/servlets/(\w+))", [this](const httplib::Request& request, httplib::Response& response,
                                            const httplib::ContentReader& reader) {
        // The library would take a form apart, and cannot read it as a whole.
        if (request.is_multipart_form_data()) return Send(response, TextAnswer(400, "the body may not be a form"));
        HandleServlet(request, response, ReadBody(reader));
    });
    http->Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
        Store store = OpenStore(options.database);
        const std::optional<Answer> answer =
            ServeView(store, {request.method, request.path, request.params, {}, request.remote_addr});
        Send(response, answer.value_or(TextAnswer(404, "there is nothing here")));
    });
}

void LabServer::Running::MakeHttpServer() {
    if (options.certificate.empty()) {
        http = std::make_unique<httplib::Server>();
    } else {
        if (const std::string fault = TlsFault(options.certificate, options.privateKey); !fault.empty())
            throw ServerError(fault);
        http = std::make_unique<httplib::SSLServer>(options.certificate.c_str(), options.privateKey.c_str());
    }
    if (!http->is_valid()) throw ServerError("the certificate or its key cannot be used: " + options.certificate);
    http->new_task_queue = [] { return new httplib::ThreadPool(serverThreads); };
    http->set_read_timeout(transferTimeout);
    http->set_write_timeout(transferTimeout);
    http->set_keep_alive_timeout(idleTimeout);
    // The library's default lets two servers share a port.
    http->set_socket_options([](int socket) {
        const int yes = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    http->set_exception_handler([](const httplib::Request&, httplib::Response& response, std::exception_ptr failure) {
        std::string text = "an unknown failure";
        try {
            std::rethrow_exception(std::move(failure));
        } catch (const std::exception& error) {
            text = error.what();
        } catch (...) {
        }
        std::fprintf(stderr, "kvlab: %s\n", text.c_str());
        Send(response, TextAnswer(500, text));
    });
    http->set_error_handler([](const httplib::Request&, httplib::Response& response) {
        if (!response.has_header("Content-Type"))
            response.set_content("there is nothing here\n", "text/plain; charset=utf-8");
    });
}

void LabServer::Running::Listen() {
    errno = 0;
    if (options.port == 0) {
        port = http->bind_to_any_port(options.listen);
    } else {
        port = http->bind_to_port(options.listen, options.port) ? options.port : -1;
    }
    if (port <= 0) {
        const std::string reason =
            errno != 0 ? std::string(": ") + std::strerror(errno) : "; is it an address of this computer?";
        throw ServerError("cannot listen on " + options.listen + " port " + std::to_string(options.port) + reason);
    }
    listener = std::thread([this] { http->listen_after_bind(); });
    // Before it runs, stopping it would have no effect.
    while (!http->is_running()) std::this_thread::yield();
}

LabServer::LabServer(const ServerOptions& options) : running_(std::make_unique<Running>(options)) {
    running_->MakeHttpServer();
    running_->SetRoutes();
    running_->Listen();
}

LabServer::~LabServer() = default;

int LabServer::port() const { return running_->port; }

std::string LabServer::address() const {
    const ServerOptions& options = running_->options;
    const bool isInet6 = options.listen.find(':') != std::string::npos;
    return (options.certificate.empty() ? "http://" : "https://") +
           (isInet6 ? "[" + options.listen + "]" : options.listen) + ":" + std::to_string(port()) + "/";
}

}  // namespace kv::lab
