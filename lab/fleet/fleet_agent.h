// One agent of a fleet: its key, and the zips that it makes of records as a real agent collects them.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

namespace kv::lab {

/// A zip that waits until the server has accepted it, as an agent keeps it.
struct WaitingZip {
    std::string name;  // "Agent_FLEET7_12.zip"
    std::string bytes;
};

/// How many zips an agent keeps; while so many wait it collects nothing more. Real agents keep more, on their disks.
inline constexpr std::size_t maxWaitingZips = 20;

class FleetAgent {
  public:
    /// number tells it from the others of its fleet.
    FleetAgent(std::string key, int number);

    const std::string& key() const { return key_; }

    /// What the server calls it from now on.
    void TakeKey(std::string key) { key_ = std::move(key); }

    /// The path with which it registers.
    std::string RegistrationPath() const;

    /// The path with which it says that it stops.
    std::string StopPath() const;

    /// Collects: packs so many records, spread over the time since the last call, into the next zip. `now` is in
    /// seconds since 1970. Throws std::runtime_error when the packer fails.
    void Pack(int records, std::int64_t now);

    std::deque<WaitingZip> waiting;  // oldest first
    bool isRegistered = false;
    bool isBusy = false;    // a pass goes on: each zip is tried once
    std::size_t tried = 0;  // zips at the front that failed in this pass

  private:
    std::string RecordText(std::int64_t collected);

    std::string key_;
    int number_;
    std::int64_t nextFile_ = 1;  // records and zips share one count
    std::int64_t collections_ = 0;
    std::int64_t lastPack_ = 0;
};

}  // namespace kv::lab
