#include "collection/record_file.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "foundation/agent_health.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/log.h"
#include "foundation/open_file.h"
#include "foundation/registry_store.h"
#include "foundation/resource_lock.h"
#include "foundation/system_error.h"
#include "foundation/text.h"
#include "foundation/time_utils.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/messages.h"

namespace kv {

namespace {

/// The files, not directories, that match a pattern; how the search began and how it ended.
struct MatchingFiles {
    std::vector<std::u16string> names;
    platform::Error firstError = platform::error::success;
    platform::Error lastError = platform::error::noMoreFiles;
};

MatchingFiles FindFiles(std::u16string_view pattern) {
    MatchingFiles result;
    FileSearch search(pattern);
    result.firstError = search.error;
    for (; search.hasFile(); search.Next()) {
        if (!search.file.isDirectory) result.names.push_back(search.file.fileName);
    }
    result.lastError = search.error;
    return result;
}

/// The part at a position, counted from 0, of a name split at "_" and "."; empty when it has fewer parts.
std::u16string_view NamePart(std::u16string_view name, int position) {
    constexpr std::u16string_view separators = u"_.";
    std::size_t start = name.find_first_not_of(separators);
    for (; position > 0 && start != name.npos; --position) {
        start = name.find_first_not_of(separators, name.find_first_of(separators, start));
    }
    if (start == name.npos) return {};
    return name.substr(start, name.find_first_of(separators, start) - start);
}

/// The number that a text begins with, 0 when it begins with something else, and the greatest of 32 bits when it is
/// beyond them.
std::uint32_t LeadingNumber(std::u16string_view text) {
    constexpr std::uint64_t greatest = std::numeric_limits<std::uint32_t>::max();
    std::uint64_t number = 0;
    for (const char16_t digit : text) {
        if (digit < u'0' || digit > u'9') break;
        number = number * 10 + static_cast<std::uint64_t>(digit - u'0');
        if (number >= greatest) return std::numeric_limits<std::uint32_t>::max();
    }
    return static_cast<std::uint32_t>(number);
}

/// The highest number among this agent's own files in a directory, whatever characters its key holds.
std::uint32_t HighestOwnNumber(std::u16string_view directory, std::u16string_view extension) {
    const std::u16string start = ConcatStrings(u"Agent_", agentState.gv_agentKey.view()) + u"_";
    const std::u16string pattern = std::u16string(directory).append(u"\\").append(start).append(u"*").append(extension);
    std::uint32_t highest = 0;
    for (const std::u16string& name : FindFiles(pattern).names) {
        const std::uint32_t number = LeadingNumber(std::u16string_view(name).substr(start.size()));
        if (number != std::numeric_limits<std::uint32_t>::max()) highest = std::max(highest, number);
    }
    return highest;
}

/// Raises a last used number to the highest on the disk, and then stores it. Numbers are never lowered.
void RaiseToFilesOnDisk(std::u16string_view directory, std::u16string_view extension,
                        std::atomic<std::uint32_t>& lastNumber, platform::Error (*store)(std::uint32_t)) {
    const std::u16string pattern = std::u16string(directory).append(u"\\*").append(extension);
    const std::uint32_t highest = std::max(parseFiles(pattern), HighestOwnNumber(directory, extension));
    if (highest == 0 || highest <= lastNumber) return;
    lastNumber = highest;
    store(highest);
}

/// A stored number. While it cannot be read, any name may have been used already, and nothing is collected.
std::uint32_t ReadNumber(const char* name, platform::Error (*read)(std::uint32_t&)) {
    constexpr std::uint32_t pause = 60000;  // milliseconds
    std::uint32_t number = 1;
    while (const platform::Error failure = read(number)) {
        Log1("\t VerifyLastFileNum :: %s cannot be read, and is asked for again in %d seconds. Error is [%d]\n", name,
             pause / 1000, failure);
        NoteObstacle("the last used numbers of records and zips cannot be read from the registry");
        platform::Clock().Sleep(pause);
    }
    return number;
}

platform::Error StoreNumber(const char* name, std::uint32_t number, platform::Error (*store)(std::uint32_t)) {
    // Before VerifyLastFileNum, the last step of enrolling, has begun, the number is 0 and not worth storing.
    if (number == 0) return platform::error::success;
    const platform::Error failure = store(number);
    if (failure != platform::error::success)
        Log1("\t StoreLastFileNum :: %s %u cannot be stored. Error is [%d]\n", name, number, failure);
    return failure;
}

/// A record that was lost and has not been written since.
struct Loss {
    platform::Error reason = platform::error::success;
    std::int64_t beginning = 0, last = 0;  // seconds since 1970
    std::uint64_t number = 0;
};

/// As many as the records of 10,000 workflows, two in each. The one lost longest ago makes room for another: its record
/// may have gone with its plan.
constexpr std::size_t mostLosses = 20'000;

struct {
    std::mutex lock;
    std::map<std::size_t, Loss> byRecord;  // the hash of its identity
} losses;

std::size_t HashOf(const RecordIdentity& record) {
    const std::hash<std::u16string_view> hash;
    return hash(record.name) * 31 + hash(record.source);
}

void MakeRoomForLoss() {
    if (losses.byRecord.size() < mostLosses) return;
    losses.byRecord.erase(std::min_element(losses.byRecord.begin(), losses.byRecord.end(),
                                           [](auto& a, auto& b) { return a.second.last < b.second.last; }));
}

/// Counts a loss; true when it is the first of the record, or for another reason than the one before.
bool IsNewLoss(const RecordIdentity& record, platform::Error reason) {
    const std::size_t hash = HashOf(record);
    const std::lock_guard hold(losses.lock);
    if (!losses.byRecord.contains(hash)) MakeRoomForLoss();
    Loss& loss = losses.byRecord[hash];
    loss.last = GetNowSeconds();
    if (loss.number++ == 0) loss.beginning = loss.last;
    return std::exchange(loss.reason, reason) != reason;
}

/// Takes what is known of the losses of a record that is written again.
std::optional<Loss> TakeLoss(const RecordIdentity& record) {
    const std::lock_guard hold(losses.lock);
    const auto found = losses.byRecord.find(HashOf(record));
    if (found == losses.byRecord.end()) return std::nullopt;
    const Loss loss = found->second;
    losses.byRecord.erase(found);
    return loss;
}

void TellEndOfLoss(const char* caller, const RecordIdentity& record) {
    const std::optional<Loss> loss = TakeLoss(record);
    if (!loss) return;
    Log1("\t %s :: the record %s is written again. %llu of it were lost in the last %lld seconds: %s (error %d) \n",
         caller, record.name, loss->number, GetNowSeconds() - loss->beginning, platform::MessageInLine(loss->reason),
         loss->reason);
}

bool TellLoss(const char* caller, const RecordIdentity& record, std::u16string_view path, platform::Error reason) {
    const std::string words = platform::MessageInLine(reason);  // may throw, before the loss counts as told
    if (!IsNewLoss(record, reason)) return false;
    Log1(
        "\t %s :: %s cannot be written, its record is lost: %s, %s (error %d). It has no further line until it is "
        "written again \n",
        caller, path, record.name, words, reason);
    return true;
}

/// The folder of the RecordDetour that lives; empty without one.
std::u16string detour;

}  // namespace

RecordDetour::RecordDetour(std::u16string_view folder) { detour = folder; }
RecordDetour::~RecordDetour() { detour.clear(); }

std::u16string PrepareDataDirectory(const char* caller) {
    Log4("\t@@@@@ Inside PrepareDataDirectory() @@@@@ \n");
    if (!detour.empty() && !agentState.gv_ocAgentBinPath) return detour;
    const platform::FileOperations& files = platform::Files();
    if (const int error = files.wchdir(agentState.gv_ocAgentBinPath.value_or(u"")); error != 0) {
        Log1("\n %s :: Unable to switch to data folder errorno- %d", caller, error);
    }
    if (!detour.empty()) return detour;
    std::u16string directory;
    if (const int error = files.wgetcwd(directory); error != 0) {
        Log1("\n %s :: Unable to get cwd errorno- %d", caller, error);
        directory = u".";
    }
    directory += u"\\data";
    if (const int error = files.wmkdir(directory); error != 0 && error != platform::directory_error::exists) {
        Log1("\n %s :: Unable to create data folder errorno- %d", caller, error);
    }
    return directory;
}

std::u16string NextRecordPath(std::u16string_view dataDirectory) {
    Log4("\t@@@@@ Inside NextRecordPath() @@@@@ \n");
    const std::u16string base = std::u16string(dataDirectory).append(u"\\Agent_").append(agentState.gv_agentKey.view());
    const ResourceLock lock(&agentState.gv_ocLastCreatedJSONNum);
    std::u16string path;
    do {
        path = base + u"_" + DecimalText(++agentState.gv_ocLastCreatedJSONNum);
    } while (FileSearch(path + u".txt").hasFile() || FileSearch(path + u".out").hasFile());
    return path;
}

bool TellRecordOutcome(const char* caller, const RecordIdentity& record, std::u16string_view path,
                       platform::Error outcome) noexcept {
    const bool isWritten = outcome == platform::error::success;
    if (isWritten)
        ++agentHealth.recordsWritten;
    else
        NoteLostRecord(record.name, path, outcome);
    try {
        if (!isWritten) return TellLoss(caller, record, path, outcome);
        TellEndOfLoss(caller, record);
    } catch (...) {
        // To tell of a record must not undo it.
    }
    return false;
}

std::optional<std::u16string> WriteRecordFile(std::u16string_view dataDirectory, const RecordIdentity& record,
                                              std::u16string_view json) {
    Log3("\t Inside WriteRecordFile() \n");
    const std::u16string path = NextRecordPath(dataDirectory);
    std::u16string file = path + u".txt";
    const platform::Error error = WriteCompleteFile(file, path + u".tmp", Utf16LittleEndianBytes(json));
    TellRecordOutcome("WriteRecordFile", record, file, error);
    if (error == platform::error::success) return file;
    Log3("\t file pointer is NULL\n");
    return std::nullopt;
}

void VerifyLastFileNum() {
    Log3("\t Inside VerifyLastFileNum() \n");
    std::uint32_t number = ReadNumber("MALastCreatedJSONNum", GetMALastCreatedJSONNum);
    agentState.gv_ocLastCreatedJSONNum = number;
    Log1("\t VerifyLastFileNum :: Last created JSON Number is [%d]\n", number);
    number = ReadNumber("MALastCreatedZIPNum", GetMALastCreatedZIPNum);
    agentState.gv_ocLastCreatedZIPNum = number;
    Log1("\t VerifyLastFileNum :: Last created ZIP Number [%d]\n", number);
    RaiseToFilesOnDisk(u"data", u".txt", agentState.gv_ocLastCreatedJSONNum, SetMALastCreatedJSONNum);
    RaiseToFilesOnDisk(u"zipdata", u".zip", agentState.gv_ocLastCreatedZIPNum, SetMALastCreatedZIPNum);
}

platform::Error StoreLastFileNum() {
    Log3("\t Inside StoreLastFileNum() \n");
    // A stop stores them beside the upload thread: nobody may store an older number over a newer one.
    const ResourceLock lock(&agentState.gv_ocLastCreatedZIPNum);
    const platform::Error ofRecords =
        StoreNumber("MALastCreatedJSONNum", agentState.gv_ocLastCreatedJSONNum, SetMALastCreatedJSONNum);
    const platform::Error ofZips =
        StoreNumber("MALastCreatedZIPNum", agentState.gv_ocLastCreatedZIPNum, SetMALastCreatedZIPNum);
    return ofRecords != platform::error::success ? ofRecords : ofZips;
}

std::uint32_t parseFiles(std::u16string_view pattern) {
    Log3("\t Inside parseFiles() \n");
    const MatchingFiles found = FindFiles(pattern);
    if (found.firstError != platform::error::success) {
        Log1("\t  parseFiles -- %s - No files exist. Not able to get the File Handle hFirstFile %d \n", pattern,
             found.firstError);
        return 0;
    }
    std::uint32_t highest = 0;
    for (const std::u16string& name : found.names) {
        const std::uint32_t number = LeadingNumber(NamePart(name, 2));
        if (number == std::numeric_limits<std::uint32_t>::max()) {
            Log1("\t parseFiles :: the number of %s leaves no room for a next one; it is skipped \n", name);
        } else if (number > highest) {
            highest = number;
        }
    }
    if (found.lastError != platform::error::noMoreFiles) {
        Log1("\t parseFiles :: Error in FindNextFiles. Error is [%s]\n", LogSystemError(found.lastError));
    }
    return highest;
}

void RemoveUnfinishedRecordFiles() {
    Log3("\t Inside RemoveUnfinishedRecordFiles() \n");
    for (const std::u16string_view pattern : {u"data\\*.tmp", u"data\\*.out"}) {
        for (const std::u16string& name : FindFiles(pattern).names) {
            Log1("\t RemoveUnfinishedRecordFiles :: %s was left unfinished by an earlier run and is deleted \n", name);
            const platform::Error error = platform::Files().DeleteFileW(u"data\\" + name);
            if (error != platform::error::success) LogLastSystemError(error);
        }
    }
}

}  // namespace kv
