// CIM_DataFile and Win32_NTEventlogFile.
//
// A file's Name is its path, and Drive is empty. A query for files must give Name, or Path, which is a folder: no disk
// is ever searched. Either may be written with backslashes, from the root on; the objects then have the separators of
// the query. What is written with a drive's letter does not exist.
#include "wql/classes/storage/data_files.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <dirent.h>
#include <fmt/format.h>
#include <limits>
#include <map>
#include <memory>
#include <system_error>
#include <utility>

#include "facts/file_status.h"
#include "facts/logs/journal_limit.h"
#include "facts/network/host_names.h"
#include "facts/storage/hanging_mounts.h"
#include "facts/storage/mounts.h"
#include "facts/system_text.h"
#include "platform/owned_handle.h"
#include "platform/utf.h"
#include "wql/class_tree.h"
#include "wql/classes/extended_table.h"
#include "wql/classes/system/event_log.h"

namespace kv::wql {

namespace {

using enum CimType;
using facts::FileKind;
using facts::FileStatus;

struct Need {
    enum Bits : std::uint32_t { host = 1, fileSystem = 2, diskUse = 4, records = 8, most = 16 };
};

/// A file, or one of the journal's logs, which all have the file that the journal writes to.
struct Row {
    std::u16string_view className;
    std::u16string folder;  // with a separator at its end
    std::u16string path;    // folder as the query has it
    std::u16string leaf;
    FileStatus status;
    std::u16string host;
    std::optional<std::string> fileSystem;
    std::optional<EventLog> log;
    std::optional<std::uint64_t> diskUse;  // of all the journal
    std::optional<std::uint64_t> records;
    std::optional<std::uint32_t> most;  // bytes that the journal may take
};

std::u16string NameOf(const Row& row) { return row.folder + row.leaf; }

/// Where a file's extension begins, with the dot; the end of the name if it has none. A first dot begins none.
std::size_t ExtensionAt(std::u16string_view leaf) {
    const std::size_t dot = leaf.rfind(u'.');
    return dot == std::u16string_view::npos || dot == 0 ? leaf.size() : dot;
}

std::u16string_view StemOf(std::u16string_view leaf) { return leaf.substr(0, ExtensionAt(leaf)); }

std::u16string_view ExtensionOf(std::u16string_view leaf) {
    const std::size_t at = ExtensionAt(leaf);
    return at == leaf.size() ? std::u16string_view() : leaf.substr(at + 1);
}

std::u16string_view KindText(FileKind kind) {
    constexpr std::u16string_view texts[] = {u"Regular file", u"Folder", u"Character device",     u"Block device",
                                             u"Pipe",         u"Socket", u"Symbolic link, broken"};
    return texts[static_cast<std::size_t>(kind)];
}

/// Windows' bits for what an account may do: 1 read, 2 write, 4 append, 32 execute.
std::uint32_t AccessMaskOf(const FileStatus& status) {
    return (status.isReadable ? 1U : 0U) | (status.isWriteable ? 6U : 0U) | (status.isExecutable ? 32U : 0U);
}

CimValue MomentOf(const std::optional<std::int64_t>& moment) {
    return moment ? CimValue(DmtfTime(*moment)) : CimValue();
}

constexpr auto nameIn = [](const Row& row) { return NameOf(row); };
constexpr auto createdIn = [](const Row& row) { return MomentOf(row.status.created); };

// clang-format off
constexpr auto fileProperties = std::to_array<PropertyInfo>({
    {u"AccessMask", uint32, 0, "what the agent may do: 1 read, 2 write, 4 append, 32 execute", [](const Row& row) { return AccessMaskOf(row.status); }},
    {u"Archive", boolean, 0, "FALSE: no file has that mark", [](const Row&) { return false; }},
    {u"Caption", string, 0, "as Name", nameIn},
    {u"Compressed", boolean, 0, "STATX_ATTR_COMPRESSED of statx", [](const Row& row) { return row.status.isCompressed; }},
    {u"CompressionMethod", string},
    {u"CreationClassName", string, 0, "CIM_LogicalFile, or this class for a log, as on Windows", [](const Row& row) { return row.className; }},
    {u"CreationDate", datetime, 0, "stx_btime of statx; NULL if the file system does not keep it", createdIn},
    {u"CSCreationClassName", string, 0, "the computer's class", [](const Row&) { return u"Win32_ComputerSystem"; }},
    {u"CSName", string, Need::host, "the computer's name", [](const Row& row) { return row.host; }},
    {u"Description", string, 0, "as Name", nameIn},
    {u"Drive", string, 0, "empty: paths begin at the root", [](const Row&) { return u""; }},
    {u"EightDotThreeFileName", string},
    {u"Encrypted", boolean, 0, "STATX_ATTR_ENCRYPTED of statx", [](const Row& row) { return row.status.isEncrypted; }},
    {u"EncryptionMethod", string},
    {u"Extension", string, 0, "after the name's last dot, unless that comes first", [](const Row& row) { return ExtensionOf(row.leaf); }},
    {u"FileName", string, 0, "the name without folder and extension", [](const Row& row) { return StemOf(row.leaf); }},
    {u"FileSize", uint64, Need::diskUse, "bytes, stx_size of statx; of a log what the journal takes on the disk",
        [](const Row& row) { return row.log ? CimValue(row.diskUse) : CimValue(row.status.size); }},
    {u"FileType", string, 0, "its kind in words", [](const Row& row) { return KindText(row.status.kind); }},
    {u"FSCreationClassName", string, 0, "as on Windows", [](const Row&) { return u"Win32_FileSystem"; }},
    {u"FSName", string, Need::fileSystem, "such as ext4, of mountinfo", [](const Row& row) { return row.fileSystem; }},
    {u"Hidden", boolean, 0, "the name begins with a dot", [](const Row& row) { return row.leaf.starts_with(u'.'); }},
    {u"InstallDate", datetime, 0, "as CreationDate", createdIn},
    {u"InUseCount", uint64},
    {u"LastAccessed", datetime, 0, "stx_atime of statx", [](const Row& row) { return DmtfTime(row.status.accessed); }},
    {u"LastModified", datetime, 0, "stx_mtime of statx", [](const Row& row) { return DmtfTime(row.status.modified); }},
    {u"Manufacturer", string},
    {u"Name", string, 0, "the whole path, with the separators of the query", nameIn},
    {u"Path", string, 0, "the folder, as the query has it", [](const Row& row) { return row.path; }},
    {u"Readable", boolean, 0, "by the agent", [](const Row& row) { return row.status.isReadable; }},
    {u"Status", string, 0, "always OK, because it is there", [](const Row&) { return u"OK"; }},
    {u"System", boolean, 0, "FALSE: no file has that mark", [](const Row&) { return false; }},
    {u"Version", string},
    {u"Writeable", boolean, 0, "by the agent", [](const Row& row) { return row.status.isWriteable; }},
});

constexpr auto logFileProperties = Extend(fileProperties, {
    {u"LogfileName", string, 0, "System, Application or Security", [](const Row& row) { return row.log ? CimValue(NameOf(*row.log)) : CimValue(); }},
    {u"MaxFileSize", uint32, Need::most, "bytes, SystemMaxUse of journald.conf, else a tenth of the file system; NULL from 4 GiB on", [](const Row& row) { return row.most; }},
    {u"NumberOfRecords", uint32, Need::records, "entries of this log in the journal", [](const Row& row) { return row.records; }},
    {u"OverwriteOutDated", uint32, 0, "0: when space is needed", [](const Row&) { return 0; }},
    {u"OverWritePolicy", string, 0, "the journal drops its oldest files when space is needed", [](const Row&) { return u"WhenNeeded"; }},
    {u"Sources", ArrayOf(string)},
});
// clang-format on

bool IsSeparator(char16_t unit) { return unit == u'/' || unit == u'\\'; }

/// The path that a text of a query stands for, with single slashes; absent when it does not begin at the root. Only one
/// that begins with a backslash is written with them, because a name here may have any.
std::optional<std::string> PathOf(std::u16string_view text) {
    if (text.empty() || !IsSeparator(text.front()) || text.find(u'\0') != std::u16string_view::npos)
        return std::nullopt;
    std::string path = platform::Utf8FromWide(text);
    if (text.front() == u'\\') std::replace(path.begin(), path.end(), '\\', '/');
    const auto areSlashes = [](char one, char next) { return one == '/' && next == '/'; };
    path.erase(std::unique(path.begin(), path.end(), areSlashes), path.end());
    return path;
}

/// The texts that WHERE leaves a property; null if it may have any.
std::optional<std::vector<std::u16string>> TextsOf(const Gathering& gathering, std::u16string_view property) {
    const std::vector<CimValue>* values = gathering.valuesOf(property);
    if (values == nullptr) return std::nullopt;
    std::vector<std::u16string> texts;
    for (const CimValue& value : *values) {
        if (const auto* text = std::get_if<std::u16string>(&value.held)) texts.push_back(*text);
    }
    return texts;
}

bool MayBe(const std::optional<std::vector<std::u16string>>& texts, std::u16string_view value) {
    const auto isSame = [value](const std::u16string& text) { return CompareNames(text, value) == 0; };
    return !texts || std::any_of(texts->begin(), texts->end(), isSame);
}

/// The texts of a query by the path that they stand for, without separators at its end.
using TextsByPath = std::map<std::string, std::vector<std::u16string>>;

TextsByPath TextsByPathOf(const std::vector<std::u16string>& texts) {
    TextsByPath byPath;
    for (const std::u16string& text : texts) {
        std::optional<std::string> path = PathOf(text);
        if (!path) continue;
        while (path->ends_with('/')) path->pop_back();
        byPath[*std::move(path)].push_back(text);
    }
    return byPath;
}

/// A folder that is being listed, perhaps by a thread that is left alone meanwhile.
struct FolderListing {
    std::unique_ptr<DIR, platform::ReleasedBy<closedir>> open = {};
    std::vector<std::string> names = {};  // the next ones that are not folders
    std::size_t looked = 0;
    bool isAtEnd = false;
    int failure = 0;

    void readOn(const std::string& path) {
        names.clear();
        if (!open) open.reset(opendir(path.c_str()));
        if (!open) {
            failure = errno;
            return;
        }
        constexpr std::size_t namesAtOnce = 1000;
        while (names.size() < namesAtOnce && looked++ < maxFolderNames) {
            errno = 0;
            const dirent* entry = readdir(open.get());
            isAtEnd = entry == nullptr;
            if (isAtEnd) failure = errno;
            if (isAtEnd) return;
            if (entry->d_type != DT_DIR) names.emplace_back(entry->d_name);
        }
    }
};

/// How long a mount may take for one answer, and a query for all: less than the thirty seconds after which a query is
/// given up as stuck.
constexpr std::chrono::seconds answerBound{2};
constexpr std::chrono::seconds queryBound{20};

/// One run of a gather: what it reads once, and what it could not see.
class FileGathering {
  public:
    FileGathering(const Gathering& gathering, std::string_view mountInfo)
        : gathering_(gathering),
          stems_(TextsOf(gathering, u"FileName")),
          extensions_(TextsOf(gathering, u"Extension")),
          mounts_(facts::ParseMountInfo(mountInfo)) {
        row_.className = u"CIM_LogicalFile";
        if (gathering.asksFor(Need::host)) row_.host = facts::HostName();
        if (const auto folders = TextsOf(gathering, u"Path")) folders_ = TextsByPathOf(*folders);
    }

    /// The file of a path, which the query calls by one name or several.
    void addFile(const std::string& path, const std::vector<std::u16string>& names) {
        std::vector<Naming> namings;
        for (const std::u16string& name : names) {
            if (name.back() == name.front()) continue;
            const std::size_t end = name.rfind(name.front()) + 1;
            const std::u16string folder = name.substr(0, end);
            for (const std::u16string& text : textsOfFolder(path.substr(0, path.rfind('/')), folder))
                namings.push_back({text, folder, name.substr(end)});
        }
        if (!namings.empty()) addRow(path, namings);
    }

    /// The files of a folder, which the query calls by one text or several.
    void addFolder(const std::string& path, const std::vector<std::u16string>& texts) {
        const auto listing = std::make_shared<FolderListing>();
        const std::string folder = path.empty() ? "/" : path;
        const std::size_t most = gathering_.kept + maxFolderFiles;
        while (!isOver_ && !listing->isAtEnd) {
            if (!ask(folder, [listing, folder] { listing->readOn(folder); })) return;
            for (const std::string& name : listing->names) {
                if (isOver_) return;
                if (gathering_.kept == most) return tellOfMore(folder);
                addFileOf(path, texts, name);
            }
            if (listing->failure != 0) return addFailure(folder, listing->failure);
            if (!listing->isAtEnd && listing->looked > maxFolderNames) return tellOfMore(folder);
        }
    }

    Row& row() { return row_; }

    /// Fills in what is told of the file at a path. False if nothing is there, or a folder.
    bool read(const std::string& path) {
        const auto answer = std::make_shared<std::pair<int, FileStatus>>();
        const auto question = [path, answer] { answer->first = facts::ReadFileStatus(path, answer->second); };
        if (!ask(path, question)) return false;
        if (answer->first != 0) addFailure(path, answer->first);
        row_.status = answer->second;
        if (answer->first != 0 || row_.status.kind == FileKind::folder) return false;
        row_.fileSystem.reset();
        for (const facts::Mount& mount : mounts_) {
            if (mount.id == row_.status.mount) row_.fileSystem = mount.fileSystem;
        }
        return true;
    }

    bool isOver() const { return isOver_; }

    /// Says what could not be seen. The status if nothing was.
    WmiStatus finish() {
        if (isLate_) gathering_.notice(fmt::format("Files are missing: not told in {} seconds", queryBound.count()));
        if (failures_ == 0) return wmi_status::ok;
        gathering_.notice(fmt::format("{} files or folders cannot be asked; the first: {}", failures_, firstFailure_));
        if (files_ > 0) return wmi_status::ok;
        return isDenied_ ? wmi_status::accessDenied : wmi_status::providerFailure;
    }

  private:
    /// What the query calls a file.
    struct Naming {
        std::u16string path;
        std::u16string folder;
        std::u16string leaf;
    };

    /// The texts of Path that the query has for a folder; without one the folder as Name has it.
    std::vector<std::u16string> textsOfFolder(const std::string& path, const std::u16string& folder) const {
        const auto found = folders_.find(path);
        return found != folders_.end() ? found->second : std::vector{folder};
    }

    void addFailure(const std::string& path, int failure) {
        if (facts::IsAbsence(failure)) return;
        addFailure(path, std::generic_category().message(failure));
        if (failures_ == 1) isDenied_ = failure == EACCES;
    }

    void addFailure(const std::string& path, const std::string& reason) {
        if (failures_++ == 0) firstFailure_ = path + ": " + reason;
    }

    /// Runs a question about a path, on a thread of its own if its mount may not answer. False if it does not.
    bool ask(const std::string& path, const std::function<void()>& question) {
        isLate_ = std::chrono::steady_clock::now() > limit_;
        isOver_ = isOver_ || isLate_;
        if (isOver_) return false;
        const facts::Mount* mount = facts::HangingMountOf(path, mounts_);
        if (mount != nullptr && mount->fileSystem == "autofs") {
            addFailure(path, mount->mountPoint + " is not mounted, and its automounter is not started for this");
            return false;
        }
        if (mount == nullptr) {
            question();
        } else if (!facts::RunBounded(mount->device + ' ' + mount->mountPoint, answerBound, question)) {
            addFailure(path, mount->mountPoint + " does not answer");
            return false;
        }
        return true;
    }

    /// Gives a file. The row has the first of the query's names for it that WHERE keeps.
    void addRow(const std::string& path, const std::vector<Naming>& namings) {
        const std::u16string& leaf = namings.front().leaf;
        if (!MayBe(stems_, StemOf(leaf)) || !MayBe(extensions_, ExtensionOf(leaf)) || !read(path)) return;
        ++files_;
        const std::size_t kept = gathering_.kept;
        for (const Naming& naming : namings) {
            row_.path = naming.path;
            row_.folder = naming.folder;
            row_.leaf = naming.leaf;
            isOver_ = !gathering_.row(&row_);
            if (isOver_ || gathering_.kept > kept) return;
        }
    }

    void addFileOf(const std::string& path, const std::vector<std::u16string>& texts, const std::string& name) {
        std::vector<Naming> namings;
        for (const std::u16string& text : texts) {
            const std::u16string folder = text.back() == text.front() ? text : text + text.front();
            namings.push_back({text, folder, platform::WideFromUtf8(name)});
        }
        addRow(path + "/" + name, namings);
    }

    void tellOfMore(const std::string& folder) const {
        gathering_.notice(fmt::format("{} may have more files: a query gives at most {}, and looks at {} names", folder,
                                      maxFolderFiles, maxFolderNames));
    }

    const Gathering& gathering_;
    std::optional<std::vector<std::u16string>> stems_;
    std::optional<std::vector<std::u16string>> extensions_;
    TextsByPath folders_;
    std::vector<facts::Mount> mounts_;
    const std::chrono::steady_clock::time_point limit_ = std::chrono::steady_clock::now() + queryBound;
    Row row_;
    std::size_t files_ = 0;
    bool isOver_ = false;
    bool isLate_ = false;
    std::size_t failures_ = 0;
    std::string firstFailure_;
    bool isDenied_ = false;
};

std::string OwnMountInfo() { return platform::ReadSystemFile("/proc/self/mountinfo").value_or(""); }

WmiStatus DemandPlace(const Gathering& gathering) {
    if (gathering.valuesOf(u"Name") != nullptr || gathering.valuesOf(u"Path") != nullptr) return wmi_status::ok;
    gathering.notice(
        "A query for files must say in WHERE, and in each part of an OR, what Name is (a file), or else Path (a "
        "folder)");
    return wmi_status::notSupported;
}

WmiStatus GatherOwnFiles(const Gathering& gathering) { return GatherDataFiles(gathering, OwnMountInfo()); }

/// The file that the journal writes to; else the one that it wrote to last.
const std::string& MainFileOf(const std::vector<std::string>& paths) {
    const auto main = std::find_if(paths.begin(), paths.end(),
                                   [](const std::string& path) { return path.ends_with("/system.journal"); });
    return main != paths.end() ? *main : paths.front();
}

std::uint64_t DiskUseOf(const std::vector<std::string>& paths) {
    std::uint64_t sum = 0;
    for (const std::string& path : paths) {
        FileStatus status;
        if (facts::ReadFileStatus(path, status) == 0) sum += status.diskSize;
    }
    return sum;
}

/// How much the journal in a folder may take. Absent if it does not fit: a lower figure would look like a full log.
std::optional<std::uint32_t> MostSpaceOf(const std::string& folder) {
    const std::optional<std::uint64_t> limit = facts::JournalSpaceLimit(folder);
    if (!limit || *limit > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
    return static_cast<std::uint32_t>(*limit);
}

/// How many entries each log has, in the order of eventLogs. Counting goes on for a while at most: a third of a million
/// entries take a third of a second.
std::array<std::optional<std::uint64_t>, eventLogs.size()> CountRecords(const std::vector<std::string>& folders) {
    constexpr std::chrono::seconds longest{5};
    const auto limit = std::chrono::steady_clock::now() + longest;
    const auto security = facts::CountJournalEntries(folders, MatchesOf(EventLog::security), limit);
    const auto system = facts::CountJournalEntries(folders, MatchesOf(EventLog::system), limit);
    const auto all = facts::CountJournalEntries(folders, {}, limit);
    if (!security || !system || !all) return {};
    return {*all - std::min(*all, *security + *system), *security, *system};
}

/// Hands over an object for each log; the row has what they share.
void HandOverLogs(Row& row, const std::vector<std::string>& folders, const Gathering& gathering) {
    std::array<std::optional<std::uint64_t>, eventLogs.size()> records{};
    if (gathering.asksFor(Need::records)) {
        records = CountRecords(folders);
        if (!records[0]) gathering.notice("The entries of the journal could not be counted, or not in time");
    }
    for (std::size_t at = 0; at < eventLogs.size(); ++at) {
        row.log = eventLogs[at];
        row.records = records[at];
        if (!gathering.row(&row)) break;
    }
}

WmiStatus GatherOwnLogFiles(const Gathering& gathering) {
    return GatherEventLogFiles(gathering, facts::JournalFolders());
}

constexpr ClassInfo classes[] = {
    {u"CIM_DataFile", u"CIM_LogicalFile", fileProperties, GatherOwnFiles, u"Name",
     "files; WHERE gives their Name, or the Path of a folder", DemandPlace},
    {u"Win32_NTEventlogFile", u"CIM_DataFile", logFileProperties, GatherOwnLogFiles, u"LogfileName",
     "the event logs System, Application and Security as files"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

WmiStatus GatherDataFiles(const Gathering& gathering, std::string_view mountInfo) {
    const auto names = TextsOf(gathering, u"Name");
    const auto folders = TextsOf(gathering, u"Path");
    if (const WmiStatus status = DemandPlace(gathering); IsFailure(status)) return status;
    if (!MayBe(TextsOf(gathering, u"Drive"), u"")) return wmi_status::ok;
    FileGathering files(gathering, mountInfo);
    for (const auto& [path, texts] : TextsByPathOf(names ? *names : *folders)) {
        if (files.isOver()) break;
        names ? files.addFile(path, texts) : files.addFolder(path, texts);
    }
    return files.finish();
}

WmiStatus GatherEventLogFiles(const Gathering& gathering, const std::vector<std::string>& folders) {
    if (!gathering.isOnlyClass) return wmi_status::ok;
    const auto names = TextsOf(gathering, u"Name");
    const auto paths = TextsOf(gathering, u"Path");
    facts::JournalReading found;
    const std::vector<std::string> files = facts::FindJournalFiles(folders, found);
    found.files = found.read = files.size();
    const bool areAllSeen = found.denied + found.failures == 0;
    if (files.empty() && areAllSeen && (names || paths)) return wmi_status::ok;
    const WmiStatus status = TellJournalLosses(found, gathering);
    if (files.empty()) return status;
    FileGathering gather(gathering, OwnMountInfo());
    Row& row = gather.row();
    const std::string& main = MainFileOf(files);
    const std::u16string name = platform::WideFromUtf8(main);
    row.folder = row.path = name.substr(0, name.rfind(u'/') + 1);
    row.leaf = name.substr(row.folder.size());
    if (!MayBe(names, name) || !MayBe(paths, row.path)) return wmi_status::ok;
    if (!gather.read(main)) return gather.finish();
    row.className = u"Win32_NTEventlogFile";
    if (gathering.asksFor(Need::diskUse)) row.diskUse = DiskUseOf(files);
    if (gathering.asksFor(Need::most)) row.most = MostSpaceOf(main.substr(0, main.rfind('/')));
    HandOverLogs(row, folders, gathering);
    return wmi_status::ok;
}

}  // namespace kv::wql
