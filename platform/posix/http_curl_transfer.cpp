#include "platform/posix/http_curl_transfer.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <new>
#include <strings.h>

#include "platform/http.h"

namespace platform {

namespace {

using Clock = std::chrono::steady_clock;

/// Headers of one answer at the most. Servers and proxies keep theirs well below 64 KiB.
constexpr std::size_t maxHeaderBytes = 256 * 1024;

constexpr std::chrono::milliseconds longestPoll{1000};

long Milliseconds(std::chrono::milliseconds time) { return static_cast<long>(time.count()); }

bool IsStatusLine(std::string_view line) { return line.starts_with("HTTP/"); }

std::string_view WithoutBlanks(std::string_view text) {
    const std::size_t start = std::min(text.find_first_not_of(" \t"), text.size());
    text.remove_prefix(start);
    return text.substr(0, text.find_last_not_of(" \t\r\n") + 1);
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
        {CURLE_URL_MALFORMAT, error::winHttpInvalidUrl},
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
    : multi_(curl_multi_init()),
      easy_(curl_easy_init()),
      bodySize_(settings.bodySize),
      sendTimeout_(settings.sendTimeout),
      receiveTimeout_(settings.receiveTimeout),
      lastTraffic_(Clock::now()) {
    if (!multi_ || !easy_) throw std::bad_alloc();
    Configure(settings);
    curl_multi_add_handle(multi_.get(), easy_.get());
}

CurlTransfer::~CurlTransfer() { curl_multi_remove_handle(multi_.get(), easy_.get()); }

void CurlTransfer::Configure(const CurlTransferSettings& settings) {
    CURL* easy = easy_.get();
    curl_easy_setopt(easy, CURLOPT_URL, settings.url.c_str());
    curl_easy_setopt(easy, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
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
    // libcurl cannot let a bad date pass and still ask who signed: a bad date passes with an unknown authority only.
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, (settings.securityFlags & ignoreUnknownAuthority) ? 0L : 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, (settings.securityFlags & ignoreInvalidCommonName) ? 0L : 2L);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, Milliseconds(settings.connectTimeout));
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &CurlTransfer::OnHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &CurlTransfer::OnBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
}

std::size_t CurlTransfer::OnHeader(char* data, std::size_t size, std::size_t count, void* self) {
    auto& transfer = *static_cast<CurlTransfer*>(self);
    const std::size_t bytes = size * count;
    std::string_view line(data, bytes);
    transfer.lastTraffic_ = Clock::now();
    if (transfer.headersComplete_) return bytes;  // a trailer of a chunked body
    if (IsStatusLine(line)) transfer.rawHeaders_.clear();
    if (transfer.rawHeaders_.size() + bytes > maxHeaderBytes) {
        transfer.end_ = error::winHttpHeaderSizeOverflow;
        return 0;
    }
    line = line.substr(0, line.find_last_not_of("\r\n") + 1);
    transfer.rawHeaders_.append(line).append("\r\n");
    // The code of an interim answer is below 200, and a proxy's answer to CONNECT leaves the code at 0.
    long code = 0;
    curl_easy_getinfo(transfer.easy_.get(), CURLINFO_RESPONSE_CODE, &code);
    transfer.headersComplete_ = line.empty() && code >= 200;
    return bytes;
}

std::size_t CurlTransfer::OnBody(char* data, std::size_t size, std::size_t count, void* self) {
    auto& transfer = *static_cast<CurlTransfer*>(self);
    if (transfer.pieceTaken_ < transfer.piece_.size()) {
        transfer.paused_ = true;
        return CURL_WRITEFUNC_PAUSE;
    }
    transfer.lastTraffic_ = Clock::now();
    transfer.piece_.assign(data, size * count);
    transfer.pieceTaken_ = 0;
    return size * count;
}

void CurlTransfer::Perform() {
    if (paused_) {
        paused_ = false;
        curl_easy_pause(easy_.get(), CURLPAUSE_CONT);  // may deliver a piece at once
    }
    int running = 0;
    if (curl_multi_perform(multi_.get(), &running) != CURLM_OK) end_ = error::winHttpInternalError;
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
        if (message->msg == CURLMSG_DONE && !end_) end_ = ErrorFromCurl(message->data.result);
    }
    NoteTraffic();
}

void CurlTransfer::NoteTraffic() {
    curl_off_t sent = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_SIZE_UPLOAD_T, &sent);
    if (sent != bytesSent_ || !IsConnected()) lastTraffic_ = Clock::now();
    bytesSent_ = sent;
}

bool CurlTransfer::IsConnected() const {
    curl_off_t microseconds = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_PRETRANSFER_TIME_T, &microseconds);
    return microseconds > 0;
}

bool CurlTransfer::IsSent() const {
    return headersComplete_ || (IsConnected() && bytesSent_ >= static_cast<curl_off_t>(bodySize_));
}

/// Lets the transfer go on until a point is reached or it is over. Until the connection stands its own limit holds,
/// after that the time without traffic is limited.
Error CurlTransfer::Run(std::chrono::milliseconds idleLimit, const std::function<bool()>& reached) {
    lastTraffic_ = Clock::now();
    while (!reached() && !end_) {
        Perform();
        if (reached() || end_) break;
        const auto idle = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - lastTraffic_);
        if (idle >= idleLimit) {
            end_ = error::winHttpTimeout;
            break;
        }
        const auto wait = std::min(longestPoll, idleLimit - idle);
        curl_multi_poll(multi_.get(), nullptr, 0, static_cast<int>(wait.count()), nullptr);
    }
    if (end_ && *end_ != error::success) AcceptTunnelRefusal();
    return reached() ? error::success : end_.value_or(error::success);
}

/// A tunnel that the proxy refused is a failed transfer for libcurl; here the proxy's answer is the answer.
void CurlTransfer::AcceptTunnelRefusal() {
    long code = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_HTTP_CONNECTCODE, &code);
    if (headersComplete_ || code < 300) return;
    if (!rawHeaders_.ends_with("\r\n\r\n")) rawHeaders_ += "\r\n";
    headersComplete_ = true;
    end_ = error::success;
}

Error CurlTransfer::Send() {
    return Run(sendTimeout_, [this] { return IsSent(); });
}

Error CurlTransfer::ReceiveHeaders() {
    const Error result = Run(receiveTimeout_, [this] { return headersComplete_; });
    return result == error::success && !headersComplete_ ? error::winHttpConnectionError : result;
}

Error CurlTransfer::WaitForBody(std::size_t& available) {
    const Error result = Run(receiveTimeout_, [this] { return pieceTaken_ < piece_.size(); });
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
    std::uint32_t status = 0;
    const std::size_t blank = rawHeaders_.find(' ');
    if (!headersComplete_ || blank == std::string::npos) return 0;
    std::from_chars(rawHeaders_.data() + blank + 1, rawHeaders_.data() + rawHeaders_.size(), status);
    return status;
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
