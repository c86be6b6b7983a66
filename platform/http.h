// The HTTP transport: the WinHTTP operations of one transaction. A session leads to a connection, a connection to a
// request; each is closed with WinHttpCloseHandle, request first. Nothing is kept between sessions.
//
// Results are system error numbers, 0 for success; transport failures carry their WinHTTP numbers (12002 time-out,
// 12007 name not resolved, 12029 cannot connect, 12030 connection ended, 12152 invalid answer, 12175 security failure,
// and so on). Different sessions may be used on different threads at once; one session belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/errors.h"
#include "platform/seam.h"

namespace platform {

/// A session, connection or request, or 0.
using HttpHandle = std::uintptr_t;

enum class HttpProxyAccess : std::uint32_t { noProxy = 1, namedProxy = 3 };

/// WinHttpOpenRequest flags.
inline constexpr std::uint32_t httpFlagBypassProxyCache = 0x100;
inline constexpr std::uint32_t httpFlagSecure = 0x800000;

/// Options of WinHttpSetOption and WinHttpQueryOption.
///
/// A limit on silence runs while an operation waits, and begins again with each operation and with each sign of life.
/// While the request goes out that is a byte given to the system or acknowledged by the other side; while the answer is
/// waited for, these and a whole header line or a byte of the body. All end in 12002. Two more limits are
/// fixed: 90 seconds from the last sign of the request to the last header, and 5 minutes for every kilobyte, on
/// Windows of the answer's body only.
enum class HttpOption : std::uint32_t {
    connectTimeout = 3,   // milliseconds; 60000 unless set
    sendTimeout = 5,      // milliseconds of silence while the request goes out; 30000 unless set
    receiveTimeout = 6,   // milliseconds of silence while the answer is waited for; 30000 unless set
    securityFlags = 31,   // the bits below
    redirectPolicy = 88,  // redirectNever, or another number for the rule of WinHttpReceiveResponse
    proxyUserName = 0x1002,
    proxyPassword = 0x1003,
};

/// A value of HttpOption::redirectPolicy: a redirect is the answer.
inline constexpr std::uint32_t redirectNever = 0;

/// Bits of HttpOption::securityFlags: what is let pass in the server's certificate. On Linux a bad date or usage passes
/// together with an unknown authority and not by itself.
inline constexpr std::uint32_t ignoreUnknownAuthority = 0x100;
inline constexpr std::uint32_t ignoreWrongUsage = 0x200;
inline constexpr std::uint32_t ignoreInvalidCommonName = 0x1000;
inline constexpr std::uint32_t ignoreInvalidDate = 0x2000;

/// What a server's certificate must be. Each check that is asked for has to hold before a byte of a request goes out,
/// on every hop of its way, and takes the place of HttpOption::securityFlags. Nothing asked for: those flags alone
/// count.
struct HttpServerTrust {
    std::vector<std::string> pinnedKeys;  // as HttpCertificate::keyPin; the server's is one of them
    /// PEM: one of these has issued it; dates, usage and host name are right. Null when it is not asked for.
    std::shared_ptr<const std::string> authorities;
    bool systemAuthorities = false;  // the same with the authorities that the system trusts
    bool onlyLook = false;           // see SetServerTrust
};

/// The certificate of a server that a request has met. For each check: null when it was not asked for, empty when it
/// held, else why it did not, in the library's words or ours (UTF-8).
struct HttpPresentedCertificate {
    std::string server;  // whose connection it was, "host:port"
    std::string der;     // the certificate itself
    std::optional<std::string> keyProblem;
    std::optional<std::string> authoritiesProblem;
    std::optional<std::string> systemProblem;
};

/// What a certificate says.
struct HttpCertificate {
    std::string subject;             // UTF-8, in one line, as "CN=cs.example.com, O=Example"
    std::string issuer;              // the same
    std::int64_t validFrom = 0;      // seconds since 1970
    std::int64_t validUntil = 0;     // the same
    std::string fingerprint;         // SHA-256 of the certificate: hexadecimal pairs with colons between
    std::string keyPin;              // SHA-256 of the public key (SPKI): "sha256//" and Base64
    std::vector<std::string> names;  // hosts and IP addresses that it is for; without hosts its common name, too
};

/// What WinHttpQueryHeaders is asked for.
enum class HttpHeaderQuery : std::uint32_t {
    rawHeadersCrlf = 0x16,
    statusCodeNumber = 0x20000013,
    contentLengthNumber = 0x20000005,
};

struct HttpOperations {
    std::function<Error(std::u16string_view userAgent, HttpProxyAccess access,
                        const std::optional<std::u16string>& proxyName,
                        const std::optional<std::u16string>& proxyBypass, HttpHandle& session)>
        WinHttpOpen;

    /// Names the target; does not touch the network. Port 0 is the default of the request's scheme.
    std::function<Error(HttpHandle session, std::u16string_view server, std::uint16_t port, HttpHandle& connection)>
        WinHttpConnect;

    /// The verb is GET or POST. The URL is a path and query as it stands; what a request line cannot carry the
    /// transport percent-encodes as UTF-8: blanks, control characters, everything beyond ASCII, "<>\^`{|}, # and a %
    /// that begins no escape. All else is kept, escapes included. acceptTypes is one media range or empty.
    std::function<Error(HttpHandle connection, std::u16string_view verb, std::u16string_view url,
                        std::u16string_view acceptTypes, std::uint32_t flags, HttpHandle& request)>
        WinHttpOpenRequest;

    /// Adds one header line, name, colon and value.
    std::function<Error(HttpHandle request, std::u16string_view header)> WinHttpAddRequestHeaders;

    std::function<Error(HttpHandle request, HttpOption option, std::uint32_t value)> WinHttpSetOptionNumber;
    std::function<Error(HttpHandle request, HttpOption option, std::u16string_view value)> WinHttpSetOptionText;
    std::function<Error(HttpHandle request, HttpOption option, std::uint32_t& value)> WinHttpQueryOption;

    /// Sends the request with its body, if any. The data must stay valid until the request is closed or sent again.
    /// Windows refuses a body of 4 GB and more (invalidParameter).
    std::function<Error(HttpHandle request, const std::byte* data, std::size_t size)> WinHttpSendRequest;

    /// Waits for the answer's status and headers. Redirects are followed, at most ten (12156 beyond them), but
    /// never from a secure connection to a plain one, and for a POST only where the body is to be sent again (307,
    /// 308); a redirect that is not followed is the answer. So is a proxy's refusal of a tunnel, which leads nowhere.
    std::function<Error(HttpHandle request)> WinHttpReceiveResponse;

    /// The raw headers, status line included: each line ends in CRLF, and an empty line ends the whole.
    std::function<Error(HttpHandle request, HttpHeaderQuery query, std::u16string& text)> WinHttpQueryHeadersText;
    std::function<Error(HttpHandle request, HttpHeaderQuery query, std::uint32_t& number)> WinHttpQueryHeadersNumber;

    /// Waits until body bytes are there and says how many; 0 at the end of the body. A body that ends before its
    /// declared length is a winHttpConnectionError here or in WinHttpReadData, never a silent end.
    std::function<Error(HttpHandle request, std::size_t& available)> WinHttpQueryDataAvailable;

    /// Reads size bytes, or fewer when the body ends before or its transfer fails: the next call gives that failure.
    /// read is 0 at the end of the body.
    std::function<Error(HttpHandle request, std::byte* buffer, std::size_t size, std::size_t& read)> WinHttpReadData;

    std::function<Error(HttpHandle handle)> WinHttpCloseHandle;

    // The operations from here on are not WinHTTP's.

    /// What the request asks of its servers from the next sending on. One that does not hold makes the step
    /// fail with winHttpSecureFailure; a request to a plain target then does, too. With onlyLook nothing is ever sent:
    /// the sending ends with winHttpOperationCancelled once the server has shown its certificate, which is noted with
    /// what the checks say.
    std::function<Error(HttpHandle request, const HttpServerTrust& trust)> SetServerTrust;

    /// The certificates that servers have shown since the request was last sent, in the order of its hops.
    std::function<Error(HttpHandle request, std::vector<HttpPresentedCertificate>& certificates)>
        QueryPresentedCertificates;

    /// Why the last sending or receiving failed, in the library's own words (UTF-8), which may be empty.
    std::function<Error(HttpHandle request, std::string& text)> QueryFailureText;

    /// What a certificate in DER says; invalidData when it is not one.
    std::function<Error(std::string_view der, HttpCertificate& certificate)> ReadCertificate;

    /// How many certificates a PEM text has; invalidData when one of them cannot be read.
    std::function<Error(std::string_view pem, std::size_t& count)> CountCertificates;
};

inline const HttpOperations& Http() { return CurrentOperations<HttpOperations>(); }

}  // namespace platform
