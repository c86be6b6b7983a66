// Lines from a person at a terminal: with editing, history and completion where the system has them.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

/// On Linux Ctrl-C gives up the line, Tab completes, and the lines are kept for the next time in the user's state
/// directory (XDG_STATE_HOME, or ~/.local/state), readable by the user alone. On Windows the console edits lines
/// itself. One at a time, on one thread. Texts are UTF-8.
class LinePrompt {
  public:
    /// Gives the words that may stand in the place of a line's last one. The line ends at the cursor.
    using Complete = std::function<std::vector<std::string>(std::string_view line)>;

    /// program: names the file of the history's folder. prompt: what stands ahead of each line.
    LinePrompt(const std::string& program, const std::string& prompt, Complete complete);
    ~LinePrompt();
    LinePrompt(const LinePrompt&) = delete;
    LinePrompt& operator=(const LinePrompt&) = delete;

    /// The next line without its end; absent at the end of input (Ctrl-D). A line that is given up is not returned.
    std::optional<std::string> Read();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace platform
