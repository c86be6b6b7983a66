// Reads and makes zips with libzip, which is independent of the agent's own reader and writer.
#pragma once

#include <cstddef>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kv::lab {

/// Bounds on what one upload may cost. A zip holds at most 2501 record files, which are large if scripts print a lot.
inline constexpr std::size_t maxBodyBytes = std::size_t{256} << 20;
inline constexpr std::size_t maxEntryBytes = std::size_t{64} << 20;
inline constexpr std::size_t maxArchiveBytes = std::size_t{1} << 30;  // all entries, unpacked

/// Why an archive is refused, in one line.
struct MalformedArchive : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Receives one file of an archive; folders are left out.
using EntrySink = std::function<void(const std::string& name, std::string_view content)>;

/// Checks an archive's consistency and reads every entry to its end, so that each CRC is verified. Hands the entries
/// over in order. MalformedArchive at the first fault, or when a bound above is exceeded.
void ReadArchive(std::string_view bytes, const EntrySink& sink);

/// Names and contents.
using ArchiveFiles = std::vector<std::pair<std::string, std::string>>;

/// A zip of these files. Throws std::runtime_error if it cannot be made.
std::string MakeArchive(const ArchiveFiles& files);

}  // namespace kv::lab
