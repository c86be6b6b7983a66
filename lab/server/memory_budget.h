// A bound on the memory that uploads take together. Who finds no room waits, and nobody fails for want of it: one share
// at a time may overdraw the budget, so that one upload always goes on, ends and gives back what it holds.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <vector>

namespace kv::lab {

class MemoryBudget {
  public:
    explicit MemoryBudget(std::size_t bound) : bound_(bound) {}
    MemoryBudget(const MemoryBudget&) = delete;
    MemoryBudget& operator=(const MemoryBudget&) = delete;

    /// What one upload holds of a budget, which it gives back at its end. It belongs to one thread at a time.
    class Share {
      public:
        explicit Share(MemoryBudget& budget) : budget_(budget) {}
        ~Share() { GiveBack(); }
        Share(const Share&) = delete;
        Share& operator=(const Share&) = delete;

        /// Adds to it if there is room.
        bool TryTake(std::size_t bytes);

        /// Waits until there is room, then adds to it.
        void Take(std::size_t bytes);

        /// Calls wake once, on any thread, as soon as TryTake is worth another try.
        void CallWhenRoom(std::size_t bytes, std::function<void()> wake);

        void GiveBack();

      private:
        bool HasRoom(std::size_t bytes) const;
        void Add(std::size_t bytes);

        MemoryBudget& budget_;
        std::size_t held_ = 0;
    };

    /// Wakes all that wait by CallWhenRoom, now and from now on.
    void StopWaiting();

  private:
    const std::size_t bound_;
    std::mutex mutex_;  // guards what follows
    std::condition_variable room_;
    std::size_t used_ = 0;
    const Share* overdrawer_ = nullptr;
    std::vector<std::function<void()>> waiting_;
    bool stopped_ = false;
};

}  // namespace kv::lab
