// kvagentctl log: the agent's log for reading.
#include <deque>
#include <fmt/format.h>
#include <limits>

#include "commandline/run.h"
#include "foundation/file_utils.h"
#include "foundation/registry_failure.h"
#include "foundation/registry_store.h"
#include "platform/clock.h"
#include "platform/console_tool.h"
#include "platform/files.h"
#include "platform/utf.h"
#include "tools/kvagentctl/agent_process.h"
#include "tools/kvagentctl/check/check_parts.h"
#include "tools/kvagentctl/log/log_entries.h"
#include "tools/kvagentctl/log/log_files.h"
#include "tools/kvagentctl/readable_file.h"
#include "tools/kvagentctl/verbs.h"

namespace kv::control {

namespace {

using commandline::Given;
using commandline::Has;

constexpr std::uint32_t lookPause = 250;    // milliseconds between two looks for new lines
constexpr std::int64_t linesToFollow = 10;  // that -f begins with
constexpr std::int64_t everyLine = std::numeric_limits<std::int64_t>::max();

/// Prints entries, all or those that are not usual; the last few ones first if so many were asked for.
class Printer {
  public:
    Printer(bool showsAll, std::int64_t lines) : showsAll_(showsAll), lines_(lines) {}

    void Take(const std::string& entry) {
        if (!showsAll_ && IsUsual(entry)) return;
        if (isLive_) return Print(entry);
        waiting_.push_back(entry);
        if (std::cmp_greater(waiting_.size(), lines_)) waiting_.pop_front();
    }

    /// How many entries are still wanted of what was written before those that wait.
    std::int64_t missing() const { return isLive_ ? 0 : lines_ - static_cast<std::int64_t>(waiting_.size()); }

    /// Takes entries that were written before those that wait, no more than are missing.
    void TakeEarlier(const Printer& earlier) {
        waiting_.insert(waiting_.begin(), earlier.waiting_.begin(), earlier.waiting_.end());
    }

    /// Prints what waits; from now on each entry as it comes.
    void GoLive() {
        for (const std::string& entry : waiting_) Print(entry);
        waiting_.clear();
        isLive_ = true;
    }

  private:
    static void Print(const std::string& entry) { fmt::print("{}\n", ReadableEntry(entry)); }

    bool showsAll_;
    std::int64_t lines_;
    bool isLive_ = false;
    std::deque<std::string> waiting_;
};

std::u16string LogPath() {
    OptionalText stored;
    const platform::Error result = GetKVAgentInstallDir(stored);
    RequireReadableRegistry(result);
    if (IsGone(result)) {
        const std::string missing = EmptyRegistryText();
        throw commandline::NotFoundError(
            missing.empty() ? "KVAgentInstallDir, which says where the log is, is missing: is the agent installed?"
                            : missing);
    }
    const std::u16string install = InstallDirectory();
    if (install.empty())
        throw std::runtime_error(
            "KVAgentInstallDir, which says where the log is, is not usable; kvagentctl check tells more");
    return install + u"monitoring\\logs\\agent.log";
}

/// Hands all entries of a log that is not written to any more.
void ReadLog(const std::u16string& path, Printer& printer) {
    if (const std::string fault = FileFault(path); !fault.empty()) {
        fmt::print(stderr, "kvagentctl: {} {}; it is left out\n", NativeName(path), fault);
        return;
    }
    LogEntries entries([&](const std::string& entry) { printer.Take(entry); });
    LogFollower once(path);
    once.ReadNew([&](std::string_view bytes) { entries.Feed(bytes); });
    entries.Finish();
}

void Follow(LogFollower& follower, LogEntries& entries) {
    platform::WatchForInterrupt();
    while (!platform::WasInterrupted() && platform::OutputHasReader()) {
        commandline::FlushOutput();
        platform::Clock().Sleep(lookPause);
        std::string fresh;
        follower.ReadNew([&](std::string_view bytes) { fresh += bytes; });
        entries.Feed(fresh);
        // The agent writes an entry at once, its line end last.
        if (fresh.ends_with('\n')) entries.Finish();
    }
}

void RunLog(const Given& given) {
    const LogLines silence([](std::string_view) {});
    const bool follows = Has(given, "--follow");
    const std::int64_t lines =
        commandline::Number(given, "--lines", follows ? linesToFollow : everyLine, {0, 1'000'000'000});
    const std::u16string path = LogPath();
    const std::string name = NativeName(path);
    if (!MayExist(path) && !follows)
        throw commandline::NotFoundError(
            fmt::format("there is no {}: has the agent run here? kvagentctl status tells more", name));
    if (!MayExist(path)) fmt::print(stderr, "kvagentctl: there is no {} yet; waiting for it\n", name);
    if (const std::string fault = MayExist(path) ? OwnFileFault(path) : ""; !fault.empty())
        throw std::runtime_error(fmt::format("{} {}", name, fault));
    const bool printsAll = !follows && !Has(given, "--lines");
    const std::vector<std::u16string> earlierLogs = EarlierLogs(path);
    Printer printer(Has(given, "--all"), lines);
    if (printsAll) printer.GoLive();
    LogEntries entries([&](const std::string& entry) { printer.Take(entry); });
    LogFollower follower(path);
    if (printsAll && Has(given, "--all")) {
        for (const std::u16string& earlier : earlierLogs) ReadLog(earlier, printer);
    }
    follower.ReadNew([&](std::string_view bytes) { entries.Feed(bytes); });
    entries.Finish();
    for (auto earlier = earlierLogs.rbegin(); earlier != earlierLogs.rend() && printer.missing() > 0; ++earlier) {
        Printer older(Has(given, "--all"), printer.missing());
        ReadLog(*earlier, older);
        printer.TakeEarlier(older);
    }
    printer.GoLive();
    if (follows) Follow(follower, entries);
}

}  // namespace

const commandline::Command& LogVerb() {
    static constexpr commandline::Option options[] = {
        {.name = "--follow", .values = "", .text = "goes on with new entries until interrupted", .shortName = "-f"},
        {.name = "--all", .values = "", .text = "shows earlier logs and the usual entries, too"},
        {.name = "--lines",
         .values = "N",
         .text = "only the last N entries; default: all, 10 with --follow",
         .shortName = "-n"},
    };
    static constexpr commandline::Command verb{
        "log",
        "Shows the agent's log, one line for each entry, with the meaning of error numbers. Left out are entries that "
        "every start and every look for requests brings, unless --all is given.",
        {},
        options,
        RunLog};
    return verb;
}

}  // namespace kv::control
