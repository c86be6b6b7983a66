#include "exchange/request_polling.h"

#include <string>
#include <string_view>

#include "exchange/request_dispatch.h"
#include "foundation/agent_state.h"
#include "foundation/directory_failure.h"
#include "foundation/file_utils.h"
#include "foundation/guarded.h"
#include "foundation/log.h"
#include "foundation/registry_store.h"
#include "foundation/text.h"
#include "foundation/time_utils.h"
#include "http/http_transaction.h"
#include "http/request_servlet.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/memory.h"
#include "queryconf/conf_paths.h"
#include "queryconf/config_reload.h"
#include "queryconf/query_config.h"

namespace kv {

namespace {

using platform::Error;
using platform::Files;
namespace directory_error = platform::directory_error;
namespace error = platform::error;

constexpr std::uint32_t pollMilliseconds = 30000;

struct RequestListPaths {
    std::u16string directory;  // ends in a backslash
    std::u16string list;       // the file in it that holds the list while it is served
};

/// The download directory; below the bin path when that cannot be made the working directory.
std::u16string DownloadDirectory() {
    const std::u16string binPath = agentState.gv_ocAgentBinPath.value_or(u"");
    const int failure = Files().wchdir(binPath);
    if (failure == directory_error::success) return std::u16string(conf_path::downloadDirectory);
    LogDirectoryFailure(failure, {.notFound = {3, "\t RequestCentralServer :: Change directory failed \n"},
                                  .invalid = {1, "\t RequestCentralServer :: Invalid buffer \n"},
                                  .other = {1, "\t RequestCentralServer :: Unknown error \n"}});
    return ConcatStrings(binPath, conf_path::downloadDirectory);
}

void MakeDownloadDirectory(std::u16string_view directory) {
    const int failure = Files().wmkdir(directory);
    if (failure == directory_error::success) return;
    LogDirectoryFailure(
        failure, {.notFound = {1, "\t RequestCentralServer :: download directory not created. Path not found \n"},
                  .exists = {1, "\t RequestCentralServer :: download directory not created. dirname already exists \n"},
                  .other = {1, "\t RequestCentralServer :: download directory not created. Error unknown [%d] \n"}});
}

bool WriteRequestAvailable(std::u16string_view text) {
    const Error failure = SetRequestAvailable(text);
    if (failure != error::success)
        Log1("\t RequestCentralServer :: RequestAvailable cannot be set to %s. Error is [%d]\n", text, failure);
    return failure == error::success;
}

/// A request that is still named brought the agent down, or a stop cut it short. The server is told to drop it, and the
/// rest of its list is fetched again. A plan that it has brought may not be taken by the next one.
void DropInterruptedRequest() {
    OptionalText id;
    if (GetRequestID(id) != error::success || !id || id == u"NONE") return;
    Log2("\t ParseRequestList :: Agent may be crashed while processing the request id %s, so ignoring the request...\n",
         id);
    Log1("\t RequestCentralServer :: The agent ended while it served the request %s, which is dropped\n", id);
    DropDownloadedPlan();
    std::u16string url = RequestServletUrl() + u"&action=DELETE_REQUEST&requestId=" + QueryValue(*id);
    InternetGetRequest(agentState.gv_ServerName, agentState.gv_ServerPort, url, nullptr, false);
    if (const Error failure = SetRequestID(u"NONE"))
        Log1("\t RequestCentralServer :: RequestID cannot be set to NONE. Error is [%d]\n", failure);
    WriteRequestAvailable(u"YES");
}

bool RequestsWait() {
    OptionalText available;
    if (GetRequestAvailable(available) != error::success) {
        Log1("\t RequestCentralServer() :: Not able to fetch the RequestAvailable Flag. Assigning default value\n");
        WriteRequestAvailable(u"NO");
        return true;
    }
    if (available == u"NO") return false;
    Log1("\t RequestCentralServer : RequestAvailable flag is true..so going to process request list...");
    return true;
}

Error FetchRequestList(OptionalText& list) {
    Log2("\t RequestCentralServer :: Going to sleep for [%d] seconds\n",
         std::int64_t{agentState.gv_configInterval} * 100);
    std::u16string url = RequestServletUrl();
    const Error result = AgentSendRequest(agentState.gv_ServerName, agentState.gv_ServerPort, url, {}, &list,
                                          RequestKind::REQUEST_GET, 0, false);
    Log1("\t RequestCentralServer :: retVal of InternetDownloadFile is [%d] \n", result);
    return result;
}

/// Removes what an archive has put in the way and makes a directory again that someone has removed: otherwise no
/// request would ever be served.
bool StoreRequestList(std::u16string_view list, const RequestListPaths& paths) {
    const std::u16string temporaryPath = paths.list + u".tmp";
    if (!Files().IsDirectory(paths.directory)) MakeDownloadDirectory(paths.directory);
    ClearDirectoryFromPath(temporaryPath);
    ClearDirectoryFromPath(paths.list);
    const Error failure = WriteCompleteFile(paths.list, temporaryPath, Utf16LittleEndianBytes(list));
    if (failure == error::success) return true;
    Log3("\tRequestCentralServer: file pointer is NULL\n");
    Log1("\t RequestCentralServer :: %s cannot be written. Error is [%d]\n", paths.list, failure);
    return false;
}

/// served stays false when the list could not be stored or read, and then no request of it has been served.
void StoreAndServe(std::u16string_view list, const RequestListPaths& paths, bool& served) {
    Log3("\t Inside StoreAndServe() \n");
    if (!StoreRequestList(list, paths)) return;
    const std::int64_t start = GetNowSeconds();
    served = ParseRequestList(paths.list);
    Log2("\t RequestCentralServer :: Total Time taken for executing Request List - %d", GetNowSeconds() - start);
    if (const Error failure = Files().DeleteFileW(paths.list))
        Log1("\t RequestCentralServer :: %s cannot be deleted. Error is [%d]\n", paths.list, failure);
}

/// The flag becomes NO before the list is served, so that a list that crashes the agent is not fetched at every start;
/// while it cannot be set, nothing is served. It becomes YES again for a list of which nothing was served.
void TakeRequestList(const OptionalText& answer, const RequestListPaths& paths) {
    if (!WriteRequestAvailable(u"NO")) return;
    std::u16string_view list = answer ? std::u16string_view(*answer) : std::u16string_view();
    list = list.substr(0, list.find(u'\0'));
    if (list.empty()) {
        Log2("\t RequestCentralServer :: File doesn\'t exist");
        return;
    }
    bool served = false;
    RunGuarded("RequestCentralServer", [&] { StoreAndServe(list, paths, served); });
    if (served) return;
    Log1("\t RequestCentralServer :: The request list was not served. It is fetched again in the next round\n");
    WriteRequestAvailable(u"YES");
}

void RunRound(const RequestListPaths& paths) {
    if (LoadUnreadPlans()) ReloadAndScheduleQueryData();
    DropInterruptedRequest();
    if (!RequestsWait()) return;
    OptionalText list;
    if (FetchRequestList(list) == error::success) TakeRequestList(list, paths);
    const std::size_t bytes = list ? list->size() * sizeof(char16_t) : 0;
    list.reset();
    platform::ReleaseFreeMemoryAfter(bytes);
    Log1(
        "\t RequestCentralServer() :: Request list are processed sucessfully.. Going to set RequestAvailable flag as "
        "NO.\n");
}

}  // namespace

std::uint32_t RequestCentralServer(void* /*ignored*/) {
    Log3("\t Inside RequestCentralServer() \n");
    RequestListPaths paths;
    paths.directory = DownloadDirectory();
    paths.list = paths.directory + u"RequestList.txt";
    MakeDownloadDirectory(paths.directory);
    for (;;) {
        Log1("\t Inside RequestCentralServer :: Sleep for 30 seconds \n");
        platform::Clock().Sleep(pollMilliseconds);
        RunGuarded("RequestCentralServer", [&paths] { RunRound(paths); });
    }
}

}  // namespace kv
