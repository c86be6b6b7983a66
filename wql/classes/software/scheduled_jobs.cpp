#include "wql/classes/software/scheduled_jobs.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <set>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "facts/schedule/cron_tables.h"
#include "facts/system_text.h"
#include "platform/linux/systemd/timers.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/software/unit_list.h"

namespace kv::wql {

namespace {

using enum CimType;
using namespace platform::systemd;
using facts::JobDays;

struct Need {
    enum Bits : std::uint32_t { timer = 1, status = 2, command = 4, user = 8 };
};

struct Row {
    std::string name;
    std::string description;
    std::uint32_t number = 0;
    std::optional<std::string> command;
    std::optional<std::string> user;
    std::optional<std::string> status;
    std::optional<std::int64_t> next;  // microseconds since 1970
    std::optional<JobDays> days;
    bool isRepeated = false;
};

/// Positive, since the agent shows 32 bits with a sign.
constexpr std::uint32_t maxNumber = 0x7FFFFFFF;

/// A number that is the same at each query, by FNV-1a.
std::uint32_t NumberFor(std::string_view identity) {
    constexpr std::uint32_t prime = 16777619;
    std::uint32_t number = 2166136261;
    for (const char unit : identity) number = (number ^ static_cast<unsigned char>(unit)) * prime;
    return number & maxNumber;
}

/// The time of the next run, with stars for the date: "********031500.000000+060".
CimValue TimeOfDay(const Row& row) {
    if (!row.next) return {};
    constexpr std::size_t dateLength = 8;
    return CimValue(DmtfTime(*row.next).replace(0, dateLength, dateLength, u'*'));
}

CimValue BitsOf(const Row& row, std::uint32_t JobDays::*days) {
    const std::uint32_t bits = row.days ? (*row.days).*days : 0;
    return bits != 0 ? CimValue(bits) : CimValue();
}

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"Caption", string, 0, "as Description", [](const Row& row) { return row.description; }},
    {u"Command", string, Need::timer | Need::command, "of the unit that the timer starts, the first ExecStart; of cron, the command", [](const Row& row) { return row.command; }},
    {u"DaysOfMonth", uint32, Need::timer, "bit 0: the first; NULL if no dates are named, or not only days", [](const Row& row) { return BitsOf(row, &JobDays::ofMonth); }},
    {u"DaysOfWeek", uint32, Need::timer, "bit 0: Monday; 127: every day; NULL as above", [](const Row& row) { return BitsOf(row, &JobDays::ofWeek); }},
    {u"Description", string, 0, "Description of the timer; of cron, when it runs as the table has it", [](const Row& row) { return row.description; }},
    {u"ElapsedTime", datetime},
    {u"InstallDate", datetime},
    {u"InteractWithDesktop", boolean, 0, "never", [](const Row&) { return false; }},
    {u"JobId", uint32, 0, "made of the timer's name, or of the job's line and its table's path", [](const Row& row) { return row.number; }},
    {u"JobStatus", string, Need::timer | Need::status, "Failure if the unit that the timer starts has failed, Success after any other start; NULL while it is active, and for jobs of cron",
        [](const Row& row) { return row.status; }},
    {u"Name", string, 0, "of the timer, or the path of cron's table", [](const Row& row) { return row.name; }},
    {u"Notify", string},
    {u"Owner", string, Need::timer | Need::user, "the user as whom it runs", [](const Row& row) { return row.user; }},
    {u"Priority", uint32},
    {u"RunRepeatedly", boolean, Need::timer, "whether it runs again and again", [](const Row& row) { return row.isRepeated; }},
    {u"StartTime", datetime, Need::timer, "time of day of the next run, with ******** for the date; NULL if none is to come", [](const Row& row) { return TimeOfDay(row); }},
    {u"Status", string, 0, "OK: only what is active is listed", [](const Row&) { return u"OK"; }},
    {u"TimeSubmitted", datetime},
    {u"UntilTime", datetime},
};
// clang-format on

struct Now {
    std::int64_t realtime = 0;  // microseconds
    std::int64_t monotonic = 0;
};

Now ReadNow() {
    using namespace std::chrono;
    return {duration_cast<microseconds>(system_clock::now().time_since_epoch()).count(),
            duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count()};
}

/// The days of all calendar expressions together; absent if those of one are not known.
std::optional<JobDays> DaysOf(const TimerState& timer) {
    JobDays days;
    for (const std::string& expression : timer.calendar) {
        const std::optional<JobDays> more = facts::DaysOfCalendar(expression);
        if (!more) return std::nullopt;
        days.ofMonth |= more->ofMonth;
        days.ofWeek |= more->ofWeek;
    }
    return days;
}

/// Whether a calendar expression names no year.
bool IsOfEveryYear(const std::string& expression) { return expression.find("*-") != std::string::npos; }

/// What became of the unit when the timer last started it.
std::optional<std::string> OutcomeOf(const TimerState& timer, const std::vector<ServiceUnit>& started) {
    const std::string state = started.empty() ? "" : started[0].activeState;
    if (state == "failed") return "Failure";
    if (state == "activating" || state == "active" || state == "deactivating" || state == "reloading") return {};
    return timer.lastTrigger != 0 ? std::optional<std::string>("Success") : std::nullopt;
}

/// Negative for the first refusal, or if the manager no longer answers.
int ReadJob(UnitManager& manager, const Gathering& gathering, const ServiceUnit& unit, Row& row) {
    TimerState timer;
    int result = gathering.asksFor(Need::timer) ? ReadTimer(manager.bus(), unit.id, timer) : 0;
    if (result < 0 || timer.unit.empty()) return result;
    const Now now = ReadNow();
    row.days = DaysOf(timer);
    row.isRepeated = timer.followsItsUnit || std::any_of(timer.calendar.begin(), timer.calendar.end(), IsOfEveryYear);
    const auto next =
        NextElapse(timer, static_cast<std::uint64_t>(now.realtime), static_cast<std::uint64_t>(now.monotonic));
    if (next) row.next = static_cast<std::int64_t>(*next);
    const ServiceUnit service{
        .id = timer.unit, .description = {}, .loadState = {}, .activeState = {}, .subState = {}, .fileState = {}};
    std::vector<ServiceUnit> started;
    if (gathering.asksFor(Need::status)) result = ListByNames(manager.bus(), {timer.unit}, started);
    row.status = OutcomeOf(timer, started);
    if (!timer.unit.ends_with(serviceSuffix)) return result;  // a timer may start any kind of unit
    if (result >= 0 && gathering.asksFor(Need::command)) result = ReadCommand(manager, service, row.command);
    if (result >= 0 && gathering.asksFor(Need::user)) result = ReadUser(manager, service, row.user);
    return result;
}

/// Jobs, and where they go.
struct Output {
    const Gathering& gathering;
    bool wantsMore = true;
    std::set<std::uint32_t> numbers = {};  // of the jobs so far

    /// identity: what stays the same as long as the job does. If two happen to get one number, the later takes the
    /// next.
    void add(Row& row, std::string_view identity) {
        row.number = NumberFor(identity);
        while (!numbers.insert(row.number).second) row.number = (row.number + 1) & maxNumber;
        wantsMore = gathering.row(&row);
    }
};

int GatherTimers(const Gathering& gathering, Output& output) {
    UnitManager manager;
    std::vector<ServiceUnit> units;
    Refusals refusals;
    int result = manager.Connect(usualPatience);
    if (result >= 0) result = manager.ListLoaded({"*.timer"}, units);
    for (const ServiceUnit& unit : units) {
        if (unit.activeState != "active") continue;
        Row row;
        row.name = unit.id;
        row.description = unit.description;
        result = ReadJob(manager, gathering, unit, row);
        if (IsLost(result)) break;
        if (result < 0) refusals.add(unit.id, result);
        output.add(row, unit.id);
        if (!output.wantsMore) break;
    }
    refusals.note(gathering);
    return result < 0 && (IsLost(result) || units.empty()) ? result : 0;
}

/// More than anybody's table, so that one which is not a table costs little.
constexpr std::size_t maxTableBytes = std::size_t{1024} * 1024;

/// The jobs of a table that cron takes, or why there are none: cron takes only what no other user could have written,
/// and Debian's no file that stands elsewhere, too.
std::optional<std::vector<facts::CronJob>> ReadTable(const std::string& path, bool isDebians, std::string& refusal) {
    struct stat link {};
    struct stat file {};
    const std::optional<std::string> text = platform::ReadOrdinaryFile(path, maxTableBytes);
    refusal = "it cannot be read: " + FileFailureText(errno);
    if (!text || lstat(path.c_str(), &link) != 0 || stat(path.c_str(), &file) != 0) return std::nullopt;
    refusal = "it is not the superuser's, and cron ignores it";
    if (link.st_uid != 0 || file.st_uid != 0) return std::nullopt;
    refusal = "others may write to it, and cron ignores it";
    if ((file.st_mode & (S_IWGRP | S_IWOTH)) != 0) return std::nullopt;
    refusal = "it has more names than one, and cron ignores it";
    if (isDebians && file.st_nlink != 1) return std::nullopt;
    refusal = "a line is not one of cron's, which ignores the table";
    return facts::ParseCronTable(*text);
}

void AddTable(const std::string& path, const std::string& root, bool isDebians, Output& output) {
    const std::string shownPath = path.substr(root.size());
    std::string refusal;
    const auto jobs = ReadTable(path, isDebians, refusal);
    if (!jobs) return output.gathering.notice(fmt::format("Jobs in {} were left out: {}", shownPath, refusal));
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    constexpr std::int64_t microseconds = 1'000'000;
    std::map<std::string, int> same;                         // lines so far, by their identity
    std::map<std::string, std::optional<std::time_t>> next;  // by when a job runs
    for (const facts::CronJob& job : *jobs) {
        if (!output.wantsMore) return;
        std::string identity = fmt::format("{} {} {} {}", shownPath, job.when, job.user, job.command);
        if (const int before = same[identity]++; before > 0) identity += fmt::format(" {}", before);
        Row row;
        row.name = shownPath;
        row.description = job.when;
        row.command = job.command;
        row.user = job.user;
        row.isRepeated = !job.isAtStart;
        if (job.time && output.gathering.asksFor(Need::timer)) {
            row.days = facts::DaysOf(*job.time);
            const auto [known, isNew] = next.try_emplace(job.when);
            if (isNew) known->second = facts::NextRun(*job.time, now);
            if (known->second) row.next = *known->second * microseconds;
        }
        output.add(row, identity);
    }
}

/// The names that a cron reads. Debian's, whose program is "cron", leaves out all with other signs; that of others,
/// "crond", leaves out hidden files, backups, and what rpm puts aside.
bool IsNameOfTable(const std::string& name, bool isDebians) {
    if (isDebians) {
        return !name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char unit) {
            return std::isalnum(unit) != 0 || unit == '_' || unit == '-';
        });
    }
    if (name.empty() || name.front() == '.' || name.front() == '#' || name.back() == '~') return false;
    constexpr std::string_view setAside[] = {".rpmsave", ".rpmorig", ".rpmnew", ".cfsaved"};
    return std::none_of(std::begin(setAside), std::end(setAside),
                        [&](std::string_view ending) { return name.ends_with(ending); });
}

/// Without a cron nothing runs its tables, which some packages bring along all the same.
void GatherCronJobs(const std::string& root, Output& output) {
    namespace fs = std::filesystem;
    const bool isDebians = access((root + "/usr/sbin/cron").c_str(), F_OK) == 0;
    if (!isDebians && access((root + "/usr/sbin/crond").c_str(), F_OK) != 0) return;
    std::vector<std::string> tables;
    if (access((root + "/etc/crontab").c_str(), F_OK) == 0) tables.push_back(root + "/etc/crontab");
    std::error_code failure;
    const std::string folder = root + "/etc/cron.d";
    for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end; entry.increment(failure)) {
        if (IsNameOfTable(entry->path().filename().string(), isDebians)) tables.push_back(entry->path().string());
    }
    if (failure && failure != std::errc::no_such_file_or_directory)
        output.gathering.notice(fmt::format("Jobs in /etc/cron.d were left out: {}", failure.message()));
    std::sort(tables.begin(), tables.end());
    for (const std::string& table : tables) AddTable(table, root, isDebians, output);
}

constexpr ClassInfo classes[] = {
    {u"Win32_ScheduledJob", u"CIM_Job", properties,
     [](const Gathering& gathering) { return GatherScheduledJobs(gathering, ""); }, u"JobId",
     "timers of systemd and jobs of cron"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

WmiStatus GatherScheduledJobs(const Gathering& gathering, const std::string& root) {
    Output output{gathering};
    const int result = GatherTimers(gathering, output);
    if (output.wantsMore) GatherCronJobs(root, output);
    if (result >= 0) return wmi_status::ok;
    const WmiStatus failure = FailedManager(result, "Timers were left out", gathering);
    return output.numbers.empty() ? failure : wmi_status::ok;
}

}  // namespace kv::wql
