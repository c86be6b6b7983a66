#include "wql/bounded_run.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <new>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/utf.h"

namespace kv::wql {

struct BoundedRun {
    std::u16string name;
    std::chrono::milliseconds limit;
    std::chrono::steady_clock::time_point end;
    std::mutex mutex;  // guards what follows
    std::condition_variable news;
    std::deque<ResultObject> objects;
    std::vector<std::u16string> notices;
    WmiStatus status = wmi_status::ok;
    bool isFinished = false;
    bool isAbandoned = false;
    bool isStuck = false;
};

namespace {

/// Names of the runs that are stuck. Never destroyed, because a stuck thread may outlive the program's statics.
struct StuckNames {
    std::mutex mutex;
    std::multiset<std::u16string> names;
};

StuckNames& Stuck() {
    static StuckNames& stuck = *new StuckNames;
    return stuck;
}

bool IsStuck(std::u16string_view name) {
    const std::lock_guard lock(Stuck().mutex);
    return Stuck().names.contains(std::u16string(name));
}

void SetStuck(BoundedRun& run) {
    const std::lock_guard lock(Stuck().mutex);
    Stuck().names.insert(run.name);
    run.isStuck = true;
}

void ClearStuck(BoundedRun& run) {
    if (!run.isStuck) return;
    const std::lock_guard lock(Stuck().mutex);
    Stuck().names.erase(Stuck().names.find(run.name));
}

void AddNotice(BoundedRun& run, std::string_view text) {
    const std::lock_guard lock(run.mutex);
    run.notices.push_back(platform::WideFromUtf8(text));
}

void AddObject(BoundedRun& run, ResultObject object) {
    const std::lock_guard lock(run.mutex);
    run.objects.push_back(std::move(object));
    run.news.notify_one();
}

bool IsWanted(BoundedRun& run) {
    const std::lock_guard lock(run.mutex);
    return !run.isAbandoned;
}

void Finish(BoundedRun& run, WmiStatus status) {
    const std::lock_guard lock(run.mutex);
    run.status = status;
    run.isFinished = true;
    ClearStuck(run);
    run.news.notify_one();
}

WmiStatus DoWork(BoundedRun& run, const std::function<WmiStatus(const ResultSink&)>& work) {
    try {
        return work({.object = [&run](ResultObject object) { AddObject(run, std::move(object)); },
                     .wantsMore = [&run] { return IsWanted(run); },
                     .notice = [&run](const std::string& text) { AddNotice(run, text); }});
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& failure) {
        AddNotice(run, failure.what());
        return wmi_status::failed;
    }
}

/// No exception may leave a thread's function.
WmiStatus GuardedWork(BoundedRun& run, const std::function<WmiStatus(const ResultSink&)>& work) noexcept {
    try {
        return DoWork(run, work);
    } catch (...) {
        return wmi_status::outOfMemory;
    }
}

}  // namespace

WmiStatus StartBoundedRun(std::u16string_view name, std::chrono::milliseconds limit,
                          std::function<WmiStatus(const ResultSink& sink)> work, BoundedRunPtr& run) {
    if (IsStuck(name)) return wmi_status::serverTooBusy;
    run = std::make_shared<BoundedRun>();
    run->name = name;
    run->limit = limit;
    run->end = std::chrono::steady_clock::now() + limit;
    try {
        std::thread([run = run, work = std::move(work)] { Finish(*run, GuardedWork(*run, work)); }).detach();
    } catch (const std::system_error&) {
        run.reset();
        return wmi_status::serverTooBusy;
    }
    return wmi_status::ok;
}

WmiStatus NextObject(BoundedRun& run, ResultObject& object) {
    std::unique_lock lock(run.mutex);
    run.news.wait_until(lock, run.end, [&run] { return !run.objects.empty() || run.isFinished; });
    if (!run.objects.empty()) {
        object = std::move(run.objects.front());
        run.objects.pop_front();
        return wmi_status::ok;
    }
    if (run.isFinished) return IsFailure(run.status) ? run.status : wmi_status::noMore;
    if (!run.isStuck) {
        SetStuck(run);
        run.notices.push_back(platform::WideFromUtf8("a query of " + platform::Utf8FromWide(run.name) +
                                                     " has not finished within " + std::to_string(run.limit.count()) +
                                                     " ms and is given up"));
    }
    return wmi_status::timedOut;
}

void AbandonRun(BoundedRun& run) {
    const std::lock_guard lock(run.mutex);
    run.isAbandoned = true;
    run.objects.clear();
}

std::vector<std::u16string> TakeNotices(BoundedRun& run) {
    const std::lock_guard lock(run.mutex);
    return std::exchange(run.notices, {});
}

}  // namespace kv::wql
