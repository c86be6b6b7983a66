// Asking mounts for their space without waiting for those that do not answer.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "facts/storage/mounts.h"

namespace kv::facts {

struct SpaceAnswer {
    int error = 0;  // errno, or 0
    FileSystemSpace space;
};

/// May block forever. It is called on a thread that may outlive the query, so it must own what it uses, and must not
/// throw.
using SpaceQuestion = std::function<SpaceAnswer(const std::string& mountPoint)>;

/// statvfs(3).
SpaceAnswer AskFileSystem(const std::string& mountPoint);

/// Asks each mount on a separate thread, and waits at most the bound for all of them together. The answers are in the
/// order of the mounts. The answer of a mount that stays silent, or for which no thread can be started, is absent, and
/// a notice says so. A mount is not asked again while an earlier question to it is open: that question is waited for
/// instead, until the bound has passed since it was asked, and not at all once anyone has waited for it in vain.
std::vector<std::optional<SpaceAnswer>> AskMounts(const std::vector<Mount>& mounts, const SpaceQuestion& question,
                                                  std::chrono::milliseconds bound,
                                                  const std::function<void(std::string)>& notice);

}  // namespace kv::facts
