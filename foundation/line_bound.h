// Bounds what one piece of a stranger's work writes to the log.
#pragma once

#include <cstdint>
#include <vector>

namespace kv {

/// While one lives, this thread writes each line (each format, that is) at most ten times, or as often as is said; its
/// end writes how many were left out. For work of which the server decides how long it is: a list of requests, a plan,
/// an archive. One within another counts for itself, and its lines count for the outer one, too.
class LineBound {
  public:
    static constexpr std::uint32_t few = 10;

    explicit LineBound(std::uint32_t most = few);
    ~LineBound();
    LineBound(const LineBound&) = delete;
    LineBound& operator=(const LineBound&) = delete;

    /// While one lives, ten lines of a format are the most of the bound around it: for what is refused without work, of
    /// which a server can send any number.
    class OfRefusal {
      public:
        OfRefusal();
        ~OfRefusal();
        OfRefusal(const OfRefusal&) = delete;
        OfRefusal& operator=(const OfRefusal&) = delete;

      private:
        std::uint32_t former_;
    };

    /// Whether this thread may write a line with this format; counts it. The format lives as long as the bound.
    static bool Admits(const char* format);

  private:
    struct Lines {
        const char* format;
        std::uint32_t written;
        std::uint32_t leftOut;
    };
    bool AdmitsNext(const char* format);

    std::uint32_t most_;
    LineBound* outer_;
    std::vector<Lines> lines_;
};

}  // namespace kv
