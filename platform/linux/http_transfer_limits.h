// The time limits of one HTTP transfer: what counts as a sign of life, and how long each wait may do without one.
//
// Knows no clock: every call is told the time, so a test can let days pass. Belongs to one thread.
#pragma once

#include <chrono>
#include <cstdint>

#include "platform/http_rules.h"

namespace platform {

class HttpTransferLimits {
  public:
    using TimePoint = HttpPace::TimePoint;
    using Milliseconds = std::chrono::milliseconds;

    /// What is waited for: that the request has gone out, all headers of the answer, a piece of its body.
    enum class Stage { send, headers, body };

    /// The two limits on silence, while the request goes out and while the answer is waited for.
    HttpTransferLimits(Milliseconds sendTimeout, Milliseconds receiveTimeout, TimePoint now)
        : sendTimeout_(sendTimeout), receiveTimeout_(receiveTimeout), lastSent_(now), lastTraffic_(now), pace_(now) {}

    /// A wait begins, and silence counts from now.
    void BeginWait(TimePoint now) { lastSent_ = lastTraffic_ = now; }

    /// The connection is not there yet: its own limit holds, and these begin when it is.
    void NoteConnecting(TimePoint now);

    /// Bytes of the request have gone out.
    void NoteSent(std::int64_t bytes, TimePoint now);

    /// A header line has come.
    void NoteHeader(TimePoint now) { lastTraffic_ = now; }

    /// Bytes of the body have come.
    void NoteBody(std::int64_t bytes, TimePoint now);

    /// Time until the first limit runs out, should nothing move any more; 0 or less when one has.
    Milliseconds TimeLeft(Stage stage, TimePoint now) const;

  private:
    Milliseconds sendTimeout_;
    Milliseconds receiveTimeout_;
    TimePoint lastSent_;     // a byte went out
    TimePoint lastTraffic_;  // a byte went either way
    HttpPace pace_;          // of the request and of the body
};

}  // namespace platform
