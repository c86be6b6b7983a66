// Threads that take jobs in the order in which they are posted, each with a worker of its own, such as one with a
// connection to the database. Long jobs never take all threads, so that short ones go on beside them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace kv::lab {

enum class JobLength { brief, lengthy };

struct Job {
    std::function<void(std::size_t worker)> run;  // worker: the number of the thread, from 0
    std::function<void()> cancel;                 // in its place when it was delayed and the pool stops
    JobLength length = JobLength::brief;
};

class WorkerPool {
  public:
    /// At most maxLengthy threads run lengthy jobs at the same time.
    WorkerPool(std::size_t threads, std::size_t maxLengthy);
    ~WorkerPool() { Stop(); }
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /// False, without effect, when the pool has stopped. No job may throw.
    bool Post(Job job);

    /// Posts a job later, without a thread that waits. False, without effect, when the pool has stopped.
    bool PostAfter(std::chrono::milliseconds delay, Job job);

    /// Cancels what is delayed, and returns when everything else that was posted has run.
    void Stop();

  private:
    using Clock = std::chrono::steady_clock;

    void Work(std::size_t worker);
    std::deque<Job>* Next();
    void PostDue();

    const std::size_t maxLengthy_;
    std::mutex mutex_;  // guards what follows but the threads
    std::condition_variable wake_;
    std::deque<Job> brief_;
    std::deque<Job> lengthy_;
    std::multimap<Clock::time_point, Job> delayed_;
    std::size_t lengthyRunning_ = 0;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace kv::lab
