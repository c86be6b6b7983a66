#include "lab/server/worker_pool.h"

#include <utility>

namespace kv::lab {

WorkerPool::WorkerPool(std::size_t threads, std::size_t maxLengthy) : maxLengthy_(maxLengthy) {
    for (std::size_t worker = 0; worker < threads; ++worker) threads_.emplace_back([this, worker] { Work(worker); });
}

bool WorkerPool::Post(Job job) {
    {
        const std::lock_guard guard(mutex_);
        if (stopping_) return false;
        (job.length == JobLength::brief ? brief_ : lengthy_).push_back(std::move(job));
    }
    wake_.notify_one();
    return true;
}

bool WorkerPool::PostAfter(std::chrono::milliseconds delay, Job job) {
    {
        const std::lock_guard guard(mutex_);
        if (stopping_) return false;
        delayed_.emplace(Clock::now() + delay, std::move(job));
    }
    wake_.notify_one();  // it waits for the earliest one, which may be this
    return true;
}

void WorkerPool::Stop() {
    std::multimap<Clock::time_point, Job> cancelled;
    {
        const std::lock_guard guard(mutex_);
        stopping_ = true;
        cancelled.swap(delayed_);
    }
    wake_.notify_all();
    for (const auto& [time, job] : cancelled) job.cancel();
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
}

/// Moves the delayed jobs whose time has come to the queues. The mutex is locked.
void WorkerPool::PostDue() {
    while (!delayed_.empty() && delayed_.begin()->first <= Clock::now()) {
        Job job = std::move(delayed_.begin()->second);
        delayed_.erase(delayed_.begin());
        (job.length == JobLength::brief ? brief_ : lengthy_).push_back(std::move(job));
    }
}

/// The queue whose first job can be run; null when all have to wait. The mutex is locked.
std::deque<Job>* WorkerPool::Next() {
    PostDue();
    if (!brief_.empty()) return &brief_;
    return !lengthy_.empty() && lengthyRunning_ < maxLengthy_ ? &lengthy_ : nullptr;
}

void WorkerPool::Work(std::size_t worker) {
    std::unique_lock lock(mutex_);
    while (true) {
        std::deque<Job>* const queue = Next();
        if (queue != nullptr) {
            Job job = std::move(queue->front());
            queue->pop_front();
            const std::size_t lengthy = job.length == JobLength::lengthy ? 1 : 0;
            lengthyRunning_ += lengthy;
            const bool isMore = !brief_.empty() || !lengthy_.empty() || !delayed_.empty();
            lock.unlock();
            if (isMore) wake_.notify_one();  // to run the next one, or to wait for its time
            job.run(worker);
            job = {};
            lock.lock();
            lengthyRunning_ -= lengthy;
        } else if (stopping_ && lengthy_.empty()) {
            wake_.notify_all();
            return;
        } else if (delayed_.empty()) {
            wake_.wait(lock);
        } else {
            // A copy: the job may be taken away by another worker while this one waits.
            const Clock::time_point earliest = delayed_.begin()->first;
            wake_.wait_until(lock, earliest);
        }
    }
}

}  // namespace kv::lab
