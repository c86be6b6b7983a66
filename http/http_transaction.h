// Every exchange with the central server. AgentSendRequest chooses the address, one transaction routine carries out one
// attempt at one address. Transactions block, share nothing and may run on several threads at once.
//
// Results: 0 the server answered 200 (and a download was stored); 13 another status, or a POST without data; 407 the
// proxy refused the credentials; 12002, 12007, 12029 the transport failures that move on to the next address; else the
// system's error for the step that failed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/text.h"
#include "platform/errors.h"

namespace kv {

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
    std::optional<std::string_view> body = {};                // POST: the bytes to send, or none
    std::optional<std::u16string_view> destinationFile = {};  // GET: the file to store the body in, or none
};

/// Sends a request to the addresses of the agent state, in their order, until one answers. serverName and serverPort
/// are taken for the caller's convenience and ignored. Backslashes of the url become slashes, in the caller's text.
/// response may be null; it is set when a body was received into memory, and is left alone otherwise.
///
/// For REQUEST_POST_BINARY dataLength counts the bytes of the body. For any other POST the body counts as wide text and
/// half its bytes are sent: wide text goes with REQUEST_POST_BINARY.
platform::Error AgentSendRequest(const OptionalText& serverName, std::int32_t serverPort, std::u16string& url,
                                 const RequestData& data, OptionalText* response, RequestKind kind,
                                 std::size_t dataLength, bool keepAlive);

/// Posts a whole file as REQUEST_POST_BINARY.
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

/// One attempt at one address.
struct TransactionTarget {
    bool secure = false;
    std::u16string_view server;
    std::int32_t port = 0;  // only the low 16 bits reach the connect call
    bool useProxy = false;
    OptionalText proxyName;
    OptionalText proxyBypass;
    OptionalText proxyUser;
    OptionalText proxyPassword;
};
platform::Error InternetGetRequestEx(const TransactionTarget& target, std::u16string_view url,
                                     std::optional<std::u16string_view> destinationFile, OptionalText* response,
                                     RequestKind kind, bool keepAlive);
platform::Error InternetSendRequestEx(const TransactionTarget& target, std::u16string_view url,
                                      std::optional<std::string_view> data, OptionalText* response, RequestKind kind,
                                      std::size_t dataLength, bool keepAlive);

}  // namespace kv
