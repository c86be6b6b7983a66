#include "lab/server/memory_budget.h"

#include <utility>

namespace kv::lab {

/// The mutex is locked.
bool MemoryBudget::Share::HasRoom(std::size_t bytes) const {
    const Share* const overdrawer = budget_.overdrawer_;
    return budget_.used_ + bytes <= budget_.bound_ || overdrawer == nullptr || overdrawer == this;
}

/// The mutex is locked.
void MemoryBudget::Share::Add(std::size_t bytes) {
    budget_.used_ += bytes;
    held_ += bytes;
    if (budget_.used_ > budget_.bound_) budget_.overdrawer_ = this;
}

bool MemoryBudget::Share::TryTake(std::size_t bytes) {
    const std::lock_guard guard(budget_.mutex_);
    if (!HasRoom(bytes)) return false;
    Add(bytes);
    return true;
}

void MemoryBudget::Share::Take(std::size_t bytes) {
    std::unique_lock lock(budget_.mutex_);
    budget_.room_.wait(lock, [&] { return HasRoom(bytes); });
    Add(bytes);
}

void MemoryBudget::Share::CallWhenRoom(std::size_t bytes, std::function<void()> wake) {
    {
        const std::lock_guard guard(budget_.mutex_);
        if (!budget_.stopped_ && !HasRoom(bytes)) {
            budget_.waiting_.push_back(std::move(wake));
            return;
        }
    }
    wake();
}

void MemoryBudget::Share::GiveBack() {
    if (held_ == 0) return;
    std::vector<std::function<void()>> woken;
    {
        const std::lock_guard guard(budget_.mutex_);
        budget_.used_ -= std::exchange(held_, 0);
        if (budget_.overdrawer_ == this) budget_.overdrawer_ = nullptr;
        woken.swap(budget_.waiting_);
    }
    budget_.room_.notify_all();
    for (const auto& wake : woken) wake();
}

void MemoryBudget::StopWaiting() {
    std::vector<std::function<void()>> woken;
    {
        const std::lock_guard guard(mutex_);
        stopped_ = true;
        woken.swap(waiting_);
    }
    for (const auto& wake : woken) wake();
}

}  // namespace kv::lab
