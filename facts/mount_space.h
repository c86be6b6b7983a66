// Asking mounts for their space without waiting for those that do not answer.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "facts/mounts.h"

namespace kv::facts {

struct SpaceAnswer {
    int error = 0;  // errno, or 0
    FileSystemSpace space;
};

/// May block for ever. Called on a thread that outlives the query, so it owns what it uses.
using SpaceQuestion = std::function<SpaceAnswer(const std::string& mountPoint)>;

/// statvfs(3).
SpaceAnswer AskFileSystem(const std::string& mountPoint);

/// Asks each mount on a thread of its own and waits for all together no longer than the bound; in the order of the
/// mounts, with none for one that has not answered, of which a notice tells. No mount is asked while an earlier
/// question to it is open: such a question is waited for until its own bound is over, thus not at all when it is long
/// past.
std::vector<std::optional<SpaceAnswer>> AskMounts(const std::vector<Mount>& mounts, const SpaceQuestion& question,
                                                  std::chrono::milliseconds bound,
                                                  const std::function<void(std::string)>& notice);

}  // namespace kv::facts
