// Every exchange with the central server. AgentSendRequest chooses the address, and a transaction routine makes one
// attempt at it. Transactions block, share nothing but the agent state and may run on several threads at once.
//
// Results: 0 the server answered 200 (and a download was stored); 13 another status, or a POST without data; 407 the
// proxy refused the credentials; 12002, 12007, 12029 (time-out, name not resolved, cannot connect) the transport
// failures; 12175 the server's certificate is not what the settings ask for, or a setting of trust cannot be used, and
// nothing was sent (http/server_trust.h); else the system's error for the step that failed.
//
// Trying again has four levels, each within the one above. A refusing status (result 13) ends the upload of a zip until
// the next pass, except that one from the first IP address leads to the second. The library follows redirects besides,
// up to ten (platform/http.h).
//
//   level   | what is tried again        | after which failure               | sendings       | pause
//   --------+----------------------------+-----------------------------------+----------------+-----------------
//   pass    | a zip that still waits     | any                               | in every pass  | see StripTxtFiles
//   address | a request, at the next     | transport; any, from the first IP | five addresses | none
//           | address                    | address to the second             |                |
//   restart | an attempt, on a new       | 12015; 12017 of the sending       | two            | none
//           | request, its rounds from 0 |                                   |                |
//   round   | a sending, on the same     | 12032 of the receiving            | maxRounds      | resendPause
//           | request                    | 12015 of the receiving, once the  |                | none
//           |                            | attempt has been restarted        |                |
//
// A pass is exchange/upload_pipeline.h; only uploads have this level. Addresses are AgentSendRequest's; restart and
// rounds are SendAndReceive's (http/http_attempt.h); a GET restarts on a new session and connection, too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/text.h"
#include "platform/errors.h"

namespace kv {

inline constexpr int maxRounds = 5;
inline constexpr std::uint32_t resendPause = 5000;  // milliseconds

/// Decides the method and the options of a transaction.
enum class RequestKind : std::int32_t {
    REQUEST_GET_TIMED = 11001,
    REQUEST_POST_TIMED = 11002,
    REQUEST_GET = 11003,
    REQUEST_POST_BINARY = 11004,
    REQUEST_GET_HEADERS = 11005,
    REQUEST_GET_STATUS = 11006,
};

/// What a transaction sends or where it stores what it gets.
struct RequestData {
    std::optional<std::string_view> body = {};                // POST: the bytes to send; null is refused with 13
    std::optional<std::u16string_view> destinationFile = {};  // GET: the file to store the body in; null for memory
};

/// Sends a request to gv_LastAccessName, gv_ServerIPAddress, gv_ServerSecIPAddress, gv_ServerName and
/// gv_ServerFlatName, in this order, until one gives a result that is final; an address of one or two characters is
/// passed over. Some of the five may be the same. An address of the configuration that gives result 0
/// becomes gv_LastAccessName, which is tried first. serverName and serverPort are ignored: callers pass what the state
/// has.
///
/// Backslashes of the url become slashes, in the caller's text. response may be null, and a body is thrown away then;
/// it is set when a body was received into memory, and is left alone otherwise. Running out of memory is a result.
///
/// For REQUEST_POST_BINARY dataLength counts the bytes of the body. For any other POST the body counts as wide text and
/// half its bytes are sent: wide text goes with REQUEST_POST_BINARY.
platform::Error AgentSendRequest(const OptionalText& serverName, std::int32_t serverPort, std::u16string& url,
                                 const RequestData& data, OptionalText* response, RequestKind kind,
                                 std::size_t dataLength, bool keepAlive);

/// Whether AgentSendRequest goes on to the next address after a result at one, which may be gv_ServerIPAddress.
bool LeadsToNextAddress(platform::Error result, bool isFirstIpAddress);

/// Posts a whole file, read into memory, as REQUEST_POST_BINARY. The error of a file that cannot be read is the result.
platform::Error InternetUploadBinaryFile(const OptionalText& serverName, std::int32_t serverPort, std::u16string& url,
                                         std::u16string_view filePath);

/// REQUEST_GET_TIMED without data.
platform::Error InternetGetRequest(const OptionalText& serverName, std::int32_t serverPort, std::u16string& url,
                                   OptionalText* response, bool keepAlive);

/// REQUEST_POST_TIMED.
platform::Error InternetSendRequest(const OptionalText& serverName, std::int32_t serverPort, std::u16string& url,
                                    std::optional<std::string_view> data, OptionalText* response, bool keepAlive);

/// REQUEST_GET into a file.
platform::Error InternetDownloadFile(const OptionalText& serverName, std::int32_t serverPort, std::u16string& url,
                                     std::u16string_view destinationFile, bool keepAlive);

/// Where one attempt goes.
struct TransactionTarget {
    bool secure = false;
    std::u16string_view server;
    std::int32_t port = 0;  // only the low 16 bits reach the connect call
    bool useProxy = false;  // the rest is not looked at without
    OptionalText proxyName;
    OptionalText proxyBypass;
    OptionalText proxyUser;  // texts of less than two characters are not credentials
    OptionalText proxyPassword;
};

/// The way to an address by the settings of server and proxy in the agent state. The address must outlive it.
TransactionTarget TargetAt(std::u16string_view address, std::int32_t port);

/// One attempt of a GET (http_get.cpp), and of a POST (http_post.cpp). May throw std::bad_alloc.
platform::Error InternetGetRequestEx(const TransactionTarget& target, std::u16string_view url,
                                     std::optional<std::u16string_view> destinationFile, OptionalText* response,
                                     RequestKind kind, bool keepAlive);
platform::Error InternetSendRequestEx(const TransactionTarget& target, std::u16string_view url,
                                      std::optional<std::string_view> data, OptionalText* response, RequestKind kind,
                                      std::size_t dataLength, bool keepAlive);

}  // namespace kv
