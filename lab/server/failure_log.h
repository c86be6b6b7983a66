// What the server tells of requests that failed.
#pragma once

#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>

namespace kv::lab {

/// Tells of failures on standard error, of one that goes on each ten seconds: a database that is away fails them all.
class FailureLog {
  public:
    FailureLog() = default;
    ~FailureLog() { TellCounts(Clock::time_point::max()); }
    FailureLog(const FailureLog&) = delete;
    FailureLog& operator=(const FailureLog&) = delete;

    void Tell(const std::string& reason) {
        const std::lock_guard lock(mutex_);
        const Clock::time_point now = Clock::now();
        TellCounts(now);
        const auto [place, isNew] = told_.try_emplace(reason, Told{now + std::chrono::seconds(10), 0});
        if (isNew)
            std::fprintf(stderr, "kvlab: %s\n", reason.c_str());
        else
            ++place->second.more;
    }

  private:
    using Clock = std::chrono::steady_clock;
    struct Told {
        Clock::time_point until;  // more of the same are only counted
        int more = 0;
    };

    /// Forgets what was told long enough before, and tells how often it came again.
    void TellCounts(Clock::time_point now) {
        std::erase_if(told_, [now](const auto& entry) {
            const auto& [reason, told] = entry;
            if (now < told.until) return false;
            if (told.more > 0) std::fprintf(stderr, "kvlab: %d times more: %s\n", told.more, reason.c_str());
            return true;
        });
    }

    std::mutex mutex_;  // guards what follows
    std::map<std::string, Told> told_;
};

}  // namespace kv::lab
