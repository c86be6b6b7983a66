#include "queryconf/config_reload.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>

#include "foundation/agent_state.h"
#include "foundation/directory_failure.h"
#include "foundation/file_utils.h"
#include "foundation/log.h"
#include "foundation/open_file.h"
#include "foundation/timer.h"
#include "http/http_transaction.h"
#include "platform/files.h"
#include "queryconf/conf_paths.h"
#include "queryconf/query_config.h"
#include "queryconf/schedule.h"
#include "zip/zip_reader.h"

namespace kv {

namespace {

using platform::Error;
using platform::Files;
namespace directory_error = platform::directory_error;
namespace error = platform::error;

constexpr std::u16string_view newPlan = u"..\\conf\\download\\queryconf.txt";

/// What stays in the download directory: new plans, and the list of requests that is being served.
constexpr std::u16string_view keptDownloads[] = {conf_path::planName, u"queryconf.txt.refused", u"RequestList.txt"};

/// Goes to the bin directory. What to put before the relative paths of the configuration: nothing when that went well.
std::u16string EnterBinDirectory() {
    const std::u16string binPath = agentState.gv_ocAgentBinPath.value_or(u"");
    const int failure = Files().wchdir(binPath);
    if (failure == directory_error::success) return {};
    LogDirectoryFailure(failure, {.notFound = {1, "\t RequestingConfigDetailstoCS :: Change directory failer \n"},
                                  .invalid = {1, "\t RequestingConfigDetailstoCS :: Invalid buffer \n"},
                                  .other = {1, "\t RequestingConfigDetailstoCS :: Unknown error \n"}});
    return binPath;
}

void MakeDirectory(const char* caller, std::u16string_view directory) {
    const int failure = Files().wmkdir(directory);
    if (failure == directory_error::success) return;
    LogDirectoryFailure(failure,
                        {.notFound = {1, "\t %s :: %s not created. Path not found \n"},
                         .exists = {2, "\t %s :: %s not created. dirname already exists \n"},
                         .other = {1, "\t %s :: %s not created. Error unknown [%d] \n"}},
                        caller, directory);
}

/// What an archive takes once it is unpacked, in bytes; 0 when it cannot be opened, as UnzipFiles will say.
std::uint64_t UnpackedSize(std::u16string_view archive) {
    constexpr std::uint64_t blockSize = 4096;  // of the disk; each item takes one for itself
    const ZipHandle zip = OpenZip(archive, nullptr);
    if (!zip) return 0;
    ZipItem item;
    GetZipItem(zip, -1, item);
    std::uint64_t size = 0;
    for (std::int32_t index = 0, count = item.index; index < count; ++index)
        if (GetZipItem(zip, index, item) == zip_result::ok) size += item.uncompressedSize + blockSize;
    CloseUnzip(zip);
    return std::min(size, maxUnpackedBytes);
}

/// Whether a downloaded entry is one that stays. A file that has its name in other letters gets the right ones: Windows
/// takes both for one, and elsewhere each spelling would stay for good.
bool StaysInDownloads(std::u16string_view directory, const platform::FindData& file) {
    const auto* const kept = std::find_if(std::begin(keptDownloads), std::end(keptDownloads),
                                          [&](auto name) { return CompareIgnoreCase(file.fileName, name) == 0; });
    if (kept == std::end(keptDownloads)) return false;
    return file.fileName == *kept ||
           (!file.isDirectory &&
            Files().MoveFileExW(ConcatStrings(directory, file.fileName), ConcatStrings(directory, *kept),
                                platform::MoveTarget::isReplaced) == error::success);
}

/// Deletes plans in other letters that a kill has left: they would take the place of the one that is unpacked now.
void DeleteLeftPlans(std::u16string_view directory) {
    for (FileSearch search(ConcatStrings(directory, u"*")); search.hasFile(); search.Next()) {
        const std::u16string& name = search.file.fileName;
        if (name != conf_path::planName && CompareIgnoreCase(name, conf_path::planName) == 0)
            Files().DeleteFileW(ConcatStrings(directory, name));
    }
}

/// Deletes what an archive has brought beside the plan; nothing else ever would.
void ClearDownloads(std::u16string_view directory) {
    int failed = 0, deleted = 0;
    for (FileSearch search(ConcatStrings(directory, u"*")); search.hasFile(); search.Next()) {
        const std::u16string& name = search.file.fileName;
        if (name == u"." || name == u".." || StaysInDownloads(directory, search.file)) continue;
        const std::u16string path = ConcatStrings(directory, name);
        const bool gone = search.file.isDirectory ? DeleteDirectoryRecursively(path) == 1
                                                  : Files().DeleteFileW(path) == error::success;
        ++(gone ? deleted : failed);
    }
    if (deleted > 0) Log1("\t RequestingConfigDetailstoCS :: %d entries beside the plan are deleted \n", deleted);
    if (failed > 0) Log1("\t RequestingConfigDetailstoCS :: %d entries of %s cannot be deleted \n", failed, directory);
}

/// Where the files of one agent's plan stand.
struct PlanFiles {
    std::u16string agent;  // empty for this agent itself
    std::u16string live;
    std::u16string backup;
};

PlanFiles PlanFilesFor(std::u16string_view agentKey) {
    if (IsOwnAgentKey(agentKey))
        return {u"", std::u16string(conf_path::ownPlan),
                ConcatStrings(conf_path::backupDirectory, conf_path::planName)};
    const std::u16string slave = SlaveDirectoryName(agentKey);
    const std::u16string inDirectory = ConcatStrings(slave, u"\\").append(conf_path::planName);
    return {slave, ConcatStrings(conf_path::slavesDirectory, inDirectory),
            ConcatStrings(conf_path::backupDirectory, inDirectory)};
}

void MakePlanDirectories(const PlanFiles& files) {
    constexpr const char* caller = "ReloadQueryConfDetails";
    MakeDirectory(caller, conf_path::backupDirectory);
    if (files.agent.empty()) return;
    MakeDirectory(caller, conf_path::slavesDirectory);
    MakeDirectory(caller, ConcatStrings(conf_path::slavesDirectory, files.agent));
    MakeDirectory(caller, ConcatStrings(conf_path::backupDirectory, files.agent));
}

bool IsMissing(Error failure) { return failure == error::fileNotFound || failure == error::pathNotFound; }

/// Moves a new plan that cannot be used out of the way of the next request, to a place where someone can look at it.
void SetAside(const PlanFiles& files) {
    Log1("\t ReloadQueryConfDetails :: %s is refused; %s stays in use \n", newPlan, files.live);
    ClearDirectoryFromPath(conf_path::refusedPlan);
    if (const Error failure = Files().MoveFileExW(newPlan, conf_path::refusedPlan, platform::MoveTarget::isReplaced))
        Log1("\t ReloadQueryConfDetails :: %s cannot be renamed to %s. Error is [%u] \n", newPlan,
             conf_path::refusedPlan, failure);
}

/// Copies the plan in use over its backup. The copy gets the backup's name only once it is complete.
void BackUp(const PlanFiles& files) {
    const std::u16string copy = files.backup + u".new";
    Error failure = Files().CopyFileW(files.live, copy);
    if (failure == error::success) failure = Files().MoveFileExW(copy, files.backup, platform::MoveTarget::isReplaced);
    if (failure == error::success) return;
    Log1("\t ReloadQueryConfDetails :: %s cannot be copied to %s. Error is [%u] \n", files.live, files.backup, failure);
    Files().DeleteFileW(copy);
}

/// Deletes the backup of an agent that had no plan in use: it is an older one, and would come back if the new plan is
/// lost.
void DropBackup(const PlanFiles& files) {
    const Error failure = Files().DeleteFileW(files.backup);
    if (failure != error::success && !IsMissing(failure))
        Log1("\t ReloadQueryConfDetails :: %s cannot be deleted. Error is [%u] \n", files.backup, failure);
}

/// A rename is one step, but the content reaches the disk when the system likes: a power cut in between would leave an
/// empty plan behind. A read-only file is taken as it is.
Error BringToDisk(std::u16string_view path) {
    OpenFile file;
    const Error opened = file.Open(path, platform::FileAccess::append, platform::FileShare::read,
                                   platform::FileDisposition::openExisting);
    if (opened != error::success) return opened == error::accessDenied ? error::success : opened;
    if (const Error failure = Files().FlushFileBuffers(file.handle)) return failure;
    return file.Close();
}

/// Puts the new plan in the place of the one in use; false with a line when that one stays.
bool Install(const PlanFiles& files) {
    MakePlanDirectories(files);
    const bool hadPlan = MayExist(files.live);
    if (hadPlan) BackUp(files);
    Error failure = BringToDisk(newPlan);
    if (failure == error::success) failure = Files().MoveFileExW(newPlan, files.live, platform::MoveTarget::isReplaced);
    if (failure != error::success) {
        Log1("\t ReloadQueryConfDetails :: %s cannot be put in the place of %s, which stays. Error is [%u] \n", newPlan,
             files.live, failure);
        return false;
    }
    if (!hadPlan) DropBackup(files);
    return true;
}

}  // namespace

bool IsOwnAgentKey(std::u16string_view key) { return CompareIgnoreCase(key, agentState.gv_agentKey.view()) == 0; }

bool IsSlaveKey(std::u16string_view key) {
    return IsPlainFileName(key) &&
           CompareIgnoreCase(key.substr(0, conf_path::planName.size()), conf_path::planName) != 0;
}

std::u16string SlaveDirectoryName(std::u16string_view key) {
    std::u16string name(key);
    for (FileSearch search(ConcatStrings(conf_path::slavesDirectory, u"*")); search.hasFile(); search.Next()) {
        const std::u16string& found = search.file.fileName;
        if (found == key) return found;
        if (search.file.isDirectory && CompareIgnoreCase(found, key) == 0) name = found;
    }
    return name;
}

void RequestingConfigDetailstoCS(const OptionalText& confFileDldURL) {
    Log3("\t Inside RequestingConfigDetailstoCS() \n");
    constexpr const char* caller = "RequestingConfigDetailstoCS";
    const std::u16string prefix = EnterBinDirectory();
    const std::u16string directory = ConcatStrings(prefix, conf_path::downloadDirectory);
    MakeDirectory(caller, ConcatStrings(prefix, conf_path::backupDirectory));
    MakeDirectory(caller, directory);
    if (!confFileDldURL) return;
    const std::u16string archive = directory + u"queryconf.zip";
    std::u16string url = *confFileDldURL;
    const Error result = InternetDownloadFile(agentState.gv_ServerName, agentState.gv_ServerPort, url, archive, true);
    if (result != error::success) {
        Log1("\t RequestingConfigDetailstoCS :: Download Zip file is not successful. retVal is [%d] \n", result);
        return;
    }
    Log1("\t RequestingConfigDetailstoCS :: Download Zip file is successful \n");
    ClearDirectoryFromPath(newPlan);
    DeleteLeftPlans(directory);
    if (HasRoomFor(directory, UnpackedSize(archive), archive, "The plan in use stays until a new one is sent again"))
        UnzipFiles(archive, u"..\\conf\\download");
    if (const Error failure = Files().DeleteFileW(archive))
        Log1("\t RequestingConfigDetailstoCS :: %s cannot be deleted. Error is [%u] \n", archive, failure);
    ClearDownloads(directory);
}

void DropDownloadedPlan() {
    DeleteLeftPlans(conf_path::downloadDirectory);
    const Error failure = Files().DeleteFileW(newPlan);
    if (failure == error::success)
        Log1("\t ReloadQueryConfDetails :: %s was brought by a request that is dropped, and is deleted \n", newPlan);
    else if (!IsMissing(failure))
        Log1("\t ReloadQueryConfDetails :: %s cannot be deleted. Error is [%u] \n", newPlan, failure);
}

void ReloadQueryConfDetails(std::u16string_view agentKey) {
    Log3("\t Inside ReloadQueryConfDetails() \n");
    if (!IsOwnAgentKey(agentKey) && !IsSlaveKey(agentKey)) {
        Log1("\t ReloadQueryConfDetails :: %s cannot name a directory: nothing is installed for it \n", agentKey);
        return;
    }
    if (!MayExist(newPlan)) {
        Log1("\t ReloadQueryConfDetails :: %s is not there: no new plan is installed \n", newPlan);
        return;
    }
    const PlanFiles files = PlanFilesFor(agentKey);
    switch (JudgeQueryConfig(files.agent, newPlan)) {
        case PlanJudgement::usable:
            if (Install(files)) LoadQueryConfig(files.agent, files.live);
            break;
        case PlanJudgement::refused:
            SetAside(files);
            break;
        case PlanJudgement::unread:
            Log1("\t ReloadQueryConfDetails :: %s waits for the next call; %s stays in use \n", newPlan, files.live);
    }
}

void ReloadAndScheduleQueryData() {
    Log3("\t Inside ReloadAndScheduleQueryData() \n");
    DeleteTimerEntryByName(u"DEFAULT");
    FreeAllVector(std::exchange(agentState.gv_sortVec, nullptr));
    FreeReplacedPlans();
    scheduleQueryHashData();
    Log1("\t ReloadAndScheduleQueryData : Query conf reloaded and scheduled successfully... \n");
}

}  // namespace kv
