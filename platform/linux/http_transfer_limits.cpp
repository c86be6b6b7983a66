#include "platform/linux/http_transfer_limits.h"

#include <algorithm>

namespace platform {

void HttpTransferLimits::NoteConnecting(TimePoint now) {
    BeginWait(now);
    pace_ = HttpPace(now);
}

void HttpTransferLimits::NoteSent(std::int64_t bytes, TimePoint now) {
    BeginWait(now);
    pace_.Count(bytes, now);
}

void HttpTransferLimits::NoteBody(std::int64_t bytes, TimePoint now) {
    lastTraffic_ = now;
    pace_.Count(bytes, now);
}

HttpTransferLimits::Milliseconds HttpTransferLimits::TimeLeft(Stage stage, TimePoint now) const {
    const auto until = [now](TimePoint end) { return std::chrono::ceil<Milliseconds>(end - now); };
    const auto pace = until(pace_.end());
    if (stage == Stage::send) return std::min(pace, until(lastSent_ + sendTimeout_));
    const auto answer = std::min(pace, until(lastTraffic_ + receiveTimeout_));
    return stage == Stage::headers ? std::min(answer, until(lastSent_ + httpHeaderLimit)) : answer;
}

}  // namespace platform
