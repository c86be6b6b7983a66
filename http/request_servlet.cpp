#include "http/request_servlet.h"

#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/log.h"
#include "foundation/text.h"
#include "http/http_transaction.h"

namespace kv {

std::u16string RequestServletUrl() {
    return ConcatStrings(u"/servlets/DataAgentHandlerServlet?agentKey=", agentState.gv_agentKey.view());
}

std::u16string RequestText(const HashTable* request, std::u16string_view key) {
    const char16_t* text = GetHashText(request, key);
    return text ? text : u"";
}

std::u16string RequestAnswerUrl(std::u16string_view action, std::u16string_view requestId) {
    std::u16string url = RequestServletUrl();
    return url.append(u"&action=").append(QueryValue(action)).append(u"&requestId=").append(QueryValue(requestId));
}

void PostRequestAnswer(std::u16string_view action, std::u16string_view requestId, std::u16string_view json) {
    Log3("\t Inside PostRequestAnswer() \n");
    std::u16string url = RequestAnswerUrl(action, requestId);
    Log3("\t PostRequestAnswer :: URL is %s, the answer is %s\n", url, json);
    const std::string bytes = Utf16LittleEndianBytes(json);
    const platform::Error result =
        AgentSendRequest(agentState.gv_ServerName, agentState.gv_ServerPort, url, {.body = bytes}, nullptr,
                         RequestKind::REQUEST_POST_BINARY, bytes.size(), false);
    if (result != platform::error::success) {
        Log1("\t PostRequestAnswer :: The answer to the %s request %s is lost. Error is [%d]\n", action, requestId,
             result);
    }
}

}  // namespace kv
