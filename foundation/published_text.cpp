#include "foundation/published_text.h"

#include <algorithm>

namespace kv {

void PublishedText::Publish(std::optional<std::u16string_view> text) {
    if (!text) {
        current_.store(nullptr, std::memory_order_release);
        return;
    }
    const std::lock_guard lock(publishing_);
    auto known = std::find(published_.begin(), published_.end(), *text);
    if (known == published_.end()) known = published_.emplace(published_.end(), *text);
    current_.store(&*known, std::memory_order_release);
}

}  // namespace kv
