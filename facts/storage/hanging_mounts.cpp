#include "facts/storage/hanging_mounts.h"

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

namespace kv::facts {

namespace {

namespace fs = std::filesystem;

/// The keys under which threads are left alone. Never destroyed, because those threads may outlive the program's
/// statics.
struct SilentKeys {
    std::mutex mutex;
    std::multiset<std::string> keys;
};

SilentKeys& Silent() {
    static auto* const silent = new SilentKeys;
    return *silent;
}

struct BoundedCall {
    std::string key;
    std::mutex mutex;
    std::condition_variable ended;
    bool hasEnded = false;
    bool isLeftAlone = false;
};

void End(BoundedCall& call) {
    const std::lock_guard lock(call.mutex);
    call.hasEnded = true;
    call.ended.notify_all();
    if (!call.isLeftAlone) return;
    const std::lock_guard silentLock(Silent().mutex);
    Silent().keys.erase(Silent().keys.find(call.key));
}

/// The mount that is seen at or above a path: of those with the longest mount point the last.
const Mount* MountOf(const std::string& path, const std::vector<Mount>& mounts) {
    const Mount* best = nullptr;
    for (const Mount& mount : mounts) {
        if (mount.mountPoint != path && !IsBelow(path, mount.mountPoint)) continue;
        if (best == nullptr || mount.mountPoint.size() >= best->mountPoint.size()) best = &mount;
    }
    return best;
}

/// Whether a path may be touched without waiting for a mount.
bool Answers(const std::string& path, const std::vector<Mount>& mounts) {
    return std::none_of(mounts.begin(), mounts.end(), [&path](const Mount& mount) {
        return MayHang(mount) && (mount.mountPoint == path || IsBelow(path, mount.mountPoint));
    });
}

/// Follows the first link of a path that answers. False if the path has no link, or what follows may not answer.
bool FollowFirstLink(fs::path& path, const std::vector<Mount>& mounts) {
    fs::path done;
    for (auto part = path.begin(); part != path.end(); ++part) {
        const fs::path folder = done;
        done /= *part;
        if (!Answers(done.string(), mounts)) return false;
        std::error_code failure;
        fs::path target = fs::read_symlink(done, failure);
        if (failure) continue;
        fs::path rest;
        while (++part != path.end()) rest /= *part;
        path = (folder / target / rest).lexically_normal();
        return true;
    }
    return false;
}

}  // namespace

const Mount* HangingMountOf(const std::string& path, const std::vector<Mount>& mounts) {
    constexpr int mostLinks = 40;  // as the kernel has it
    fs::path way = path;
    for (int links = 0; links < mostLinks && FollowFirstLink(way, mounts); ++links) continue;
    std::string place = way.lexically_normal().string();
    if (place.size() > 1 && place.ends_with('/')) place.pop_back();
    return Answers(place, mounts) ? nullptr : MountOf(place, mounts);
}

bool RunBounded(const std::string& key, std::chrono::milliseconds bound, std::function<void()> routine) {
    {
        const std::lock_guard lock(Silent().mutex);
        if (Silent().keys.contains(key)) return false;
    }
    const auto call = std::make_shared<BoundedCall>();
    call->key = key;
    std::thread([call, routine = std::move(routine)]() mutable {
        routine();
        routine = nullptr;
        End(*call);
    }).detach();
    std::unique_lock lock(call->mutex);
    if (call->ended.wait_for(lock, bound, [&call] { return call->hasEnded; })) return true;
    call->isLeftAlone = true;
    const std::lock_guard silentLock(Silent().mutex);
    Silent().keys.insert(key);
    return false;
}

}  // namespace kv::facts
