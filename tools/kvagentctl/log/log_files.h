// The files of the agent's log: the current one, and those that rotation has numbered.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/open_file.h"

namespace kv::control {

/// The numbered logs beside a log's path, the oldest first.
std::vector<std::u16string> EarlierLogs(std::u16string_view path);

/// Reads a log as it grows, also past a rotation, and loses nothing that was written in between. A log that somebody
/// emptied, or deleted and began again, is read from its beginning. Opens the file only for reading, so that the agent
/// may go on and rotate it.
class LogFollower {
  public:
    using Take = std::function<void(std::string_view bytes)>;

    explicit LogFollower(std::u16string path) : path_(std::move(path)) {}

    /// Hands over what has come since the last call; at the first one the whole log. False when there is no log, as
    /// between two steps of a rotation.
    bool ReadNew(const Take& take);

  private:
    /// The beginning of a file, which its first date makes one of a kind; empty when it cannot be read.
    static std::string Head(std::u16string_view path);
    /// The beginning of the file at hand. If it was emptied since the last look, reading begins again.
    std::string LookAtFile();
    void ReadOn(const Take& take);
    /// Those that were begun and rotated since the last look, oldest first.
    std::vector<std::u16string> LogsInBetween() const;
    bool Open(std::u16string_view path);

    std::u16string path_;
    OpenFile file_;
    std::string head_;            // of the file at hand, at the last look
    std::uint64_t position_ = 0;  // up to which it was read, bytes
};

}  // namespace kv::control
