#include "exchange/upload_pipeline.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "collection/record_file.h"
#include "foundation/agent_health.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/guarded.h"
#include "foundation/log.h"
#include "foundation/open_file.h"
#include "foundation/system_error.h"
#include "foundation/text.h"
#include "foundation/time_utils.h"
#include "http/http_transaction.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/messages.h"
#include "zip/zip_writer.h"

namespace kv {

namespace {

constexpr std::u16string_view zipDirectory = u"zipdata";
constexpr std::u16string_view recordPattern = u"data\\*.txt";
constexpr std::u16string_view zipPattern = u"zipdata\\*.zip";
constexpr std::u16string_view unfinishedPattern = u"zipdata\\Agent_*.tmp";

/// Bytes that a zip takes besides its entries: its end, and what the file system rounds up.
constexpr std::uint64_t zipOverhead = 8192;

constexpr std::uint32_t firstWaitMilliseconds = 60000;

/// How often it is checked whether a pass's period is over.
constexpr std::uint32_t periodStepMilliseconds = 5000;

/// How often a record file that is still being written is checked.
constexpr std::uint32_t inUseMilliseconds = 5000;

std::string ZipMessage(ZipResult result) {
    std::array<char, 100> text{};
    FormatZipMessage(result, text.data(), text.size());
    return text.data();
}

/// A zip that is being packed under a name that no upload looks for. It is deleted unless it gets its own name.
struct ZipInProgress {
    std::u16string temporaryPath;
    ZipHandle zip = nullptr;
    std::vector<std::u16string> packed;
    std::vector<std::u16string> lost;  // files that cannot be packed

    explicit ZipInProgress(std::u16string path) : temporaryPath(std::move(path)) {}
    ZipInProgress(const ZipInProgress&) = delete;
    ZipInProgress& operator=(const ZipInProgress&) = delete;
    ~ZipInProgress() {
        if (zip != nullptr) static_cast<void>(CloseZip(zip));  // the file goes, whatever came of it
        if (!temporaryPath.empty()) platform::Files().DeleteFileW(temporaryPath);
    }

    void LogFailure(const char* action, ZipResult result) const {
        Log1("\t StripTxtFiles :: Not able to %s [%s]. Error is [0x%x] [%s]\n", action, temporaryPath, result,
             ZipMessage(result));
    }
};

/// A record file, and how many bytes it adds to a zip at most.
struct RecordFile {
    std::u16string path;
    std::uint64_t zippedSize;
};

/// What a pass leaves in "data": files that cannot be opened, and files that the disk has no room for.
struct LeftBehind {
    int unreadable = 0;
    int files = 0;
    std::uint64_t zippedSize = 0;
};

/// How a batch went. Files that are not done stay where they are.
struct BatchResult {
    std::size_t filesDone = 0;
    bool mayFitSmaller = false;  // the disk did not take the zip, but may take one of fewer files
};

/// Null for what is not a file or cannot be opened. A file that is still being written is waited for when it is packed.
std::optional<RecordFile> ReadableRecord(const platform::FindData& found) {
    if (found.isDirectory) return std::nullopt;
    std::u16string path = u"data\\" + found.fileName;
    OpenFile file;
    std::uint64_t size = 0;
    if (file.Open(path, platform::FileAccess::read, platform::FileShare::readWrite,
                  platform::FileDisposition::openExisting) != platform::error::success ||
        platform::Files().GetFileSizeEx(file.handle, size) != platform::error::success) {
        return std::nullopt;
    }
    const std::uint64_t zippedSize = ZippedSizeAtMost(path, size);
    return RecordFile{std::move(path), zippedSize};
}

/// Bytes that a zip may take; without a bound when the system cannot say.
std::uint64_t RoomForZip() {
    std::uint64_t available = 0;
    const platform::Error error = platform::Files().GetDiskFreeSpaceExW(zipDirectory, available);
    return error == platform::error::success ? available : std::numeric_limits<std::uint64_t>::max();
}

/// Fills a batch from the search, as far as the disk has room for its zip. A file that does not fit behind others waits
/// for the next batch: the files of this one are deleted by then. A file that does not fit even alone is left behind.
void FillBatch(FileSearch& search, std::size_t most, std::vector<RecordFile>& batch, LeftBehind& left) {
    const std::uint64_t room = RoomForZip();
    std::uint64_t needed = zipOverhead;
    for (const RecordFile& file : batch) needed += file.zippedSize;
    for (; batch.size() < most && search.hasFile(); search.Next()) {
        std::optional<RecordFile> file = ReadableRecord(search.file);
        if (!file) {
            ++left.unreadable;
        } else if (needed + file->zippedSize <= room) {
            needed += file->zippedSize;
            batch.push_back(std::move(*file));
        } else if (batch.empty()) {
            ++left.files;
            left.zippedSize += file->zippedSize;
        } else {
            break;
        }
    }
}

/// The path of the next zip, without extension. A number that a zip in the queue still has is skipped: after a crash
/// the numbers are rebuilt from file names, and that goes wrong when the agent key holds "_" or ".".
std::u16string NextZipPath(std::u16string_view nameBase) {
    for (;;) {
        const std::u16string path = ConcatStrings(nameBase, DecimalText(++agentState.gv_ocLastCreatedZIPNum));
        if (!FileSearch(path + u".zip").hasFile()) return path;
        Log1("\t StripTxtFiles :: [%s.zip] has not been sent yet. Taking the next number\n", path);
    }
}

/// False when nothing can be written under the zip's name: the batch would be lost and is not begun.
bool CanBeMade(const ZipInProgress& zip) {
    OpenFile file;
    const platform::Error error = file.Open(zip.temporaryPath, platform::FileAccess::write, platform::FileShare::none,
                                            platform::FileDisposition::createAlways);
    if (error == platform::error::success) return true;
    Log1("\t StripTxtFiles :: [%s] cannot be made. The record files stay until the next pass\n", zip.temporaryPath);
    LogLastSystemError(error);
    platform::Files().wmkdir(zipDirectory);  // it may have been deleted meanwhile
    return false;
}

/// The file cannot be read, or somebody changes it. The next pass may find it well.
bool MayBeWellLater(ZipResult result) {
    return result == zip_result::noFile || result == zip_result::readFailed || result == zip_result::sizeMismatch;
}

/// What came of packing one record file.
enum class PackOutcome {
    fileDone,    // it is in the zip, is gone meanwhile, stays for the next pass, or is lost
    zipIsFull,   // it has to wait for the next zip: this one has no room, or a source failed in its middle
    zipGivenUp,  // what was written of the zip is of no use
};

/// Adds a record file to the zip. A first file for which a zip has no room is lost: no zip could take it, and it would
/// come back in every pass.
PackOutcome PackFile(ZipInProgress& zip, const std::u16string& path) {
    if (fileExists(path) == 0) return PackOutcome::fileDone;
    while (IsFileisOpen(path) == FileUse::inUse) {
        Log1("\t StripTxtFiles :: IsFileisOpen returned failure for [%s]\n", path);
        platform::Clock().Sleep(inUseMilliseconds);
    }
    const ZipResult result = AddFileToZip(zip.zip, path, path);
    if (result == zip_result::ok) {
        zip.packed.push_back(path);
        return PackOutcome::fileDone;
    }
    if (result == zip_result::previousError) return PackOutcome::zipIsFull;
    Log1("\t StripTxtFiles :: Not able to add [%s] to the zip. Error is [0x%x] [%s]\n", path, result,
         ZipMessage(result));
    if (MayBeWellLater(result)) {
        Log1("\t StripTxtFiles :: [%s] cannot be read. It stays until the next pass\n", path);
        NoteFailureOf(
            [&] { return LogText("the record %s cannot be packed, and stays: %s", path, ZipMessage(result)); });
        return PackOutcome::fileDone;
    }
    if (result != zip_result::badArguments) return PackOutcome::zipGivenUp;
    if (!zip.packed.empty()) return PackOutcome::zipIsFull;
    zip.lost.push_back(path);
    return PackOutcome::fileDone;
}

/// Packs files up to the first that the zip does not take; filesDone says how many.
PackOutcome PackFiles(ZipInProgress& zip, std::span<const RecordFile> batch, std::size_t& filesDone) {
    for (filesDone = 0; filesDone < batch.size(); ++filesDone) {
        const PackOutcome outcome = PackFile(zip, batch[filesDone].path);
        if (outcome != PackOutcome::fileDone) return outcome;
    }
    return PackOutcome::fileDone;
}

/// Closes the zip, unless nothing is in it, and gives it its name. False when its files are still to be packed.
bool FinishZip(ZipInProgress& zip, const std::u16string& path) {
    if (zip.packed.empty()) return true;
    const ZipResult result = CloseZip(std::exchange(zip.zip, nullptr));
    if (result != zip_result::ok) {
        zip.LogFailure("close", result);
        return false;
    }
    const platform::Error error =
        platform::Files().MoveFileExW(zip.temporaryPath, path, platform::MoveTarget::mustBeNew);
    if (error == platform::error::success) {
        zip.temporaryPath.clear();
        ++agentHealth.zipsMade;
        return true;
    }
    Log1("\t StripTxtFiles :: Not able to rename [%s] to [%s]\n", zip.temporaryPath, path);
    LogLastSystemError(error);
    return false;
}

/// What cannot be deleted is packed or sent again in each pass: who asks for the last failure is told.
void NoteUndeleted(const std::u16string& path, platform::Error error) {
    if (error == platform::error::fileNotFound) return;
    NoteFailureOf([&] {
        return LogText("%s cannot be deleted, and is taken up again: %s", path, platform::MessageInLine(error));
    });
}

void DeleteDoneFiles(const std::vector<std::u16string>& paths) {
    for (const std::u16string& path : paths) {
        const platform::Error error = platform::Files().DeleteFileW(path);
        if (error == platform::error::success) continue;
        Log1("\t StripTxtFiles :: Error in Deleting [%s]. It will be packed again\n", path);
        LogLastSystemError(error);
        NoteUndeleted(path, error);
    }
}

/// Packs files into one zip.
///
/// The zip is written under a name that is not uploaded and renamed when closed, so that a killed agent leaves no half
/// zip in the queue. The sources are deleted only once the zip is closed, on the disk and renamed, so that a killed
/// agent loses no record. A source that no zip can take is deleted, too: it would come back in every pass. When the zip
/// or the disk is at fault, all stay; so does a source that cannot be read.
BatchResult PackBatch(std::span<const RecordFile> batch, std::u16string_view nameBase) {
    const std::u16string path = NextZipPath(nameBase);
    // Before there is a zip of this number, or one of these records is deleted: so no later run can give their names to
    // other content. While they cannot be stored, nothing goes out.
    if (const platform::Error failure = StoreLastFileNum()) {
        Log1("\t StripTxtFiles :: The record files stay until their numbers can be stored\n");
        NoteFailureOf([&] {
            return LogText("no record is packed, because the last used numbers cannot be stored in the registry: %s",
                           platform::MessageInLine(failure));
        });
        return {};
    }
    ZipInProgress zip(path + u".tmp");
    if (!CanBeMade(zip)) return {};
    zip.zip = CreateZip(zip.temporaryPath, nullptr);
    if (zip.zip == nullptr) {
        zip.LogFailure("create", LastZipWriterResult());
        Log1("\t StripTxtFiles :: The record files stay until the next pass\n");
        return {};
    }
    std::size_t filesDone = 0;
    if (PackFiles(zip, batch, filesDone) == PackOutcome::zipGivenUp || !FinishZip(zip, path + u".zip")) {
        Log1("\t StripTxtFiles :: [%s] is given up. Its record files stay\n", zip.temporaryPath);
        return {.mayFitSmaller = true};
    }
    for (const std::u16string& lost : zip.lost) {
        NoteUnpackedRecord(lost);
        Log1("\t StripTxtFiles :: [%s] is lost\n", lost);
    }
    DeleteDoneFiles(zip.lost);
    DeleteDoneFiles(zip.packed);
    return {.filesDone = filesDone};
}

/// Deletes what a killed run was packing; its records are all in "data" still.
void DeleteUnfinishedZips() {
    for (FileSearch search(unfinishedPattern); search.hasFile(); search.Next()) {
        const std::u16string path = u"zipdata\\" + search.file.fileName;
        if (const platform::Error failure = platform::Files().DeleteFileW(path))
            Log1("\t StripTxtFiles :: Unfinished zip [%s] of an earlier run stays. Error is [%d]\n", path, failure);
        else
            Log1("\t StripTxtFiles :: Unfinished zip [%s] of an earlier run is deleted\n", path);
    }
}

/// The period runs from the start of the pass. A clock that was set back makes the wait longer, up to one whole period,
/// because the waiting is counted, too.
void WaitForNextPass(std::int64_t passStart) {
    const std::int64_t period = agentState.gv_writeInterval;
    std::int64_t now = 0;
    std::int64_t waited = 0;
    do {
        now = GetNowSeconds();
        platform::Clock().Sleep(periodStepMilliseconds);
        waited += periodStepMilliseconds / 1000;
    } while (now - passStart < period && waited <= period);
}

/// Names of all zips in the queue, in the order of the search.
std::vector<std::u16string> QueuedZips(int zipCount) {
    std::vector<std::u16string> names;
    FileSearch search(zipPattern);
    if (!search.hasFile()) {
        Log1("\t SendDetailstoCS :: No zip file exists. Not able to get the File Handle hFirstFile %u \n",
             search.error);
        return names;
    }
    names.reserve(static_cast<std::size_t>(zipCount) + 2);
    for (; search.hasFile(); search.Next()) names.push_back(search.file.fileName);
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
        NoteUndeleted(path, error);
    } else {
        Log1("\t SendDetailstoCS :: ZipFileName :: [%s] is deleted [%d]\n", path, deleted);
    }
}

void ResumeCollection() {
    agentState.gv_CSContactLostTime = 0;
    agentState.gv_collectData = 1;
    NoteCollectionResumed();
}

/// Contact counts as found again only if collection was stopped. Otherwise the time of the first failed upload stays,
/// however many uploads are accepted.
void NoteAcceptedZip(const std::u16string& accepted) {
    agentState.gv_failedZips.erase(accepted);
    for (auto& [name, otherWasAccepted] : agentState.gv_failedZips) otherWasAccepted = true;
    if (agentState.gv_collectData != 0) return;
    Log1("Setting gvCSContactLostTime to 0 and setting gv_collectData as connection established\n");
    ResumeCollection();
}

/// An accepted upload brings stopped collection back, and that takes a zip that may be accepted. When none is left, or
/// only such as failed while others were accepted, it would never come back.
void CollectAgainWithoutUpload() {
    std::erase_if(agentState.gv_failedZips, [](const auto& zip) { return !MayExist(u"zipdata\\" + zip.first); });
    for (const auto& [name, otherWasAccepted] : agentState.gv_failedZips)
        if (!otherWasAccepted) return;
    Log1("\t StripTxtFiles :: Collection goes on: no zip waits that could tell of a connection\n");
    ResumeCollection();
}

/// Setting the clock does not make an outage longer or shorter: the time of its first failure is moved along.
void FollowClock(std::int64_t now) {
    constexpr std::int64_t leastStep = 60;  // seconds; a clock that is merely kept right moves less
    const std::int64_t lead = now - static_cast<std::int64_t>(platform::Clock().GetTickCount64() / 1000);
    const std::int64_t step = lead - std::exchange(agentState.gv_clockLead, lead);
    if (agentState.gv_CSContactLostTime == 0 || std::abs(step) < leastStep) return;
    agentState.gv_CSContactLostTime += step;
    Log1("The clock was set by %ld sec. gv_CSContactLostTime goes along\n", step);
}

void NoteContactLost() {
    const std::int64_t now = GetNowSeconds();
    FollowClock(now);
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
        NoteCollectionStopped();
    }
}

void SendZip(const std::u16string& name, bool& acceptedInPass) {
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
        NoteAcceptedZip(name);
        acceptedInPass = true;
        return;
    }
    agentState.gv_failedZips.try_emplace(name, acceptedInPass);
    NoteContactLost();
    Log1("\t SendDetailstoCS :: something went wrong in InternetUploadBinaryFile. return value [%d]\n", result);
}

void SendZips() {
    const int zipCount = GetZipFileCount(u"zipdata\\*");
    const bool wasStopped = agentState.gv_collectData == 0;
    if (zipCount == 0)
        Log1("\t StripTxtFiles :: zipcnt value is [%d], Time Stamp is [%s]\n", zipCount, GetTimeString(1));
    else
        SendDetailstoCS(zipCount);
    if (wasStopped && agentState.gv_collectData == 0) CollectAgainWithoutUpload();
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
    if (!search.hasFile()) {
        Log1("\t StripTxtFiles -- No txt files exist. Not able to get the File Handle hFirstFile %d \n", search.error);
        return;
    }
    std::vector<RecordFile> batch;
    LeftBehind left;
    std::size_t most = maxFilesInZip;
    while (most > 0) {
        FillBatch(search, most, batch, left);
        if (batch.empty()) break;
        const std::size_t size = std::min(most, batch.size());
        const BatchResult result = PackBatch(std::span(batch).first(size), nameBase);
        batch.erase(batch.begin(), batch.begin() + static_cast<std::ptrdiff_t>(result.filesDone));
        if (result.filesDone == 0) most = result.mayFitSmaller ? size / 2 : 0;
    }
    if (left.unreadable > 0) {
        Log1("\t StripTxtFiles :: [%d] of the files found in data cannot be read. They stay\n", left.unreadable);
    }
    if (left.files > 0) {
        HasRoomFor(zipDirectory, left.zippedSize + zipOverhead, DecimalText(left.files) + u" record files",
                   "They stay in data until there is room");
    }
    if (!search.hasFile() && search.error != platform::error::noMoreFiles) {
        Log1("\t StripTxtFiles :: Error in FindNextFiles. Error is [%s]\n", LogSystemError(search.error));
    }
}

void SendDetailstoCS(int zipCount) {
    Log3("\t Inside SendDetailstoCS() \n");
    bool acceptedInPass = false;
    for (const std::u16string& name : QueuedZips(zipCount)) SendZip(name, acceptedInPass);
}

}  // namespace kv
