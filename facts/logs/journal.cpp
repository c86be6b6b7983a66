#include "facts/logs/journal.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <memory>
#include <string_view>
#include <sys/resource.h>
#include <system_error>
#include <systemd/sd-journal.h>
#include <utility>

#include "facts/mapped_reads.h"
#include "facts/system_text.h"
#include "platform/owned_handle.h"

namespace kv::facts {

namespace {

namespace fs = std::filesystem;
using OwnedJournal = platform::OwnedHandle<sd_journal*, sd_journal_close>;

/// One file of the journal, and the entry at which its reading stands.
struct JournalFile {
    std::string path;
    OwnedJournal journal;
    bool hasEntries = false;
    bool isByTime = true;        // the times of its entries rise, as far as the selection needs it
    std::uint64_t lowest = 0;    // whole number below which no entry is selected
    std::uint64_t sequence = 0;  // the whole number
    std::int64_t written = 0;
};

/// Adds a failure, a negative error number, of a file to the report.
void AddLoss(JournalReading& reading, const std::string& path, int failure) {
    if (failure == -EACCES || failure == -EPERM) {
        ++reading.denied;
    } else if (reading.failures++ == 0) {
        reading.firstFailure = fmt::format("{}: {}", path, std::generic_category().message(-failure));
    }
}

bool HasEntries(sd_journal* journal) {
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    return sd_journal_get_cutoff_realtime_usec(journal, &first, &last) > 0;
}

int OpenFile(JournalFile& file) {
    std::array<const char*, 2> paths{file.path.c_str(), nullptr};
    const int result = sd_journal_open_files(&file.journal.Place(), paths.data(), 0);
    if (result < 0) return result;
    file.hasEntries = HasEntries(file.journal.get());
    return sd_journal_set_data_threshold(file.journal.get(), maxJournalField);
}

/// sd_journal_previous or sd_journal_next. Where a file is damaged these end without a failure, but then tell no more
/// of the file.
int Step(JournalFile& file, int (*step)(sd_journal*)) {
    const int result = step(file.journal.get());
    return result == 0 && file.hasEntries && !HasEntries(file.journal.get()) ? -EBADMSG : result;
}

int AddMatches(sd_journal* journal, const std::vector<JournalMatches>& alternatives) {
    int result = 0;
    for (const JournalMatches& matches : alternatives) {
        if (result >= 0) result = sd_journal_add_disjunction(journal);
        for (const std::string& match : matches) {
            if (result >= 0) result = sd_journal_add_match(journal, match.data(), match.size());
        }
    }
    return result;
}

/// The text between a mark and the next semicolon of an entry's cursor, which sd-journal gives in place of the number.
std::string_view CursorPart(std::string_view cursor, std::string_view mark) {
    const std::size_t at = cursor.find(mark);
    if (at == std::string_view::npos) return {};
    const std::string_view part = cursor.substr(at + mark.size());
    return part.substr(0, part.find(';'));
}

/// Reads number and time of the entry at which the file stands; sequenceId gets the name of its sequence.
int ReadPlace(JournalFile& file, std::string* sequenceId = nullptr) {
    char* text = nullptr;
    int result = sd_journal_get_cursor(file.journal.get(), &text);
    if (result < 0) return result;
    const std::unique_ptr<char, platform::ReleasedBy<std::free>> cursor(text);
    const std::optional<std::uint64_t> sequence = HexNumberOf(CursorPart(text, ";i="));
    if (!sequence) return -EBADMSG;
    file.sequence = *sequence;
    if (sequenceId != nullptr) *sequenceId = CursorPart(text, "s=");
    std::uint64_t written = 0;
    result = sd_journal_get_realtime_usec(file.journal.get(), &written);
    file.written = static_cast<std::int64_t>(written);
    return result;
}

/// The names of the boots whose entries the file has, as matches. Absent if they cannot be told.
std::optional<std::vector<std::string>> NamesOfBoots(sd_journal* journal) {
    constexpr std::size_t matchSize = std::string_view("_BOOT_ID=").size() + 32;
    constexpr std::size_t mostBoots = 4096;  // a damaged file may lead in a circle
    int result = sd_journal_query_unique(journal, "_BOOT_ID");
    std::vector<std::string> boots;
    const void* data = nullptr;
    std::size_t size = 0;
    while (result >= 0 && (result = sd_journal_enumerate_available_unique(journal, &data, &size)) > 0) {
        if (size != matchSize || boots.size() == mostBoots) return std::nullopt;
        boots.emplace_back(static_cast<const char*>(data), size);
    }
    return result < 0 ? std::nullopt : std::optional(std::move(boots));
}

struct Place {
    std::uint64_t sequence = 0;
    std::int64_t written = 0;
};

/// From the first to the last entry of a boot.
using Boot = std::pair<Place, Place>;

/// The boots in the file by their numbers. Absent if they cannot be told.
std::optional<std::vector<Boot>> BootsIn(JournalFile& file) {
    sd_journal* journal = file.journal.get();
    const std::optional<std::vector<std::string>> names = NamesOfBoots(journal);
    if (!names) return std::nullopt;
    std::vector<Boot> boots;
    for (const std::string& name : *names) {
        sd_journal_flush_matches(journal);
        int result = sd_journal_add_match(journal, name.data(), name.size());
        if (result >= 0) result = sd_journal_seek_head(journal);
        if (result >= 0) result = Step(file, sd_journal_next);
        if (result > 0) result = ReadPlace(file);
        const Place first{file.sequence, file.written};
        if (result >= 0) result = sd_journal_seek_tail(journal);
        if (result >= 0) result = Step(file, sd_journal_previous);
        if (result > 0) result = ReadPlace(file);
        if (result < 0) return std::nullopt;
        boots.push_back({first, {file.sequence, file.written}});
    }
    std::ranges::sort(boots, {}, [](const Boot& boot) { return boot.first.sequence; });
    return boots;
}

/// Finds out whether times rise with numbers from boot to boot, and if not, where the selection begins. A computer
/// without a clock of its own starts again somewhere in the past and goes on in the same file.
void LookAtBoots(JournalFile& file, const JournalSelection& selection) {
    const std::optional<std::vector<Boot>> boots = BootsIn(file);
    file.isByTime = boots.has_value();
    if (!boots) return;
    std::int64_t latest = 0;
    std::uint64_t lowest = std::numeric_limits<std::uint64_t>::max();
    for (const auto& [first, last] : *boots) {
        file.isByTime = file.isByTime && latest <= first.written && first.written <= last.written;
        latest = last.written;
        if (last.written >= selection.earliest && first.written <= selection.latest)
            lowest = std::min(lowest, first.sequence);
    }
    if (!file.isByTime) file.lowest = lowest;
}

/// Whether the selection's limit has passed. The reading then says so.
bool IsOverdue(const JournalSelection& selection, JournalReading& reading) {
    reading.isOverdue = std::chrono::steady_clock::now() > selection.limit;
    return reading.isOverdue;
}

constexpr std::uint64_t entriesBetweenLooksAtTheClock = 1024;

/// Goes to the next older entry of the selection: 1, 0 after the oldest or when the limit has passed, or a failure.
int StepBack(JournalFile& file, const JournalSelection& selection, JournalReading& reading) {
    for (std::uint64_t steps = 1;; ++steps) {
        int result = Step(file, sd_journal_previous);
        if (result <= 0) return result;
        result = ReadPlace(file);
        if (result < 0) return result;
        const bool isEarlier = file.written < selection.earliest;
        if (file.sequence < file.lowest || (isEarlier && file.isByTime)) return 0;
        if (!isEarlier && file.written <= selection.latest) return 1;
        if (steps % entriesBetweenLooksAtTheClock == 0 && IsOverdue(selection, reading)) return 0;
    }
}

/// Goes to the newest entry of the selection. Results as StepBack.
int StartAtNewest(JournalFile& file, const JournalSelection& selection, JournalReading& reading) {
    const bool hasTimes = selection.earliest > 0 || selection.latest < std::numeric_limits<std::int64_t>::max();
    if (hasTimes) LookAtBoots(file, selection);
    sd_journal* journal = file.journal.get();
    sd_journal_flush_matches(journal);
    std::string sequenceId;
    int result = sd_journal_seek_tail(journal);
    if (result >= 0) result = Step(file, sd_journal_previous);
    if (result <= 0) return result;
    result = ReadPlace(file, &sequenceId);
    if (result < 0) return result;
    const std::uint64_t round = file.sequence >> 32 << 32;  // upper 32 bits of the numbers that are meant
    file.lowest = std::max(file.lowest, round + selection.lowestNumber);
    const std::uint64_t highest = round + selection.highestNumber;
    result = AddMatches(journal, selection.alternatives);
    if (result < 0) return result;
    if (file.sequence > highest) {
        result = sd_journal_seek_cursor(journal, fmt::format("s={};i={:x}", sequenceId, highest).c_str());
    } else if (file.isByTime && file.written > selection.latest) {
        result = sd_journal_seek_realtime_usec(journal, static_cast<std::uint64_t>(selection.latest));
    } else {
        result = sd_journal_seek_tail(journal);
    }
    return result < 0 ? result : StepBack(file, selection, reading);
}

/// The number, if it is written as the matches for it are: 3, not 003.
std::optional<std::uint64_t> CodeOf(std::string_view text) {
    return text.size() > 1 && text.front() == '0' ? std::nullopt : NumberOf(text);
}

void AddField(JournalEntry& entry, std::string_view field) {
    static constexpr std::pair<std::string_view, std::string JournalEntry::*> texts[] = {
        {"SYSLOG_IDENTIFIER", &JournalEntry::identifier},
        {"_COMM", &JournalEntry::command},
        {"MESSAGE", &JournalEntry::message},
        {"MESSAGE_ID", &JournalEntry::messageId},
        {"_UID", &JournalEntry::userId},
        {"_HOSTNAME", &JournalEntry::hostName},
    };
    const std::size_t end = field.find('=');
    if (end == std::string_view::npos) return;
    const std::string_view name = field.substr(0, end);
    const std::string_view value = field.substr(end + 1, maxJournalField);
    for (const auto& [wanted, member] : texts) {
        if (name == wanted && (entry.*member).empty()) entry.*member = value;
    }
    if (name == "PRIORITY") entry.priority = CodeOf(value);
    if (name == "SYSLOG_FACILITY") entry.facility = CodeOf(value);
    if (name != "_SOURCE_REALTIME_TIMESTAMP") return;
    const std::optional<std::uint64_t> moment = NumberOf(value);
    if (moment && std::in_range<std::int64_t>(*moment)) entry.generated = static_cast<std::int64_t>(*moment);
}

int ReadEntry(JournalFile& file, JournalEntry& entry) {
    entry = {};
    entry.number = static_cast<std::uint32_t>(file.sequence);
    entry.written = file.written;
    sd_journal_restart_data(file.journal.get());
    const void* data = nullptr;
    std::size_t size = 0;
    int result = 0;
    while ((result = sd_journal_enumerate_available_data(file.journal.get(), &data, &size)) > 0) {
        AddField(entry, {static_cast<const char*>(data), size});
    }
    return result;
}

/// The result of a step in a file; a failure if pages of the file could not be read meanwhile.
int Checked(MappedReads& reads, int result) { return reads.takeDamage() ? -EIO : result; }

std::size_t MostOpenFiles() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur / 4 >= maxJournalFiles) return maxJournalFiles;
    return std::max<std::size_t>(1, limit.rlim_cur / 4);
}

/// The files that have entries of the selection, each at its newest.
std::vector<JournalFile> OpenSelected(const std::vector<std::string>& paths, const JournalSelection& selection,
                                      MappedReads& reads, JournalReading& reading) {
    const std::size_t most = MostOpenFiles();
    std::vector<JournalFile> files;
    for (const std::string& path : paths) {
        if (IsOverdue(selection, reading)) break;
        if (files.size() == most) {
            ++reading.leftOut;
            continue;
        }
        JournalFile file{.path = path, .journal = {}};
        int result = OpenFile(file);
        if (result >= 0) result = StartAtNewest(file, selection, reading);
        result = Checked(reads, result);
        if (result < 0) {
            AddLoss(reading, path, result);
            continue;
        }
        ++reading.read;
        if (result > 0) files.push_back(std::move(file));
    }
    return files;
}

bool IsOlder(const JournalFile& left, const JournalFile& right) {
    return std::pair(left.written, left.sequence) < std::pair(right.written, right.sequence);
}

/// Hands over the entries of all files. An entry that two files hold, as while the journal moves to its lasting folder,
/// comes once.
void MergeFiles(std::vector<JournalFile>& files, const JournalSelection& selection,
                const std::function<bool(const JournalEntry& entry)>& take, MappedReads& reads,
                JournalReading& reading) {
    JournalEntry entry;
    bool isFirst = true;
    while (!files.empty() && !IsOverdue(selection, reading)) {
        const auto newest = std::max_element(files.begin(), files.end(), IsOlder);
        const bool isRepeated = !isFirst && entry.written == newest->written &&
                                entry.number == static_cast<std::uint32_t>(newest->sequence);
        int result = isRepeated ? 0 : Checked(reads, ReadEntry(*newest, entry));
        if (result < 0) {
            AddLoss(reading, newest->path, result);
        } else if (!isRepeated) {
            isFirst = false;
            if (!take(entry)) return;
        }
        if (result != -EIO) result = Checked(reads, StepBack(*newest, selection, reading));
        if (result < 0) AddLoss(reading, newest->path, result);
        if (result <= 0) files.erase(newest);
    }
}

/// Counts of entries by the first entry of a file, because copies of a file count once.
using CountsByStart = std::map<std::string, std::uint64_t>;

/// Counts the matching entries of a file. False when they are not known.
bool CountInFile(const std::string& path, const std::vector<JournalMatches>& alternatives,
                 std::chrono::steady_clock::time_point limit, MappedReads& reads, CountsByStart& counts) {
    JournalFile file{.path = path, .journal = {}};
    int result = OpenFile(file);
    if (result >= 0) result = AddMatches(file.journal.get(), alternatives);
    if (result >= 0) result = sd_journal_seek_head(file.journal.get());
    std::uint64_t count = 0;
    std::string sequenceId;
    while (result >= 0 && (result = Step(file, sd_journal_next)) > 0) {
        if (count == 0) result = ReadPlace(file, &sequenceId);
        if (count++ % entriesBetweenLooksAtTheClock == 0 && std::chrono::steady_clock::now() > limit) return false;
    }
    std::uint64_t& known = counts[fmt::format("{} {}", sequenceId, file.sequence)];
    known = std::max(known, count);
    return Checked(reads, result) >= 0;
}

}  // namespace

std::vector<std::string> JournalFolders() {
    sd_id128_t id{};
    // The library would wait for a pipe.
    if (!platform::OpenOrdinaryFile("/etc/machine-id") || sd_id128_get_machine(&id) < 0) return {};
    std::array<char, SD_ID128_STRING_MAX> text{};
    sd_id128_to_string(id, text.data());
    return {fmt::format("/var/log/journal/{}", text.data()), fmt::format("/run/log/journal/{}", text.data())};
}

std::vector<std::string> FindJournalFiles(const std::vector<std::string>& folders, JournalReading& reading) {
    std::vector<std::pair<fs::file_time_type, std::string>> found;
    for (const std::string& folder : folders) {
        std::error_code failure;
        for (fs::directory_iterator at(folder, failure), end; !failure && at != end; at.increment(failure)) {
            const std::string path = at->path().string();
            std::error_code gone;
            const fs::file_time_type time = at->last_write_time(gone);
            if (path.ends_with(".journal") || path.ends_with(".journal~")) found.emplace_back(time, path);
        }
        if (failure && failure != std::errc::no_such_file_or_directory) AddLoss(reading, folder, -failure.value());
    }
    std::sort(found.begin(), found.end(), std::greater<>());
    std::vector<std::string> paths;
    paths.reserve(found.size());
    for (auto& [time, path] : found) paths.push_back(std::move(path));
    return paths;
}

JournalReading ReadJournal(const std::vector<std::string>& folders, const JournalSelection& selection,
                           const std::function<bool(const JournalEntry& entry)>& take) {
    JournalReading reading;
    const std::vector<std::string> paths = FindJournalFiles(folders, reading);
    reading.files = paths.size();
    MappedReads reads;
    std::vector<JournalFile> files = OpenSelected(paths, selection, reads, reading);
    MergeFiles(files, selection, take, reads, reading);
    return reading;
}

std::optional<std::uint64_t> CountJournalEntries(const std::vector<std::string>& folders,
                                                 const std::vector<JournalMatches>& alternatives,
                                                 std::chrono::steady_clock::time_point limit) {
    CountsByStart counts;
    JournalReading reading;
    MappedReads reads;
    for (const std::string& path : FindJournalFiles(folders, reading)) {
        if (!CountInFile(path, alternatives, limit, reads, counts)) return std::nullopt;
    }
    std::uint64_t count = 0;
    for (const auto& [start, ofFile] : counts) count += ofFile;
    return reading.denied + reading.failures > 0 ? std::nullopt : std::optional(count);
}

}  // namespace kv::facts
