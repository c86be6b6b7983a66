// The agent's log as people read it: bytes of the file in, one line for each entry out. No I/O.
//
// In the file an entry begins on a new line with a date, as "2026/11/26  23:12:48:123 text", may go on over several
// lines, and has a blank line before it.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace kv::control {

/// Cuts a log into entries, whose lines are joined by " | ". Bytes may come in pieces of any size.
class LogEntries {
  public:
    /// take: gets each entry, without blanks around it.
    explicit LogEntries(std::function<void(const std::string& entry)> take) : take_(std::move(take)) {}

    void Feed(std::string_view bytes);
    /// Gives the entry at hand, which is complete: the file ends here, or its writer has ended a line.
    void Finish();

  private:
    void TakeLine(std::string_view line);

    std::function<void(const std::string& entry)> take_;
    std::string line_;   // as far as it has come
    std::string entry_;  // as far as its lines have ended
};

/// Whether an entry belongs to every first or normal start and tells nothing that is wrong.
bool IsUsual(std::string_view entry);

/// An entry with one blank between date, time and text, and with the meaning of the error number that it ends with.
std::string ReadableEntry(std::string_view entry);

}  // namespace kv::control
