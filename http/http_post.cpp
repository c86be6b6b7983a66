// One attempt of a POST.
#include <algorithm>
#include <new>

#include "foundation/file_utils.h"
#include "foundation/log.h"
#include "http/http_attempt.h"

namespace kv {

namespace {

using platform::Error;
using platform::Http;
namespace error = platform::error;

constexpr char routine[] = "InternetSendRequestEx";

/// A counted body is sent as counted. Any other counts as wide text, and its number of characters as its bytes.
std::size_t BytesToSend(std::string_view data, RequestKind kind, std::size_t dataLength) {
    if (kind != RequestKind::REQUEST_POST_BINARY || dataLength == 0) return data.size() / sizeof(char16_t);
    if (dataLength > data.size()) {
        Log1("InternetSendRequestEx : The data has %d bytes of the %d that are to be sent\n", data.size(), dataLength);
    }
    return std::min(dataLength, data.size());
}

/// Reads the answer into one buffer, each read at its start, and takes the buffer as wide text up to the first zero. A
/// failed read counts as the end of the answer, which is also cut when it is too long.
Error ReceiveText(const HttpAttempt& attempt, OptionalText& response) {
    std::uint32_t length = 0;
    if (const Error failure = Http().WinHttpQueryHeadersNumber(
            attempt.request.get(), platform::HttpHeaderQuery::contentLengthNumber, length)) {
        LogFailedStep("%s : WinHttpQueryHeaders failed with the error code while getting the content length %d \n",
                      attempt.routine, failure);
        return failure;
    }
    if (length > maxResponseBytes) {
        Log1("InternetSendRequestEx : The server %s announces an answer of %d bytes, which is too long\n",
             attempt.target.server, length);
        return error::notEnoughMemory;
    }
    std::string buffer(length + std::size_t{6}, '\0');
    std::size_t received = 0;
    for (std::size_t read = 1; read > 0 && received <= maxResponseBytes; received += read) {
        const Error failure = Http().WinHttpReadData(attempt.request.get(), reinterpret_cast<std::byte*>(buffer.data()),
                                                     length + std::size_t{2}, read);
        if (failure) {
            TellOfBrokenAnswer(attempt, failure);
            read = 0;
        }
    }
    if (received > maxResponseBytes) {
        Log1("InternetSendRequestEx : The answer of the server %s is cut after %d bytes\n", attempt.target.server,
             received);
    }
    if (received > 0) {
        const std::u16string text = TextFromUtf16LittleEndian(buffer);
        response = text.substr(0, text.find(u'\0'));
    }
    return error::success;
}

}  // namespace

Error InternetSendRequestEx(const TransactionTarget& target, std::u16string_view url,
                            std::optional<std::string_view> data, OptionalText* response, RequestKind kind,
                            std::size_t dataLength, bool keepAlive) {
    Log3("\t Inside InternetSendRequestEx() \n");
    if (!data) {
        Log1("InternetSendRequestEx : There is no data to post to the server %s \n", target.server);
        return error::invalidData;
    }
    HttpAttempt attempt{
        .routine = routine,
        .target = target,
        .url = url,
        .verb = u"POST",
        .acceptTypes = {},
        .securityFlags = platform::ignoreUnknownAuthority | platform::ignoreInvalidCommonName |
                         platform::ignoreInvalidDate | platform::ignoreWrongUsage,
        .limitConnectTime = kind == RequestKind::REQUEST_POST_TIMED,
        .keepAlive = keepAlive,
        .restartReopensSession = false,
        .body = reinterpret_cast<const std::byte*>(data->data()),
        .bodySize = BytesToSend(*data, kind, dataLength),
    };
    if (const Error failure = SendAndReceive(attempt)) return failure;
    std::u16string headers;
    if (const Error failure = ReadRawHeaders(attempt, headers)) return failure;
    Log3("InternetSendRequestEx : The headers of the answer are %s\n", headers);
    std::uint32_t status = 0;
    if (const Error failure = ReadStatus(attempt, status)) return failure;
    if (status == statusProxyAuthentication) return status;
    if (status != statusOk) {
        Log1("InternetSendRequestEx : Failed to post the data to the server %s with http status code %d \n",
             target.server, status);
        NoteRefusal(attempt, status);
        return error::invalidData;
    }
    if (response == nullptr) return error::success;
    try {
        return ReceiveText(attempt, *response);
    } catch (const std::bad_alloc&) {
        Log1("InternetSendRequestEx :Out of memory\n");
        return error::notEnoughMemory;
    }
}

}  // namespace kv
