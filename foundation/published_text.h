// A text that one thread replaces while others read it.
#pragma once

#include <atomic>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace kv {

/// A text, or none, that is replaced as a whole. A reader holds either the old text or the new one; a text once
/// published is never freed under a reader. Texts equal to an earlier one share it, so memory is bounded by the number
/// of different texts. Reading takes no lock.
class PublishedText {
  public:
    PublishedText() = default;
    explicit PublishedText(std::u16string_view text) { Publish(text); }
    PublishedText(const PublishedText&) = delete;
    PublishedText& operator=(const PublishedText&) = delete;

    /// The present text, valid for the life of this object, or null for none.
    const std::u16string* get() const { return current_.load(std::memory_order_acquire); }

    /// The present text, or an empty one for none.
    std::u16string_view view() const {
        const std::u16string* text = get();
        return text ? std::u16string_view(*text) : std::u16string_view();
    }

    /// Replaces the text; std::nullopt makes it none.
    void Publish(std::optional<std::u16string_view> text);

  private:
    std::atomic<const std::u16string*> current_{nullptr};
    std::mutex publishing_;
    std::deque<std::u16string> published_;
};

}  // namespace kv
