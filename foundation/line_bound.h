// Bounds what one piece of work for a stranger writes to the log.
#pragma once

#include <cstdint>
#include <vector>

namespace kv {

/// While one lives, its thread writes lines of each format at most ten times, or `most` times; its end writes how many
/// were left out. For work whose length the server decides: a list of requests, a plan, an archive. A bound within
/// another counts for itself, and the lines that it admits count for the outer one, too. Bounds end in the reverse
/// order of their beginnings.
class LineBound {
  public:
    static constexpr std::uint32_t few = 10;

    explicit LineBound(std::uint32_t most = few);
    ~LineBound();
    LineBound(const LineBound&) = delete;
    LineBound& operator=(const LineBound&) = delete;

    /// While one lives, the bound around it admits at most ten lines of a format: for what is refused without work, of
    /// which a server can send any number. Does nothing without a bound.
    class OfRefusal {
      public:
        OfRefusal();
        ~OfRefusal();
        OfRefusal(const OfRefusal&) = delete;
        OfRefusal& operator=(const OfRefusal&) = delete;

      private:
        std::uint32_t former_;
    };

    /// Whether this thread may write a line with this format; counts it. The format is known by its address and must
    /// outlive the bound. Throws std::bad_alloc.
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
