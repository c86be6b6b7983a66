#include "lab/server/http_daemon.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <microhttpd.h>
#include <mutex>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "lab/server/listening_socket.h"
#include "lab/server/memory_budget.h"
#include "lab/server/open_connections.h"
#include "lab/server/server_error.h"
#include "lab/server/worker_pool.h"
#include "lab/store/archive.h"
#include "platform/memory.h"
#include "platform/owned_handle.h"

namespace kv::lab {

namespace {

/// Seconds without a byte after which a connection is closed, be it idle or in a transfer.
constexpr unsigned idleTimeout = 30;

/// How long the destructor waits for answers that are on their way.
constexpr auto sendingTimeout = std::chrono::seconds(5);

/// Memory of a connection for a request's head, and the buffer through which its body passes.
constexpr std::size_t connectionBytes = 32768;

/// Connections that may be open, and files that are open besides them.
constexpr std::size_t maxConnections = 10000;
constexpr std::size_t otherFiles = 200;

/// Threads that read requests and send answers.
constexpr int readingThreads = 2;

/// Bodies from this size on make a job lengthy.
constexpr std::size_t lengthyBodyBytes = 65536;

using Response = std::unique_ptr<MHD_Response, platform::ReleasedBy<MHD_destroy_response>>;

/// One request, from its head to the end of its answer. It belongs to the connection's thread, or to a worker while the
/// connection is suspended.
struct Exchange {
    enum class Stage { arriving, working, done };

    HttpRequest request;
    MemoryBudget::Share memory;
    HttpOutcome outcome;
    Stage stage = Stage::arriving;

    explicit Exchange(MemoryBudget& budget) : memory(budget) {}
};

/// Raises the limit of open files; gives the number of connections that it leaves room for.
std::size_t RoomForConnections() {
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) != 0) return maxConnections / 10;
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    getrlimit(RLIMIT_NOFILE, &files);
    return files.rlim_cur > maxConnections + otherFiles
               ? maxConnections
               : std::max<std::size_t>(files.rlim_cur, 2 * otherFiles) - otherFiles;
}

std::string ReadPem(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Decodes %-escapes in place and gives the new length. An escaped NUL stays as it is, because texts end at one.
std::size_t Unescape(void*, MHD_Connection*, char* text) {
    char* to = text;
    for (const char* from = text; *from != '\0'; ++to) {
        unsigned value = 0;
        const bool escaped = *from == '%' && std::isxdigit(static_cast<unsigned char>(from[1])) != 0 &&
                             std::isxdigit(static_cast<unsigned char>(from[2])) != 0 &&
                             std::sscanf(from + 1, "%2x", &value) == 1 && value != 0;
        *to = escaped ? static_cast<char>(value) : *from;
        from += escaped ? 3 : 1;
    }
    *to = '\0';
    return static_cast<std::size_t>(to - text);
}

MHD_Result AddParameter(void* query, MHD_ValueKind, const char* name, std::size_t nameSize, const char* value,
                        std::size_t valueSize) {
    static_cast<std::multimap<std::string, std::string>*>(query)->emplace(
        std::string(name, nameSize), value == nullptr ? std::string() : std::string(value, valueSize));
    return MHD_YES;
}

/// The numeric address of the other side; that of IPv4 on an IPv6 socket is written as in IPv4.
std::string AddressOf(MHD_Connection* connection) {
    const auto* const info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    if (info == nullptr || info->client_addr == nullptr) return "";
    const socklen_t length = info->client_addr->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    std::array<char, NI_MAXHOST> text{};
    if (getnameinfo(info->client_addr, length, text.data(), text.size(), nullptr, 0, NI_NUMERICHOST) != 0) return "";
    const std::string address = text.data();
    constexpr std::string_view mapped = "::ffff:";
    return address.starts_with(mapped) && address.find('.') != std::string::npos ? address.substr(mapped.size())
                                                                                 : address;
}

bool AcceptsHtml(MHD_Connection* connection) {
    const char* const types = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_ACCEPT);
    return types != nullptr && std::string_view(types).find("text/html") != std::string_view::npos;
}

int SocketOf(MHD_Connection* connection) {
    return MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
}

/// The first half of an answer's body, then an error, at which the connection is closed.
ssize_t ReadHalf(void* answer, std::uint64_t position, char* buffer, std::size_t size) {
    const std::string& body = static_cast<const Answer*>(answer)->body;
    const std::size_t half = body.size() / 2;
    if (position >= half) return MHD_CONTENT_READER_END_WITH_ERROR;
    const std::size_t count = std::min(size, half - static_cast<std::size_t>(position));
    std::memcpy(buffer, body.data() + position, count);
    return static_cast<ssize_t>(count);
}

/// An answer's response, which reads the body from there. Two blanks replace an empty body of which half is sent,
/// because a half must be missing.
Response MakeResponse(Answer& answer, bool half) {
    if (half && answer.body.empty()) answer.body = "  ";
    Response response(
        half ? MHD_create_response_from_callback(answer.body.size(), connectionBytes, ReadHalf, &answer, nullptr)
             : MHD_create_response_from_buffer(answer.body.size(), answer.body.data(), MHD_RESPMEM_PERSISTENT));
    if (!response) return response;
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONTENT_TYPE, answer.type.c_str());
    for (const auto& [name, value] : answer.headers)
        MHD_add_response_header(response.get(), name.c_str(), value.c_str());
    return response;
}

OpenConnections::Connection& ListedConnection(MHD_Connection* connection) {
    return *static_cast<OpenConnections::Connection*>(
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT)->socket_context);
}

}  // namespace

struct HttpDaemon::Running {
    HttpHandler handler;
    MemoryBudget bodies;
    OpenConnections connections;
    std::atomic<bool> stopping = false;
    std::mutex mutex;  // guards the next three
    std::condition_variable answersSent;
    std::size_t unsent = 0;  // requests that the workers got and whose answers are not sent yet
    std::string libraryFault;
    int port = 0;
    MHD_Daemon* daemon = nullptr;
    WorkerPool workers;  // the last, so that it ends before what its jobs use

    Running(const HttpOptions& options, std::size_t most, HttpHandler serve)
        : handler(std::move(serve)),
          bodies(options.bodyBudget),
          connections(most - most / 10),
          workers(options.workers, (options.workers + 1) / 2) {}
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;
    ~Running() { Stop(); }

    void Start(const HttpOptions& options, std::size_t most);
    void Stop();

    // What the library calls, on its own threads.
    static void KeepFault(void* self, const char* format, va_list arguments);
    static void NoteConnection(void* self, MHD_Connection* connection, void** context,
                               MHD_ConnectionNotificationCode code);
    static MHD_Result Proceed(void* self, MHD_Connection* connection, const char* path, const char* method,
                              const char* version, const char* data, std::size_t* size, void** context);
    static void Complete(void* self, MHD_Connection* connection, void** context, MHD_RequestTerminationCode code);

    MHD_Result Begin(MHD_Connection* connection, const char* path, const char* method, void** context);
    MHD_Result Receive(MHD_Connection* connection, Exchange& exchange, const char* data, std::size_t* size);
    void HandToWorkers(MHD_Connection* connection, Exchange& exchange);
    void Post(MHD_Connection* connection, Exchange& exchange, std::chrono::milliseconds delay);
    static MHD_Result Send(MHD_Connection* connection, Exchange& exchange);
    void NoteIncomplete(std::shared_ptr<Exchange> exchange);
    void Repeat(std::chrono::milliseconds pause, std::chrono::milliseconds delay,
                const std::function<void(std::size_t worker)>& work);
};

/// Keeps what the library says last, for the case that it cannot start.
void HttpDaemon::Running::KeepFault(void* self, const char* format, va_list arguments) {
    std::array<char, 500> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    auto& running = *static_cast<Running*>(self);
    const std::lock_guard guard(running.mutex);
    running.libraryFault = text.data();
}

void HttpDaemon::Running::NoteConnection(void* self, MHD_Connection* connection, void** context,
                                         MHD_ConnectionNotificationCode code) {
    auto& running = *static_cast<Running*>(self);
    if (code == MHD_CONNECTION_NOTIFY_STARTED) {
        *context = running.connections.Add(SocketOf(connection));
    } else {
        running.connections.Remove(static_cast<OpenConnections::Connection*>(*context));
    }
}

/// Comes once when a request's head has arrived, then for each part of its body, when all of it has arrived, and again
/// after each suspension.
MHD_Result HttpDaemon::Running::Proceed(void* self, MHD_Connection* connection, const char* path, const char* method,
                                        const char*, const char* data, std::size_t* size, void** context) {
    auto& running = *static_cast<Running*>(self);
    if (*context == nullptr) return running.Begin(connection, path, method, context);
    auto& exchange = *static_cast<Exchange*>(*context);
    if (exchange.stage == Exchange::Stage::done) return Send(connection, exchange);
    if (running.stopping) return MHD_NO;
    if (*size > 0) return running.Receive(connection, exchange, data, size);
    running.HandToWorkers(connection, exchange);
    return MHD_YES;
}

MHD_Result HttpDaemon::Running::Begin(MHD_Connection* connection, const char* path, const char* method,
                                      void** context) {
    if (stopping) return MHD_NO;
    connections.SetIdle(ListedConnection(connection), false);
    auto exchange = std::make_unique<Exchange>(bodies);
    ServletRequest& call = exchange->request.call;
    call.method = method;
    call.path = path;
    call.address = AddressOf(connection);
    call.html = AcceptsHtml(connection);
    MHD_get_connection_values_n(connection, MHD_GET_ARGUMENT_KIND, AddParameter, &call.query);
    *context = exchange.release();
    return MHD_YES;
}

/// Takes a part of a body, or leaves it until there is room for it.
MHD_Result HttpDaemon::Running::Receive(MHD_Connection* connection, Exchange& exchange, const char* data,
                                        std::size_t* size) {
    HttpRequest& request = exchange.request;
    if (request.body.size() + *size > maxBodyBytes) {
        request.fault = BodyFault::tooLarge;
        request.body = {};
        exchange.memory.GiveBack();
    }
    if (!request.fault && !exchange.memory.TryTake(*size)) {
        MHD_suspend_connection(connection);
        exchange.memory.CallWhenRoom(*size, [connection] { MHD_resume_connection(connection); });
        return MHD_YES;
    }
    if (!request.fault) request.body.append(data, *size);
    *size = 0;
    return MHD_YES;
}

void HttpDaemon::Running::HandToWorkers(MHD_Connection* connection, Exchange& exchange) {
    exchange.request.call.body = exchange.request.body;
    exchange.stage = Exchange::Stage::working;
    {
        const std::lock_guard guard(mutex);
        ++unsent;
    }
    MHD_suspend_connection(connection);
    Post(connection, exchange, std::chrono::milliseconds(0));
}

/// Has a worker serve a request, whose connection is suspended, and resumes the connection when it is served.
void HttpDaemon::Running::Post(MHD_Connection* connection, Exchange& exchange, std::chrono::milliseconds delay) {
    const auto finish = [connection, &exchange](HttpOutcome outcome) {
        exchange.outcome = std::move(outcome);
        exchange.stage = Exchange::Stage::done;
        MHD_resume_connection(connection);  // from here on the exchange belongs to the connection's thread
    };
    const auto drop = [finish] { finish({HttpOutcome::Kind::drop, {}, {}}); };
    const auto serve = [this, connection, &exchange, finish](std::size_t worker) {
        HttpOutcome outcome = handler(worker, exchange.request);
        if (outcome.kind == HttpOutcome::Kind::delay) {
            exchange.request.delayed = true;
            return Post(connection, exchange, outcome.delay);
        }
        const std::size_t bodyBytes = exchange.request.body.size();
        exchange.request.body = {};
        platform::ReleaseFreeMemoryAfter(bodyBytes);
        exchange.memory.GiveBack();
        finish(std::move(outcome));
    };
    const bool lengthy = exchange.request.body.size() >= lengthyBodyBytes;
    Job job{serve, drop, lengthy ? JobLength::lengthy : JobLength::brief};
    const bool posted = delay.count() > 0 ? workers.PostAfter(delay, std::move(job)) : workers.Post(std::move(job));
    if (!posted) drop();
}

MHD_Result HttpDaemon::Running::Send(MHD_Connection* connection, Exchange& exchange) {
    HttpOutcome& outcome = exchange.outcome;
    if (outcome.kind == HttpOutcome::Kind::drop) {
        shutdown(SocketOf(connection), SHUT_RDWR);  // first, so that not even an end of TLS is sent
        return MHD_NO;
    }
    const Response response = MakeResponse(outcome.answer, outcome.kind == HttpOutcome::Kind::half);
    if (!response) return MHD_NO;
    return MHD_queue_response(connection, static_cast<unsigned>(outcome.answer.status), response.get());
}

/// The end of a request, whether its answer was sent or its connection broke off.
void HttpDaemon::Running::Complete(void* self, MHD_Connection* connection, void** context,
                                   MHD_RequestTerminationCode code) {
    std::shared_ptr<Exchange> exchange(static_cast<Exchange*>(*context));
    *context = nullptr;
    if (!exchange) return;
    auto& running = *static_cast<Running*>(self);
    running.connections.SetIdle(ListedConnection(connection), true);
    if (exchange->stage == Exchange::Stage::done) {
        const std::lock_guard guard(running.mutex);
        if (--running.unsent == 0) running.answersSent.notify_all();
    } else if (code != MHD_REQUEST_TERMINATED_DAEMON_SHUTDOWN && !running.stopping) {
        running.NoteIncomplete(std::move(exchange));
    }
}

void HttpDaemon::Running::NoteIncomplete(std::shared_ptr<Exchange> exchange) {
    HttpRequest& request = exchange->request;
    if (!request.fault) request.fault = BodyFault::incomplete;
    request.body = {};
    exchange->memory.GiveBack();
    workers.Post({[this, exchange](std::size_t worker) { handler(worker, exchange->request); }, nullptr});
}

void HttpDaemon::Running::Start(const HttpOptions& options, std::size_t most) {
    const int socket = ListenOn(options.listen, options.port);
    port = PortOf(socket);
    const std::string certificate = ReadPem(options.certificate);
    const std::string key = ReadPem(options.privateKey);
    std::vector<MHD_OptionItem> settings{
        {MHD_OPTION_EXTERNAL_LOGGER, reinterpret_cast<intptr_t>(&KeepFault), this},
        {MHD_OPTION_LISTEN_SOCKET, socket, nullptr},
        {MHD_OPTION_THREAD_POOL_SIZE, readingThreads, nullptr},
        {MHD_OPTION_CONNECTION_LIMIT, static_cast<intptr_t>(most), nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, idleTimeout, nullptr},
        {MHD_OPTION_CONNECTION_MEMORY_LIMIT, connectionBytes, nullptr},
        {MHD_OPTION_UNESCAPE_CALLBACK, reinterpret_cast<intptr_t>(&Unescape), nullptr},
        {MHD_OPTION_NOTIFY_CONNECTION, reinterpret_cast<intptr_t>(&NoteConnection), this},
        {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(&Complete), this}};
    unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG;
    if (!options.certificate.empty()) {
        flags |= MHD_USE_TLS;
        settings.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, const_cast<char*>(certificate.c_str())});
        settings.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, const_cast<char*>(key.c_str())});
    }
    settings.push_back({MHD_OPTION_END, 0, nullptr});
    daemon =
        MHD_start_daemon(flags, 0, nullptr, nullptr, &Proceed, this, MHD_OPTION_ARRAY, settings.data(), MHD_OPTION_END);
    if (daemon == nullptr) throw ServerError("the HTTP library cannot start: " + libraryFault);
}

void HttpDaemon::Running::Stop() {
    if (daemon == nullptr) return;
    stopping = true;
    close(MHD_quiesce_daemon(daemon));
    bodies.StopWaiting();
    workers.Stop();
    {
        std::unique_lock lock(mutex);
        answersSent.wait_for(lock, sendingTimeout, [this] { return unsent == 0; });
    }
    MHD_stop_daemon(daemon);
}

HttpDaemon::HttpDaemon(const HttpOptions& options, HttpHandler handler) {
    const std::size_t most = RoomForConnections();
    running_ = std::make_unique<Running>(options, most, std::move(handler));
    running_->Start(options, most);
}

HttpDaemon::~HttpDaemon() = default;

int HttpDaemon::port() const { return running_->port; }

void HttpDaemon::Running::Repeat(std::chrono::milliseconds pause, std::chrono::milliseconds delay,
                                 const std::function<void(std::size_t worker)>& work) {
    const auto run = [this, pause, work](std::size_t worker) {
        work(worker);
        Repeat(pause, pause, work);
    };
    workers.PostAfter(delay, {run, [] {}});
}

void HttpDaemon::Repeat(std::chrono::milliseconds pause, const std::function<void(std::size_t worker)>& work) {
    running_->Repeat(pause, std::chrono::milliseconds(0), work);
}

}  // namespace kv::lab
