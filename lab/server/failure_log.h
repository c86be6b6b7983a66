// What the server tells of requests that failed.
#pragma once

#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>

namespace kv::lab {

/// Tells of failures on standard error, of one that goes on each ten seconds: a database that is away fails them all.
class FailureLog {
  public:
    void Tell(const std::string& reason) {
        const std::lock_guard lock(mutex_);
        const auto now = std::chrono::steady_clock::now();
        if (reason == last_ && now < next_) {
            ++untold_;
            return;
        }
        if (untold_ > 0) std::fprintf(stderr, "kvlab: %d times more: %s\n", untold_, last_.c_str());
        std::fprintf(stderr, "kvlab: %s\n", reason.c_str());
        last_ = reason;
        next_ = now + std::chrono::seconds(10);
        untold_ = 0;
    }

  private:
    std::mutex mutex_;  // guards what follows
    std::string last_;
    std::chrono::steady_clock::time_point next_;
    int untold_ = 0;
};

}  // namespace kv::lab
