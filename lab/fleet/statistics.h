// How long requests took, and what went wrong.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "lab/fleet/transfers.h"

namespace kv::lab {

/// The outcomes of one kind of request.
class Statistics {
  public:
    void Take(const TransferOutcome& outcome);

    std::int64_t count() const { return static_cast<std::int64_t>(seconds_.size()); }
    std::int64_t failed() const;
    std::int64_t bytesSent() const { return bytesSent_; }
    std::int64_t bytesReceived() const { return bytesReceived_; }

    /// How often each failure came, by what it says.
    const std::map<std::string, std::int64_t>& failures() const { return failures_; }

    /// The time below which a share of the requests ended, in seconds: 0.5 for the median, 1 for the longest. 0 when
    /// nothing was taken.
    double Quantile(double share) const;

  private:
    std::vector<float> seconds_;
    std::map<std::string, std::int64_t> failures_;
    std::int64_t bytesSent_ = 0;
    std::int64_t bytesReceived_ = 0;
};

}  // namespace kv::lab
