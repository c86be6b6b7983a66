#include "platform/linux/http_curl_transfer.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <new>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <span>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <system_error>
#include <utility>

#include "platform/http.h"
#include "platform/http_rules.h"
#include "platform/http_trust.h"

namespace platform {

namespace {

using Clock = std::chrono::steady_clock;

/// Headers of one answer, at most. Servers and proxies keep theirs well below 64 KiB.
constexpr int maxHeaderBytes = 256 * 1024;

/// An answer is held back up to this many bytes; libcurl sees a longer one. Headers may be as long, so that an answer
/// to half a body is not seen before the rest is out.
constexpr int heldAnswerBytes = 256 * 1024;

constexpr std::chrono::milliseconds longestPoll{1000};

/// An answer that is held back does not end a wait. This often it is looked at, whether it is a refusal.
constexpr std::chrono::milliseconds longestPollWhileHeld{50};

/// Nor does an acknowledgement of the last bytes. This often the bytes that are still on their way are counted.
constexpr std::chrono::milliseconds longestDrainPoll{50};

/// The longest time between a server's accepting a body and its hanging up on it.
constexpr std::chrono::milliseconds longestHangUp{100};

/// The same between the end of its sending and the close, when it hangs up in these two steps.
constexpr std::chrono::milliseconds longestSecondStep{50};

long Milliseconds(std::chrono::milliseconds time) { return static_cast<long>(time.count()); }

constexpr std::string_view emptyLine = "\r\n\r\n";  // and the end of the line before it

Error ErrorFromMulti(CURLMcode code) {
    if (code == CURLM_OK) return error::success;
    return code == CURLM_OUT_OF_MEMORY ? error::notEnoughMemory : error::winHttpInternalError;
}

std::string_view WithoutBlanks(std::string_view text) {
    const std::size_t start = std::min(text.find_first_not_of(" \t"), text.size());
    text.remove_prefix(start);
    return text.substr(0, text.find_last_not_of(" \t\r\n") + 1);
}

/// Whether an answer, as far as it has come, ends the sending of the request: one of 300 and above does, and what is
/// not HTTP. Interim answers are skipped.
bool EndsSending(std::string_view answer) {
    constexpr std::string_view protocol = "HTTP/1.";
    constexpr std::size_t statusAt = std::string_view("HTTP/1.1 ").size();
    if (!answer.starts_with(protocol.substr(0, answer.size()))) return true;
    if (answer.size() <= statusAt) return false;
    if (answer[statusAt] != '1') return answer[statusAt] >= '3';
    const std::size_t end = answer.find(emptyLine);
    return end != answer.npos && EndsSending(answer.substr(end + emptyLine.size()));
}

/// Lets a socket count as readable only from this many bytes on, or when the other side hangs up.
void SetLowWater(int socket, int bytes) { setsockopt(socket, SOL_SOCKET, SO_RCVLOWAT, &bytes, sizeof bytes); }

int LocalPort(int socket) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    if (getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return 0;
    return ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                                               : reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

/// Copies what a connection has to read, and leaves it there; the number of bytes. A failure counts as 0: the sending
/// meets it, too.
std::size_t Peek(int socket, std::span<char> buffer) {
    const ssize_t count = recv(socket, buffer.data(), buffer.size(), MSG_PEEK | MSG_DONTWAIT);
    return static_cast<std::size_t>(std::max<ssize_t>(count, 0));
}

/// The same on a secure connection, up to the end of its next record. What libcurl has put below the connection works
/// only inside libcurl's calls, and outside them a reset would end the process: for this look it is the socket itself.
std::size_t Peek(SSL* connection, int socket, std::span<char> buffer) {
    BIO* direct = BIO_new_socket(socket, BIO_NOCLOSE);
    if (direct == nullptr) return 0;
    BIO* reader = SSL_get_rbio(connection);
    BIO* writer = SSL_get_wbio(connection);
    for (BIO* kept : {reader, writer, direct}) BIO_up_ref(kept);
    SSL_set0_rbio(connection, direct);
    SSL_set0_wbio(connection, direct);
    const int count = SSL_peek(connection, buffer.data(), static_cast<int>(buffer.size()));
    SSL_set0_rbio(connection, reader);
    SSL_set0_wbio(connection, writer);
    ERR_clear_error();  // libcurl's calls find none but their own
    return static_cast<std::size_t>(std::max(count, 0));
}

}  // namespace

Error ErrorFromCurl(CURLcode code) {
    struct Row {
        CURLcode code;
        Error error;
    };
    static constexpr Row rows[] = {
        {CURLE_OK, error::success},
        {CURLE_UNSUPPORTED_PROTOCOL, error::winHttpInvalidServerResponse},  // an answer without a status line
        {CURLE_URL_MALFORMAT,
         error::winHttpNameNotResolved},  // the URL was taken apart before: a name without ASCII form
        {CURLE_COULDNT_RESOLVE_PROXY, error::winHttpNameNotResolved},
        {CURLE_COULDNT_RESOLVE_HOST, error::winHttpNameNotResolved},
        {CURLE_COULDNT_CONNECT, error::winHttpCannotConnect},
        {CURLE_WEIRD_SERVER_REPLY, error::winHttpInvalidServerResponse},
        {CURLE_PARTIAL_FILE, error::winHttpConnectionError},
        {CURLE_OUT_OF_MEMORY, error::notEnoughMemory},
        {CURLE_OPERATION_TIMEDOUT, error::winHttpTimeout},
        {CURLE_SSL_CONNECT_ERROR, error::winHttpSecureChannelError},
        {CURLE_ABORTED_BY_CALLBACK, error::winHttpOperationCancelled},
        {CURLE_INTERFACE_FAILED, error::winHttpCannotConnect},
        {CURLE_GOT_NOTHING, error::winHttpConnectionError},
        {CURLE_SSL_ENGINE_NOTFOUND, error::winHttpSecureChannelError},
        {CURLE_SSL_ENGINE_SETFAILED, error::winHttpSecureChannelError},
        {CURLE_SEND_ERROR, error::winHttpConnectionError},
        {CURLE_RECV_ERROR, error::winHttpConnectionError},
        {CURLE_SSL_CERTPROBLEM, error::winHttpSecureFailure},
        {CURLE_SSL_CIPHER, error::winHttpSecureChannelError},
        {CURLE_PEER_FAILED_VERIFICATION, error::winHttpSecureFailure},
        {CURLE_BAD_CONTENT_ENCODING, error::winHttpInvalidServerResponse},
        {CURLE_SEND_FAIL_REWIND, error::winHttpResendRequest},
        {CURLE_SSL_CACERT_BADFILE, error::winHttpSecureChannelError},
        {CURLE_SSL_SHUTDOWN_FAILED, error::winHttpSecureChannelError},
        {CURLE_SSL_CRL_BADFILE, error::winHttpSecureFailure},
        {CURLE_SSL_ISSUER_ERROR, error::winHttpSecureFailure},
        {CURLE_SSL_INVALIDCERTSTATUS, error::winHttpSecureFailure},
        {CURLE_AUTH_ERROR, error::winHttpLoginFailure},
        {CURLE_PROXY, error::winHttpCannotConnect},
        {CURLE_SSL_CLIENTCERT, error::winHttpClientCertificateNeeded},
    };
    const auto* row = std::find_if(std::begin(rows), std::end(rows), [&](const Row& r) { return r.code == code; });
    return row == std::end(rows) ? error::winHttpInternalError : row->error;
}

CurlTransfer::CurlTransfer(const CurlTransferSettings& settings)
    : trust_(*settings.trust),
      judge_(trust_, (settings.securityFlags & ignoreUnknownAuthority) == 0, settings.host, settings.server),
      multi_(curl_multi_init()),
      easy_(curl_easy_init()),
      bodySize_(settings.bodySize),
      limits_(settings.sendTimeout, settings.receiveTimeout, Clock::now()) {
    if (!multi_ || !easy_) throw std::bad_alloc();
    Configure(settings);
    if (const Error failure = ErrorFromMulti(curl_multi_add_handle(multi_.get(), easy_.get()))) end_ = failure;
}

CurlTransfer::~CurlTransfer() { curl_multi_remove_handle(multi_.get(), easy_.get()); }

void CurlTransfer::Configure(const CurlTransferSettings& settings) {
    CURL* easy = easy_.get();
    curl_easy_setopt(easy, CURLOPT_URL, settings.url.c_str());
    curl_easy_setopt(easy, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    // A name lookup that outlives the connect limit is left to end by itself; closing would wait for it.
    curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, settings.userAgent.c_str());
    for (const std::string& line : settings.headers) {
        curl_slist* longer = curl_slist_append(headerList_.get(), line.c_str());
        if (longer == nullptr) throw std::bad_alloc();
        static_cast<void>(headerList_.release());
        headerList_.reset(longer);
    }
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headerList_.get());
    curl_easy_setopt(easy, CURLOPT_HEADEROPT, static_cast<long>(CURLHEADER_SEPARATE));
    if (settings.post) {
        curl_easy_setopt(easy, CURLOPT_POST, 1L);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(settings.bodySize));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS,
                         settings.bodySize == 0 ? "" : static_cast<const void*>(settings.body));
    }
    curl_easy_setopt(easy, CURLOPT_PROXY, settings.proxy.c_str());
    curl_easy_setopt(easy, CURLOPT_NOPROXY, "");
    curl_easy_setopt(easy, CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTP));
    if (settings.proxyUser) {
        curl_easy_setopt(easy, CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_BASIC));
        curl_easy_setopt(easy, CURLOPT_PROXYUSERNAME, settings.proxyUser->c_str());
        curl_easy_setopt(easy, CURLOPT_PROXYPASSWORD, settings.proxyPassword.value_or("").c_str());
    }
    ConfigureTrust(settings);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, Milliseconds(settings.connectTimeout));
    if (settings.bodySize > 0) {
        curl_easy_setopt(easy, CURLOPT_SOCKOPTFUNCTION, &CurlTransfer::OnSocket);
        curl_easy_setopt(easy, CURLOPT_SOCKOPTDATA, this);
    }
    curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, &CurlTransfer::OnRequest);
    curl_easy_setopt(easy, CURLOPT_PREREQDATA, this);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, failureText_.data());
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &CurlTransfer::OnHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &CurlTransfer::OnBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
}

/// What is let pass in the server's certificate. Once the trust asks for something the judge alone decides, and libcurl
/// only has to know the system's authorities, if they count.
void CurlTransfer::ConfigureTrust(const CurlTransferSettings& settings) {
    CURL* easy = easy_.get();
    const bool trusts = AsksForCertificate(trust_);
    // libcurl cannot let a bad date pass and still ask who signed: a bad date passes with an unknown authority only.
    const bool asksWho = trusts ? trust_.systemAuthorities : (settings.securityFlags & ignoreUnknownAuthority) == 0;
    const bool asksName = !trusts && (settings.securityFlags & ignoreInvalidCommonName) == 0;
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, asksWho ? 1L : 0L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, asksName ? 2L : 0L);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, this);
    if (curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &CurlTransfer::OnTlsContext) != CURLE_OK && trusts)
        end_ = error::winHttpSecureFailure;
}

CURLcode CurlTransfer::OnTlsContext(CURL*, void* context, void* self) {
    static_cast<CurlTransfer*>(self)->judge_.Watch(static_cast<SSL_CTX*>(context));
    return CURLE_OK;
}

int CurlTransfer::OnSocket(void* self, curl_socket_t socket, curlsocktype) {
    try {
        static_cast<CurlTransfer*>(self)->sockets_.push_back(socket);
        return CURL_SOCKOPT_OK;
    } catch (const std::bad_alloc&) {
        return CURL_SOCKOPT_ERROR;
    }
}

/// The connection is there and the request is about to go out. For libcurl a complete answer ends the sending, whatever
/// it says: until the body is out, the answer stays in the socket, where libcurl does not see it.
int CurlTransfer::OnRequest(void* self, char*, char*, int, int ownPort) {
    auto& transfer = *static_cast<CurlTransfer*>(self);
    if (transfer.trust_.onlyLook) return CURL_PREREQFUNC_ABORT;
    if (AsksForCertificate(transfer.trust_) && !transfer.judge_.hasPassed()) {
        transfer.end_ = error::winHttpSecureFailure;
        return CURL_PREREQFUNC_ABORT;
    }
    for (const int socket : transfer.sockets_) {
        if (LocalPort(socket) != ownPort) continue;
        SetLowWater(socket, heldAnswerBytes);
        transfer.heldSocket_ = socket;
        transfer.connection_ = Descriptor(fcntl(socket, F_DUPFD_CLOEXEC, 0));
    }
    return CURL_PREREQFUNC_OK;
}

/// libcurl is C: running out of memory must not pass through it. It breaks the transfer off when 0 is returned.
std::size_t CurlTransfer::OnHeader(char* data, std::size_t size, std::size_t count, void* self) {
    auto& transfer = *static_cast<CurlTransfer*>(self);
    try {
        return transfer.TakeHeader({data, size * count}) ? size * count : 0;
    } catch (const std::bad_alloc&) {
        transfer.end_ = error::notEnoughMemory;
        return 0;
    }
}

/// Takes a header line; false when there are too many, or the server has not got the request's body. That is asked
/// before libcurl has seen the end of the headers: it may say goodbye then, to which a server's answer is a reset, too.
bool CurlTransfer::TakeHeader(std::string_view line) {
    limits_.NoteHeader(Clock::now());
    if (headersComplete_) return true;                          // a trailer of a chunked body
    if (rawHeaders_.ends_with(emptyLine)) rawHeaders_.clear();  // of an interim answer or of a tunnel
    if (rawHeaders_.size() + line.size() > std::size_t{maxHeaderBytes}) {
        end_ = error::winHttpHeaderSizeOverflow;
        return false;
    }
    line = line.substr(0, line.find_last_not_of("\r\n") + 1);
    rawHeaders_.append(line).append("\r\n");
    // The code of an interim answer is below 200, and a proxy's answer to CONNECT leaves the code at 0.
    long code = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &code);
    const bool isComplete = line.empty() && code >= 200;
    if (isComplete && code < 300) {
        if (const Error failure = ConfirmBody()) {
            end_ = failure;
            return false;
        }
    }
    headersComplete_ = isComplete;
    return true;
}

std::size_t CurlTransfer::OnBody(char* data, std::size_t size, std::size_t count, void* self) {
    auto& transfer = *static_cast<CurlTransfer*>(self);
    try {
        return transfer.TakeBody({data, size * count}) ? size * count : CURL_WRITEFUNC_PAUSE;
    } catch (const std::bad_alloc&) {
        transfer.end_ = error::notEnoughMemory;
        return 0;
    }
}

/// Takes a piece of the body; false, and the transfer is paused, while the former one is not fetched.
bool CurlTransfer::TakeBody(std::string_view bytes) {
    paused_ = pieceTaken_ < piece_.size();
    if (paused_) return false;
    limits_.NoteBody(static_cast<std::int64_t>(bytes.size()), Clock::now());
    piece_ = bytes;
    pieceTaken_ = 0;
    return true;
}

/// Lets libcurl see the answer once the body is out, or when the server does not want the rest of it.
void CurlTransfer::ReadAnswerWhenDue() {
    if (heldSocket_ < 0 || (!IsBodyOut() && !RefusalHasCome())) return;
    SetLowWater(std::exchange(heldSocket_, -1), 1);
    // The end of a pause has libcurl read without a look at the socket: what was peeked at may have left it.
    curl_easy_pause(easy_.get(), CURLPAUSE_RECV);
    paused_ = true;
}

bool CurlTransfer::RefusalHasCome() const {
    std::array<char, 2048> buffer;
    const curl_tlssessioninfo* tls = nullptr;
    curl_easy_getinfo(easy_.get(), CURLINFO_TLS_SSL_PTR, &tls);
    const bool secure = tls != nullptr && tls->backend == CURLSSLBACKEND_OPENSSL && tls->internals != nullptr;
    return EndsSending({buffer.data(), secure ? Peek(static_cast<SSL*>(tls->internals), heldSocket_, buffer)
                                              : Peek(heldSocket_, buffer)});
}

/// Whether an accepted body is the server's. What its system has not taken when the connection ends is lost, and an
/// answer that came ahead of the body says nothing of it: that is waited for, unless the answer was too long to be
/// held. A server that then hangs up on what it has not read has its system reset the connection, in the moment of the
/// close. A small body is in the socket's buffers before the answer comes, and no failed sending tells of that.
Error CurlTransfer::ConfirmBody() {
    if (!connection_) return error::success;
    NoteTraffic();
    if (!IsBodyOut()) return error::winHttpConnectionError;
    const auto watch = [this](short events, std::chrono::milliseconds longest) {
        pollfd watched{connection_.get(), events, 0};
        poll(&watched, 1, static_cast<int>(longest.count()));
        return watched.revents;
    };
    for (; waitingInSocket_ > 0; NoteTraffic()) {
        if (limits_.TimeLeft(Stage::headers, Clock::now()).count() <= 0) return error::winHttpTimeout;
        if (watch(0, longestDrainPoll) != 0) return error::winHttpConnectionError;
    }
    short seen = watch(POLLRDHUP, longestHangUp);
    if (seen == POLLRDHUP) seen = watch(0, longestSecondStep);
    return (seen & (POLLERR | POLLHUP)) != 0 ? error::winHttpConnectionError : error::success;
}

void CurlTransfer::Perform() {
    ReadAnswerWhenDue();
    if (paused_) {
        paused_ = false;
        curl_easy_pause(easy_.get(), CURLPAUSE_CONT);  // may deliver a piece at once
    }
    int running = 0;
    const Error failure = ErrorFromMulti(curl_multi_perform(multi_.get(), &running));
    if (failure && !end_) end_ = failure;
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
        if (message->msg == CURLMSG_DONE && !end_) end_ = EndFrom(message->data.result);
    }
    if (running == 0 && !end_) end_ = error::winHttpInternalError;
    NoteTraffic();
}

/// How a transfer ended. A header line that is too long for libcurl is out of memory to it.
Error CurlTransfer::EndFrom(CURLcode code) const {
    const bool refused = judge_.presented() && !judge_.hasPassed() && AsksForCertificate(trust_);
    if (refused && !trust_.onlyLook) return error::winHttpSecureFailure;
    const bool inHeaders = !headersComplete_ && (IsConnected() || !rawHeaders_.empty());
    return code == CURLE_OUT_OF_MEMORY && inHeaders ? error::winHttpHeaderSizeOverflow : ErrorFromCurl(code);
}

/// Notes what has gone out since the last call. Bytes count twice, into the socket and out of it: over a slow line the
/// socket takes megabytes at once and then goes on sending them for minutes.
void CurlTransfer::NoteTraffic() {
    const curl_off_t formerlySent = bytesSent_;
    const curl_off_t formerlyWaiting = waitingInSocket_;
    curl_easy_getinfo(easy_.get(), CURLINFO_SIZE_UPLOAD_T, &bytesSent_);
    waitingInSocket_ = WaitingInSocket();
    const curl_off_t moved = std::max<curl_off_t>(bytesSent_ - formerlySent, 0) +
                             std::max<curl_off_t>(formerlyWaiting - waitingInSocket_, 0);
    if (!IsConnected()) {
        limits_.NoteConnecting(Clock::now());
    } else if (moved > 0) {
        limits_.NoteSent(moved, Clock::now());
    }
}

/// The connection's socket, or -1 before there is one.
int CurlTransfer::CurrentSocket() const {
    // CURLINFO_ACTIVESOCKET knows no socket while a transfer runs; a connected transfer waits on one only.
    fd_set toRead{};
    fd_set toWrite{};
    fd_set toFail{};
    int socket = -1;
    curl_multi_fdset(multi_.get(), &toRead, &toWrite, &toFail, &socket);
    return socket;
}

/// Bytes of the request that the other side has not acknowledged; what they were while they cannot be told.
curl_off_t CurlTransfer::WaitingInSocket() const {
    const int socket = connection_ ? connection_.get() : CurrentSocket();
    int waiting = 0;
    return socket >= 0 && ioctl(socket, SIOCOUTQ, &waiting) == 0 ? waiting : waitingInSocket_;
}

bool CurlTransfer::IsConnected() const {
    curl_off_t microseconds = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_PRETRANSFER_TIME_T, &microseconds);
    return microseconds > 0;
}

bool CurlTransfer::HasReached(Stage stage) const {
    switch (stage) {
        case Stage::send:
            return (headersComplete_ && status() >= 300) || (IsConnected() && IsBodyOut());
        case Stage::headers:
            return headersComplete_;
        case Stage::body:
            return pieceTaken_ < piece_.size();
    }
    return false;
}

/// Lets the transfer go on until a point is reached or it is over. Until the connection is there libcurl's own limit
/// holds, after that those of HttpTransferLimits. A transfer that ends before the point, as with an answer of 200 to
/// half a body, has lost its connection.
Error CurlTransfer::Run(Stage stage) {
    limits_.BeginWait(Clock::now());
    while (!HasReached(stage) && !end_) {
        Perform();
        if (HasReached(stage) || end_) break;
        const auto wait =
            std::min(heldSocket_ >= 0 ? longestPollWhileHeld : longestPoll, limits_.TimeLeft(stage, Clock::now()));
        if (wait.count() <= 0) {
            end_ = error::winHttpTimeout;
        } else if (const Error failure = ErrorFromMulti(
                       curl_multi_poll(multi_.get(), nullptr, 0, static_cast<int>(wait.count()), nullptr))) {
            end_ = failure;
        }
    }
    if (end_ && *end_ != error::success) AcceptTunnelRefusal();
    if (HasReached(stage)) return error::success;
    const Error end = end_.value_or(error::success);
    return end == error::success && stage != Stage::body ? error::winHttpConnectionError : end;
}

/// A tunnel that the proxy refused is a failed transfer for libcurl; here the proxy's answer is the answer.
void CurlTransfer::AcceptTunnelRefusal() {
    long code = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_HTTP_CONNECTCODE, &code);
    if (headersComplete_ || code < 300) return;
    if (!rawHeaders_.ends_with(emptyLine)) rawHeaders_ += "\r\n";
    headersComplete_ = true;
    tunnelRefused_ = true;
    end_ = error::success;
}

std::string CurlTransfer::FailureText() const {
    const std::string own = failureText_.data();
    long systemError = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_OS_ERRNO, &systemError);
    if (systemError == 0 || IsConnected()) return own;
    const std::string reason = std::generic_category().message(static_cast<int>(systemError));
    return own.empty() ? reason : reason + " (" + own + ")";
}

Error CurlTransfer::Send() { return Run(Stage::send); }

Error CurlTransfer::ReceiveHeaders() { return Run(Stage::headers); }

Error CurlTransfer::WaitForBody(std::size_t& available) {
    const Error result = Run(Stage::body);
    available = piece_.size() - pieceTaken_;
    return result;
}

std::size_t CurlTransfer::Take(std::byte* buffer, std::size_t size) {
    const std::size_t taken = std::min(size, piece_.size() - pieceTaken_);
    std::memcpy(buffer, piece_.data() + pieceTaken_, taken);
    pieceTaken_ += taken;
    return taken;
}

std::uint32_t CurlTransfer::status() const {
    long code = 0;
    curl_easy_getinfo(easy_.get(), tunnelRefused_ ? CURLINFO_HTTP_CONNECTCODE : CURLINFO_RESPONSE_CODE, &code);
    return headersComplete_ ? static_cast<std::uint32_t>(code) : 0;
}

std::optional<std::string> CurlTransfer::headerValue(std::string_view name) const {
    std::string_view rest = rawHeaders_;
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find("\r\n"));
        if (line.size() > name.size() && line[name.size()] == ':' &&
            strncasecmp(line.data(), name.data(), name.size()) == 0) {
            return std::string(WithoutBlanks(line.substr(name.size() + 1)));
        }
        rest.remove_prefix(std::min(line.size() + 2, rest.size()));
    }
    return std::nullopt;
}

}  // namespace platform
