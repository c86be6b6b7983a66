#include "exchange/upload_pipeline.h"

#include <array>
#include <string>
#include <utility>
#include <vector>

#include "exchange/http_transaction.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/guarded.h"
#include "foundation/log.h"
#include "foundation/open_file.h"
#include "foundation/system_error.h"
#include "foundation/text.h"
#include "foundation/time_utils.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "zip/zip_writer.h"

namespace kv {

namespace {

constexpr std::u16string_view zipDirectory = u"zipdata";
constexpr std::u16string_view recordPattern = u"data\\*.txt";
constexpr std::u16string_view zipPattern = u"zipdata\\*.zip";
constexpr std::u16string_view unfinishedPattern = u"zipdata\\Agent_*.tmp";

constexpr std::uint32_t firstWaitMilliseconds = 60000;
constexpr std::uint32_t waitMilliseconds = 5000;

std::string ZipMessage(ZipResult result) {
    std::array<char, 100> text{};
    FormatZipMessage(result, text.data(), text.size());
    return text.data();
}

/// A zip that is being packed under a name that no upload looks for. Closed at the end of its life at the latest.
struct ZipInProgress {
    std::u16string temporaryPath;
    ZipHandle zip;

    explicit ZipInProgress(std::u16string path)
        : temporaryPath(std::move(path)), zip(CreateZip(temporaryPath, nullptr)) {
        if (zip == nullptr) LogFailure("create", LastZipWriterResult());
    }
    ZipInProgress(const ZipInProgress&) = delete;
    ZipInProgress& operator=(const ZipInProgress&) = delete;
    ~ZipInProgress() {
        if (zip != nullptr) CloseZip(zip);
    }

    void LogFailure(const char* action, ZipResult result) const {
        Log1("\t StripTxtFiles :: Not able to %s [%s]. Error is [0x%x] [%s]\n", action, temporaryPath, result,
             ZipMessage(result));
    }
};

/// The path of the next zip, without extension. A number that a zip in the queue still has is passed over: after a
/// crash the numbers are rebuilt from file names, which goes wrong with an agent key that holds "_" or ".".
std::u16string NextZipPath(std::u16string_view nameBase) {
    for (;;) {
        const std::u16string path = ConcatStrings(nameBase, DecimalText(++agentState.gv_ocLastCreatedZIPNum));
        if (!FileSearch(path + u".zip").HasFile()) return path;
        Log1("\t StripTxtFiles :: [%s.zip] has not been sent yet. Taking the next number\n", path);
    }
}

/// Adds a record file to the zip. False when it stays where it is: it vanished or cannot be read, or the zip has no
/// room left for it. The first file of a zip goes in any case: one that no zip can take would come back in every pass.
bool PackFile(const ZipInProgress& zip, const std::u16string& path, bool isFirst) {
    if (fileExists(path) == 0) return false;
    while (IsFileisOpen(path) == FileUse::inUse) {
        Log1("\t StripTxtFiles :: IsFileisOpen returned failure for [%s]\n", path);
        platform::Clock().Sleep(waitMilliseconds);
    }
    const ZipResult result = AddFileToZip(zip.zip, path, path);
    if (result != zip_result::ok) {
        Log1("\t StripTxtFiles :: Not able to add [%s] to the zip. Error is [0x%x] [%s]\n", path, result,
             ZipMessage(result));
    }
    return isFirst || zip.zip == nullptr || result != zip_result::badArguments;
}

/// Closes the zip and gives it its name. False when the records are still to be packed: the closed zip could not be
/// renamed.
bool FinishZip(ZipInProgress& zip, const std::u16string& path, bool isEmpty) {
    if (zip.zip == nullptr) return true;
    const ZipResult result = CloseZip(std::exchange(zip.zip, nullptr));
    if (result != zip_result::ok) {
        zip.LogFailure("close", result);
        // Without its directory it is no archive: the server would refuse it on every pass, for ever.
        platform::Files().DeleteFileW(zip.temporaryPath);
        return true;
    }
    if (isEmpty) {
        Log1("\t StripTxtFiles :: None of the files found in data can be read. There is nothing to send\n");
        platform::Files().DeleteFileW(zip.temporaryPath);
        return true;
    }
    const platform::Error error = platform::Files().MoveFileExW(zip.temporaryPath, path, false);
    if (error == platform::error::success) return true;
    Log1("\t StripTxtFiles :: Not able to rename [%s] to [%s]\n", zip.temporaryPath, path);
    LogLastSystemError(error);
    platform::Files().DeleteFileW(zip.temporaryPath);
    return false;
}

void DeletePackedFiles(const std::vector<std::u16string>& paths) {
    for (const std::u16string& path : paths) {
        const platform::Error error = platform::Files().DeleteFileW(path);
        if (error == platform::error::success) continue;
        Log1("\t StripTxtFiles :: Error in Deleting [%s]. It will be packed again\n", path);
        LogLastSystemError(error);
    }
}

/// Packs the present file of the search and those behind it into one zip; the search then stands at the file after
/// them.
///
/// The zip is written under a name that is not uploaded and renamed when closed, so that a killed agent leaves no half
/// zip in the queue; and the sources go only once the zip is closed, on the disk and renamed, so that a killed agent
/// loses no record. Packed or not, they do go: a file that cannot be packed would come back in every pass.
void PackBatch(FileSearch& search, std::u16string_view nameBase) {
    const std::u16string path = NextZipPath(nameBase);
    ZipInProgress zip(path + u".tmp");
    std::vector<std::u16string> packed;
    for (int count = 1;; ++count) {
        std::u16string source = u"data\\" + search.file.fileName;
        if (PackFile(zip, source, packed.empty())) packed.push_back(std::move(source));
        if (count == maxFilesInZip) break;
        search.Next();
        if (!search.HasFile()) break;
    }
    if (FinishZip(zip, path + u".zip", packed.empty())) DeletePackedFiles(packed);
    if (search.HasFile()) search.Next();
}

/// Deletes what a killed run was packing; its records are all in "data" still.
void DeleteUnfinishedZips() {
    for (FileSearch search(unfinishedPattern); search.HasFile(); search.Next()) {
        const std::u16string path = u"zipdata\\" + search.file.fileName;
        const platform::Error error = platform::Files().DeleteFileW(path);
        Log1("\t StripTxtFiles :: Unfinished zip [%s] of an earlier run deleted. Error is [%d]\n", path, error);
    }
}

void SendZips() {
    const int zipCount = GetZipFileCount(u"zipdata\\*");
    if (zipCount == 0) {
        Log1("\t StripTxtFiles :: zipcnt value is [%d], Time Stamp is [%s]\n", zipCount, GetTimeString(1));
        return;
    }
    SendDetailstoCS(zipCount);
}

/// The period runs from the start of the pass; a clock that was set back keeps the wait going.
void WaitForNextPass(std::int64_t passStart) {
    std::int64_t now = 0;
    do {
        now = GetNowSeconds();
        platform::Clock().Sleep(waitMilliseconds);
    } while (now - passStart < agentState.gv_writeInterval);
}

/// Names of all zips in the queue, in the order of the search.
std::vector<std::u16string> QueuedZips(int zipCount) {
    std::vector<std::u16string> names;
    FileSearch search(zipPattern);
    if (!search.HasFile()) {
        Log1("\t SendDetailstoCS :: No zip file exists. Not able to get the File Handle hFirstFile %u \n",
             search.error);
        return names;
    }
    names.reserve(static_cast<std::size_t>(zipCount) + 2);
    for (; search.HasFile(); search.Next()) names.push_back(search.file.fileName);
    if (search.error != platform::error::noMoreFiles) {
        Log1("\t SendDetailstoCS :: Error in FindNextFiles. Error is [%s]\n", LogSystemError(search.error));
    }
    // The number is the last index, one less than the count.
    Log1("\t SendDetailstoCS :: Number of Zip files in ZipData directory is [%d]\n", names.size() - 1);
    return names;
}

void DeleteAcceptedZip(const std::u16string& path) {
    const platform::Error error = platform::Files().DeleteFileW(path);
    const int deleted = error == platform::error::success ? 1 : 0;
    if (deleted == 0) {
        Log1("\t SendDetailstoCS :: Error in Deleting ZipFileName [%s]. ErrorCode is [%d], GetLastError is [%d]\n",
             path, deleted, error);
    } else {
        Log1("\t SendDetailstoCS :: ZipFileName :: [%s] is deleted [%d]\n", path, deleted);
    }
}

/// Contact counts as found again only after collection had been stopped: a single failure stays on the outage clock
/// through any number of accepted uploads.
void NoteContact() {
    if (agentState.gv_collectData != 0) return;
    Log1("Setting gvCSContactLostTime to 0 and setting gv_collectData as connection established\n");
    agentState.gv_CSContactLostTime = 0;
    agentState.gv_collectData = 1;
}

void NoteContactLost() {
    const std::int64_t now = GetNowSeconds();
    if (agentState.gv_CSContactLostTime == 0) {
        agentState.gv_CSContactLostTime = now;
        Log1("gv_CSContactLostTime set for firstTime at - %d\n", now);
    }
    const std::int64_t lostTime = agentState.gv_CSContactLostTime;
    const std::int64_t diff = now - lostTime;
    Log1(" currentTime = %ld,diff=%ld\n", now, diff);
    Log1("gv_CSContactLostTime is - %d\n", lostTime);
    const std::uint32_t limit = static_cast<std::uint32_t>(agentState.gv_DataCollTmout) * 60U;
    if (diff > static_cast<std::int64_t>(limit) && agentState.gv_collectData != 0) {
        Log1("stopping datacollection as connection is lost for %d sec\n", limit);
        agentState.gv_collectData = 0;
    }
}

void SendZip(const std::u16string& name) {
    const std::u16string path = u"zipdata\\" + name;
    if (fileExists(path) == 0) {
        Log1("\t SendDetailstoCS :: fileExists returned failure for [%s]\n", path);
        return;
    }
    while (IsFileisOpen(path) == FileUse::inUse) {
        Log1("\t SendDetailstoCS :: IsFileIsOpen returned failure for [%s]\n", path);
    }
    std::u16string url = u"/servlets/FileCollector?AGENTKEY=";
    url.append(agentState.gv_agentKey.view()).append(u"&FILENAME=").append(name);
    const platform::Error result =
        InternetUploadBinaryFile(agentState.gv_ServerName, agentState.gv_ServerPort, url, path);
    if (result == platform::error::success) {
        DeleteAcceptedZip(path);
        NoteContact();
        return;
    }
    NoteContactLost();
    Log1("\t SendDetailstoCS :: something went wrong in InternetUploadBinaryFile. return value [%d]\n", result);
}

}  // namespace

std::uint32_t StripTxtFiles(void*) {
    Log3("\t Inside StripTxtFiles() \n");
    Log1("\t StripTxtFiles() - sleeping for 1 minute before starting to send files for the first time only\n");
    platform::Clock().Sleep(firstWaitMilliseconds);
    platform::Files().wmkdir(zipDirectory);
    DeleteUnfinishedZips();
    const std::u16string nameBase = u"zipdata\\Agent_" + std::u16string(agentState.gv_agentKey.view()) + u"_";
    for (;;) {
        const std::int64_t passStart = GetNowSeconds();
        RunGuarded("PackRecordFiles", [&nameBase] { PackRecordFiles(nameBase); });
        RunGuarded("SendZips", SendZips);
        WaitForNextPass(passStart);
    }
}

void PackRecordFiles(std::u16string_view nameBase) {
    Log3("\t Inside PackRecordFiles() \n");
    FileSearch search(recordPattern);
    if (!search.HasFile()) {
        Log1("\t StripTxtFiles -- No txt files exist. Not able to get the File Handle hFirstFile %d \n", search.error);
        return;
    }
    while (search.HasFile()) PackBatch(search, nameBase);
    if (search.error != platform::error::noMoreFiles) {
        Log1("\t StripTxtFiles :: Error in FindNextFiles. Error is [%s]\n", LogSystemError(search.error));
    }
}

void SendDetailstoCS(int zipCount) {
    Log3("\t Inside SendDetailstoCS() \n");
    for (const std::u16string& name : QueuedZips(zipCount)) SendZip(name);
}

}  // namespace kv
