#include "http/http_transaction.h"

#include <new>

#include "foundation/agent_health.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/log.h"
#include "http/http_answers.h"
#include "platform/memory.h"

namespace kv {

namespace {

using platform::Error;
namespace error = platform::error;

/// The failures that another address may not have.
bool IsTransportFailure(Error result) {
    return result == error::winHttpTimeout || result == error::winHttpNameNotResolved ||
           result == error::winHttpCannotConnect;
}

bool IsUsable(std::u16string_view address) { return address.size() > 2; }

/// One request on its way through the addresses.
struct AddressedRequest {
    std::u16string_view url;
    const RequestData& data;
    OptionalText* response;
    RequestKind kind;
    std::size_t dataLength;
    bool keepAlive;
    Error result = error::winHttpNameNotResolved;
    std::u16string lastAddress = {};  // that was tried
};

/// A refusal is noted where its status is read.
void NoteFailedRequest(const AddressedRequest& request) noexcept {
    if (request.result == error::success || request.result == error::invalidData) return;
    const auto text = [&] {
        if (request.lastAddress.empty() && request.result == error::winHttpNameNotResolved)
            return LogText("%s: no address of the server is set", PathOfUrl(request.url));
        return LogText("%s at %s:%d: %s", PathOfUrl(request.url), request.lastAddress, agentState.gv_ServerPort,
                       TransactionFailure(request.result));
    };
    NoteFailureOf(text, request.result == error::winHttpSecureFailure ? FailureKind::trust : FailureKind::sending);
}

void Attempt(AddressedRequest& request, std::u16string_view address) {
    if (!IsUsable(address)) return;
    request.lastAddress = address;
    const TransactionTarget target = TargetAt(address, agentState.gv_ServerPort);
    const bool post =
        request.kind == RequestKind::REQUEST_POST_TIMED || request.kind == RequestKind::REQUEST_POST_BINARY;
    request.result = post ? InternetSendRequestEx(target, request.url, request.data.body, request.response,
                                                  request.kind, request.dataLength, request.keepAlive)
                          : InternetGetRequestEx(target, request.url, request.data.destinationFile, request.response,
                                                 request.kind, request.keepAlive);
    // Several addresses that swallow what is sent to them take minutes, in which people look.
    if (IsRegisteringFirst()) NoteFailedRequest(request);
}

/// Attempts an address of the configuration, which after a success is the one to try first next time.
void AttemptAndRemember(AddressedRequest& request, const OptionalText& address) {
    Attempt(request, address.value_or(u""));
    if (request.result == error::success) agentState.gv_LastAccessName.Publish(address);
}

void TryAddresses(AddressedRequest& request) {
    Attempt(request, agentState.gv_LastAccessName.view());
    if (!LeadsToNextAddress(request.result, false)) return;
    AttemptAndRemember(request, agentState.gv_ServerIPAddress);
    if (!LeadsToNextAddress(request.result, true)) return;
    AttemptAndRemember(request, agentState.gv_ServerSecIPAddress);
    if (!LeadsToNextAddress(request.result, false)) return;
    AttemptAndRemember(request, agentState.gv_ServerName);
    if (!LeadsToNextAddress(request.result, false)) return;
    AttemptAndRemember(request, agentState.gv_ServerFlatName);
}

}  // namespace

TransactionTarget TargetAt(std::u16string_view address, std::int32_t port) {
    return {
        .secure = agentState.gv_httpsEnabled != 0,
        .server = address,
        .port = port,
        .useProxy = CompareIgnoreCase(agentState.gv_proxyEnabled, u"yes") == 0,
        .proxyName = agentState.gv_proxyServerName,
        .proxyBypass = agentState.gv_proxyExceptionAddr,
        .proxyUser = agentState.gv_proxyUserName,
        .proxyPassword = agentState.gv_proxyPassword,
    };
}

bool LeadsToNextAddress(Error result, bool isFirstIpAddress) {
    return IsTransportFailure(result) || (isFirstIpAddress && result != error::success);
}

Error AgentSendRequest(const OptionalText& /*serverName*/, std::int32_t /*serverPort*/, std::u16string& url,
                       const RequestData& data, OptionalText* response, RequestKind kind, std::size_t dataLength,
                       bool keepAlive) {
    Log3("\t Inside AgentSendRequest() \n");
    ReplaceChar(url, u'\\', u'/');
    AddressedRequest request{url, data, response, kind, dataLength, keepAlive};
    try {
        TryAddresses(request);
    } catch (const std::bad_alloc&) {
        Log1("AgentSendRequest : Out of memory\n");
        request.result = error::notEnoughMemory;
    }
    NoteFailedRequest(request);
    Log2("AgentSendRequest : Last Access Address is %s \n", agentState.gv_LastAccessName);
    return request.result;
}

Error InternetUploadBinaryFile(const OptionalText& serverName, std::int32_t serverPort, std::u16string& url,
                               std::u16string_view filePath) {
    Log3("\t Inside InternetUploadBinaryFile() \n");
    std::string content;
    if (const Error failure = ReadWholeFile(filePath, content)) {
        Log1("InternetUploadBinaryFile: Error occured while reading the file %d  \n", failure);
        HttpGetLastError(failure);
        NoteFailureOf([&] { return LogText("the zip %s cannot be read: %s", filePath, TransactionFailure(failure)); },
                      FailureKind::sending);
        NoteFailedUpload();
        return failure;
    }
    const Error result = AgentSendRequest(serverName, serverPort, url, {.body = content}, nullptr,
                                          RequestKind::REQUEST_POST_BINARY, content.size(), false);
    const std::size_t size = content.size();
    if (result == error::success)
        NoteUpload(agentState.gv_LastAccessName.view(), agentState.gv_ServerPort, size);
    else
        NoteFailedUpload();
    std::string().swap(content);
    platform::ReleaseFreeMemoryAfter(size);
    Log3("InternetUploadBinaryFile :: httpStatusCode [%d] \n", result);
    return result;
}

Error InternetGetRequest(const OptionalText& serverName, std::int32_t serverPort, std::u16string& url,
                         OptionalText* response, bool keepAlive) {
    return AgentSendRequest(serverName, serverPort, url, {}, response, RequestKind::REQUEST_GET_TIMED, 0, keepAlive);
}

Error InternetSendRequest(const OptionalText& serverName, std::int32_t serverPort, std::u16string& url,
                          std::optional<std::string_view> data, OptionalText* response, bool keepAlive) {
    return AgentSendRequest(serverName, serverPort, url, {.body = data}, response, RequestKind::REQUEST_POST_TIMED, 0,
                            keepAlive);
}

Error InternetDownloadFile(const OptionalText& serverName, std::int32_t serverPort, std::u16string& url,
                           std::u16string_view destinationFile, bool keepAlive) {
    return AgentSendRequest(serverName, serverPort, url, {.destinationFile = destinationFile}, nullptr,
                            RequestKind::REQUEST_GET, 0, keepAlive);
}

}  // namespace kv
