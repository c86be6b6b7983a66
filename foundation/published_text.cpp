#include "foundation/published_text.h"

#include <algorithm>

namespace kv {

void PublishedText::publish(std::optional<std::u16string_view> text) {
    if (!text) {
        current_.store(nullptr, std::memory_order_release);
        return;
    }
    const std::lock_guard<std::mutex> lock(publishing_);
    auto same = std::find(published_.begin(), published_.end(), *text);
    if (same == published_.end()) same = published_.emplace(published_.end(), *text);
    current_.store(&*same, std::memory_order_release);
}

}  // namespace kv
