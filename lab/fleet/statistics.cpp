#include "lab/fleet/statistics.h"

#include <algorithm>

namespace kv::lab {

void Statistics::Take(const TransferOutcome& outcome) {
    seconds_.push_back(static_cast<float>(outcome.seconds));
    if (!outcome.failure.empty()) ++failures_[outcome.failure];
    bytesSent_ += outcome.bytesSent;
    bytesReceived_ += outcome.bytesReceived;
}

std::int64_t Statistics::failed() const {
    std::int64_t sum = 0;
    for (const auto& [failure, times] : failures_) sum += times;
    return sum;
}

double Statistics::Quantile(double share) const {
    if (seconds_.empty()) return 0;
    std::vector<float> sorted = seconds_;
    const auto place = static_cast<std::ptrdiff_t>(share * static_cast<double>(sorted.size() - 1));
    std::nth_element(sorted.begin(), sorted.begin() + place, sorted.end());
    return sorted[static_cast<std::size_t>(place)];
}

}  // namespace kv::lab
