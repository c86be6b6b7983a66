#include "exchange/agent_status.h"

#include <new>
#include <string>

#include "foundation/agent_state.h"
#include "foundation/log.h"
#include "http/http_transaction.h"

namespace kv {

namespace {

/// Throws std::bad_alloc.
std::u16string AgentStatusUrl() {
    std::u16string url = u"/servlets/StatusUpdateServlet?agentKey=";
    url.append(agentState.gv_agentKey.view()).append(u"&agentStatus=").append(agentState.gv_agentStatus.view());
    return url.append(u"&serviceName=").append(serviceName);
}

}  // namespace

void SendAgentStatus() {
    Log3("\t Inside SendAgentStatus() \n");
    std::u16string url;
    try {
        url = AgentStatusUrl();
    } catch (const std::bad_alloc&) {
        Log1("\t SendAgentStatus() :: memory allocation failed for urltoregister\n");
        return;
    }
    const platform::Error result = AgentSendRequest(agentState.gv_ServerName, agentState.gv_ServerPort, url, {},
                                                    nullptr, RequestKind::REQUEST_GET_STATUS, 0, false);
    if (result == platform::error::success)
        Log1("\t SendAgentStatus :: Data Posted Successfully\n");
    else
        Log1("\t SendAgentStatus :: Failed to post the data to server with error code [%d]\n", result);
}

}  // namespace kv
