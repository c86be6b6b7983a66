#include "facts/storage/mount_space.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <fmt/format.h>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <sys/statvfs.h>
#include <system_error>
#include <thread>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds answerBound{2};

/// A question that was asked. Those who wait for the answer share it with the thread that asks.
struct OpenQuestion {
    Clock::time_point askedAt = Clock::now();
    std::mutex mutex;
    std::condition_variable answered;
    std::optional<SpaceAnswer> answer;
    bool isSilent = false;  // someone has waited in vain, so nobody waits again

    bool isAnswered() {
        const std::lock_guard lock(mutex);
        return answer.has_value();
    }

    std::optional<SpaceAnswer> WaitFor(std::chrono::milliseconds bound) {
        std::unique_lock lock(mutex);
        answered.wait_until(lock, askedAt + bound, [this] { return answer || isSilent; });
        isSilent = !answer;
        return answer;
    }
};

using OpenQuestionPtr = std::shared_ptr<OpenQuestion>;

/// The questions without an answer yet, by mount. Another device mounted at the same place is another mount.
struct OpenQuestions {
    std::mutex mutex;
    std::map<std::string, OpenQuestionPtr> byMount;
};

/// They are never destroyed, because queries may still run when the process ends.
OpenQuestions& TheOpenQuestions() {
    static auto* const questions = new OpenQuestions;
    return *questions;
}

void StartAsking(const OpenQuestionPtr& open, const SpaceQuestion& question, const std::string& mountPoint) {
    std::thread([open, question, mountPoint] {
        const SpaceAnswer answer = question(mountPoint);
        const std::lock_guard lock(open->mutex);
        open->answer = answer;
        open->answered.notify_all();
    }).detach();
}

/// The open question to a mount, else a new one. Throws std::system_error when no thread can be started.
OpenQuestionPtr QuestionTo(const Mount& mount, const SpaceQuestion& question) {
    OpenQuestions& questions = TheOpenQuestions();
    const std::lock_guard lock(questions.mutex);
    std::erase_if(questions.byMount, [](const auto& entry) { return entry.second->isAnswered(); });
    const std::string key = mount.device + ' ' + mount.mountPoint;
    const auto found = questions.byMount.find(key);
    if (found != questions.byMount.end()) return found->second;
    auto open = std::make_shared<OpenQuestion>();
    StartAsking(open, question, mount.mountPoint);
    questions.byMount.emplace(key, open);
    return open;
}

std::string NameOfMount(const Mount& mount) {
    return fmt::format("{} ({} {})", mount.mountPoint, mount.fileSystem, mount.source);
}

std::string SilenceNotice(const Mount& mount, const OpenQuestion& open) {
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - open.askedAt);
    return fmt::format("{} is left out: it has not told its free space for {:.1f} seconds", NameOfMount(mount),
                       static_cast<double>(waited.count()) / 1000);
}

std::uint64_t BytesOf(std::uint64_t blocks, std::uint64_t blockSize) {
    constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
    return blockSize != 0 && blocks > most / blockSize ? most : blocks * blockSize;
}

/// Whether the path to a disk leads through mounts that may not answer, its own mount included.
bool MayHangOnTheWay(const Mount& disk, const std::vector<Mount>& mounts) {
    return std::any_of(mounts.begin(), mounts.end(), [&](const Mount& mount) {
        return MayHang(mount) && (mount.mountPoint == disk.mountPoint || IsBelow(disk.mountPoint, mount.mountPoint));
    });
}

/// The space in an answer; absent for an error. Refusals and mounts that are just going away are part of normal life;
/// other errors get a notice.
std::optional<FileSystemSpace> SpaceOf(const Mount& mount, const SpaceAnswer& answer,
                                       const std::function<void(std::string)>& notice) {
    const int error = answer.error;
    if (error != 0 && error != EACCES && error != EPERM && error != ENOENT) {
        notice(fmt::format("{} does not tell its free space: {}", NameOfMount(mount),
                           std::generic_category().message(error)));
    }
    return error == 0 ? std::optional(answer.space) : std::nullopt;
}

std::vector<Mount> DisksThatMayHang(const std::vector<Mount>& disks, const std::vector<Mount>& mounts) {
    std::vector<Mount> doubtful;
    std::copy_if(disks.begin(), disks.end(), std::back_inserter(doubtful),
                 [&](const Mount& disk) { return MayHangOnTheWay(disk, mounts); });
    return doubtful;
}

}  // namespace

SpaceAnswer AskFileSystem(const std::string& mountPoint) {
    struct statvfs figures {};
    if (statvfs(mountPoint.c_str(), &figures) != 0) return {errno, {}};
    const std::uint64_t unit = figures.f_frsize;
    return {0,
            {BytesOf(figures.f_blocks, unit), BytesOf(figures.f_bfree, unit), BytesOf(figures.f_bavail, unit),
             figures.f_files, figures.f_ffree, unit, figures.f_namemax}};
}

std::vector<std::optional<SpaceAnswer>> AskMounts(const std::vector<Mount>& mounts, const SpaceQuestion& question,
                                                  std::chrono::milliseconds bound,
                                                  const std::function<void(std::string)>& notice) {
    std::vector<OpenQuestionPtr> open;
    for (const Mount& mount : mounts) {
        try {
            open.push_back(QuestionTo(mount, question));
        } catch (const std::system_error& failure) {
            open.push_back(nullptr);
            notice(fmt::format("{} is left out: a thread to ask it cannot be started: {}", NameOfMount(mount),
                               failure.what()));
        }
    }
    std::vector<std::optional<SpaceAnswer>> answers(mounts.size());
    for (std::size_t at = 0; at < mounts.size(); ++at) {
        if (open[at] == nullptr) continue;
        answers[at] = open[at]->WaitFor(bound);
        if (!answers[at]) notice(SilenceNotice(mounts[at], *open[at]));
    }
    return answers;
}

std::optional<std::vector<DiskSpace>> ReadDisks(bool wantsSpace, const std::function<void(std::string)>& notice,
                                                const std::function<bool(const Mount&)>& isWanted,
                                                const std::string& root) {
    const std::optional<std::string> mountInfo = platform::ReadSystemFile(root + "/proc/self/mountinfo");
    if (!mountInfo) return std::nullopt;
    const std::vector<Mount> mounts = ParseMountInfo(*mountInfo);
    std::vector<Mount> disks = DisksAmong(mounts);
    if (isWanted) std::erase_if(disks, [&](const Mount& disk) { return !isWanted(disk); });
    const std::vector<Mount> doubtful = wantsSpace ? DisksThatMayHang(disks, mounts) : std::vector<Mount>();
    const std::vector<std::optional<SpaceAnswer>> answers = AskMounts(doubtful, AskFileSystem, answerBound, notice);
    std::vector<DiskSpace> result;
    std::size_t asked = 0;
    for (Mount& disk : disks) {
        std::optional<FileSystemSpace> space;
        if (wantsSpace) {
            const bool isDoubtful = asked < doubtful.size() && doubtful[asked].id == disk.id;
            const std::optional<SpaceAnswer> answer = isDoubtful ? answers[asked++] : AskFileSystem(disk.mountPoint);
            if (!answer) continue;
            space = SpaceOf(disk, *answer, notice);
            if (space && space->size == 0) {
                if (disk.fileSystem != "tmpfs") continue;
                space.reset();
            }
        }
        result.push_back({std::move(disk), space});
    }
    return result;
}

}  // namespace kv::facts
