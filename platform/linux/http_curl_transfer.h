// One HTTP exchange on libcurl, driven step by step: send, wait for the headers, fetch the body.
//
// libcurl hands data over as it comes; the WinHTTP operations fetch it. The two meet here: a transfer runs only while
// someone waits for its next step, and is paused as soon as one piece of the body has come and was not fetched, so a
// body of any size occupies a few kilobytes. A transfer belongs to one thread at a time and shares nothing with others.
//
// All limits are measured on the system's steady clock and not on that of the seam: the waits are libcurl's, and
// virtual time does not pass in them. The limits themselves know no clock (platform/linux/http_transfer_limits.h).
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <curl/curl.h>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/errors.h"
#include "platform/http.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/http_certificates.h"
#include "platform/linux/http_transfer_limits.h"
#include "platform/owned_handle.h"

namespace platform {

/// Everything that a transfer is started with.
struct CurlTransferSettings {
    std::string url;
    bool post = false;
    const std::byte* body = nullptr;  // of a POST; the caller's, valid as long as the transfer lives
    std::size_t bodySize = 0;
    std::string userAgent;
    std::vector<std::string> headers;      // whole lines; "Name:" suppresses one that libcurl adds by itself
    std::string proxy;                     // "host:port", or empty to go directly, whatever the environment says
    std::optional<std::string> proxyUser;  // offered up front
    std::optional<std::string> proxyPassword;
    std::uint32_t securityFlags = 0;           // platform/http.h
    const HttpServerTrust* trust;              // the caller's, valid as long as the transfer lives
    std::string host;                          // of the URL, an IPv6 address without brackets
    std::string server;                        // host and port for people
    std::chrono::milliseconds connectTimeout;  // lookup, connection, tunnel and handshake together
    std::chrono::milliseconds sendTimeout;     // longest time without a byte gone out, while the request is sent
    std::chrono::milliseconds receiveTimeout;  // longest time without a byte either way, while the answer is awaited
};

class CurlTransfer {
  public:
    explicit CurlTransfer(const CurlTransferSettings& settings);
    ~CurlTransfer();
    CurlTransfer(const CurlTransfer&) = delete;
    CurlTransfer& operator=(const CurlTransfer&) = delete;

    /// Connects and sends the whole request. Only an answer of 300 and above ends it early; one that accepts what the
    /// server has not got yet waits until the body is out.
    Error Send();

    /// Waits for the headers of the final answer. A proxy that refuses a tunnel has given the final answer. A server
    /// that accepts a body and hangs up before it has read all of it has not answered: winHttpConnectionError.
    Error ReceiveHeaders();

    /// Waits until bytes of the body are there, and says how many; 0 at its end.
    Error WaitForBody(std::size_t& available);

    /// Takes bytes that are there; the number taken.
    std::size_t Take(std::byte* buffer, std::size_t size);

    /// The certificate that the server has shown; null before that, and on a plain connection.
    const std::optional<HttpPresentedCertificate>& presentedCertificate() const { return judge_.presented(); }

    /// Why the transfer has failed, in the words of the library or the system; may be empty.
    std::string FailureText() const;

    /// Whether the answer is a proxy's refusal of a tunnel, and not the server's.
    bool tunnelRefused() const { return tunnelRefused_; }

    /// Status line and header lines of the answer, each ending in CRLF, with an empty line at the end.
    const std::string& rawHeaders() const { return rawHeaders_; }

    /// HTTP status of the answer; 0 without one.
    std::uint32_t status() const;

    /// Value of the first header of a name, without regard to case; null when it does not occur.
    std::optional<std::string> headerValue(std::string_view name) const;

  private:
    using Stage = HttpTransferLimits::Stage;

    void Configure(const CurlTransferSettings& settings);
    void ConfigureTrust(const CurlTransferSettings& settings);
    Error Run(Stage stage);
    bool HasReached(Stage stage) const;
    void Perform();
    void ReadAnswerWhenDue();
    bool RefusalHasCome() const;
    Error ConfirmBody();
    void NoteTraffic();
    int CurrentSocket() const;
    curl_off_t WaitingInSocket() const;
    bool IsBodyOut() const { return bytesSent_ >= static_cast<curl_off_t>(bodySize_); }
    bool IsConnected() const;
    Error EndFrom(CURLcode code) const;
    void AcceptTunnelRefusal();
    bool TakeHeader(std::string_view line);
    bool TakeBody(std::string_view bytes);
    static CURLcode OnTlsContext(CURL* easy, void* context, void* self);
    static int OnSocket(void* self, curl_socket_t socket, curlsocktype purpose);
    static int OnRequest(void* self, char* peer, char* own, int peerPort, int ownPort);
    static std::size_t OnHeader(char* data, std::size_t size, std::size_t count, void* self);
    static std::size_t OnBody(char* data, std::size_t size, std::size_t count, void* self);

    const HttpServerTrust& trust_;
    CertificateJudge judge_;
    std::array<char, CURL_ERROR_SIZE> failureText_{};
    std::unique_ptr<curl_slist, ReleasedBy<curl_slist_free_all>> headerList_;
    std::unique_ptr<CURLM, ReleasedBy<curl_multi_cleanup>> multi_;
    std::unique_ptr<CURL, ReleasedBy<curl_easy_cleanup>> easy_;

    std::size_t bodySize_;
    HttpTransferLimits limits_;

    std::string rawHeaders_;
    bool headersComplete_ = false;
    bool tunnelRefused_ = false;
    std::string piece_;           // of the body, come and not fetched
    std::size_t pieceTaken_ = 0;  // bytes of it that were fetched
    bool paused_ = false;
    std::vector<int> sockets_;  // that were made for the connection; all but one may be closed
    int heldSocket_ = -1;       // in which the answer is left while the body goes out; -1 when it is read
    Descriptor connection_;     // the same, a descriptor of our own: libcurl closes its own with the answer
    std::optional<Error> end_;  // set once the transfer is over: success, or why it broke off

    curl_off_t bytesSent_ = 0;        // of the request's body, to the socket
    curl_off_t waitingInSocket_ = 0;  // bytes that the other side has not acknowledged
};

/// The WinHTTP number of a libcurl result.
Error ErrorFromCurl(CURLcode code);

}  // namespace platform
