// Bounds what one piece of a stranger's work writes to the log.
#pragma once

#include <cstdint>
#include <vector>

namespace kv {

/// While one lives, this thread writes each line (each format, that is) at most ten times, or as often as is said; its
/// end writes how many were left out. For work of which the server decides how long it is: a list of requests, a plan,
/// an archive. One within another does nothing, so that the outer one bounds all of it.
class LineBound {
  public:
    explicit LineBound(std::uint32_t most = 10);
    ~LineBound();
    LineBound(const LineBound&) = delete;
    LineBound& operator=(const LineBound&) = delete;

    /// Whether this thread may write a line with this format; counts it. The format lives as long as the bound.
    static bool Admits(const char* format);

  private:
    struct Lines {
        const char* format;
        std::uint32_t count;
    };
    bool AdmitsNext(const char* format);

    std::uint32_t most_;
    bool isOuter_;
    std::vector<Lines> lines_;
};

}  // namespace kv
