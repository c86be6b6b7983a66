// A text that threads replace while others read it.
#pragma once

#include <atomic>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace kv {

/// A text that is replaced as a whole, and may be absent. A reader holds either the old text or the new one; a text
/// that was published is never freed under a reader. A text equal to an earlier one shares it, so the number of
/// different texts bounds the memory. Callable from any thread; reading takes no lock.
class PublishedText {
  public:
    PublishedText() = default;
    explicit PublishedText(std::u16string_view text) { Publish(text); }
    PublishedText(const PublishedText&) = delete;
    PublishedText& operator=(const PublishedText&) = delete;

    /// The present text, valid for the life of this object; null when it is absent.
    const std::u16string* get() const { return current_.load(std::memory_order_acquire); }

    /// The present text; an empty one when it is absent.
    std::u16string_view view() const {
        const std::u16string* text = get();
        return text ? std::u16string_view(*text) : std::u16string_view();
    }

    /// Replaces the text; std::nullopt makes it absent. Throws std::bad_alloc, and the former text stays.
    void Publish(std::optional<std::u16string_view> text);

  private:
    std::atomic<const std::u16string*> current_{nullptr};
    std::mutex publishing_;
    std::deque<std::u16string> published_;
};

}  // namespace kv
