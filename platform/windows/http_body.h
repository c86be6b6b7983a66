// The body of one answer. WinHTTP may let a body that breaks off look like one that is whole, so its bytes are counted
// here against the length that the server has declared.
//
// Belongs to the thread that reads it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "platform/http_rules.h"
#include "platform/windows/http_calls.h"

namespace platform {

class HttpBody {
  public:
    /// Of the request's answer, whose headers have come. The request stays the caller's and open.
    explicit HttpBody(HINTERNET request);

    /// Waits until bytes are there, and says how many; 0 at the end. The first failure stays.
    Error Wait(std::size_t& available);

    /// Takes size bytes that are there; the number taken. A failure shows at the next wait.
    std::size_t Take(std::byte* buffer, std::size_t size);

  private:
    Error Ask(DWORD& available) const;
    Error End() const;

    HINTERNET request_;
    std::optional<std::uint64_t> declared_;  // null where the end shows otherwise
    std::uint64_t received_ = 0;
    std::optional<Error> end_;  // set once the body is over: success, or why it broke off
    HttpPace pace_;
};

}  // namespace platform
