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

/// May block forever. It is called on a thread that may outlive the query, so it has to own what it uses.
using SpaceQuestion = std::function<SpaceAnswer(const std::string& mountPoint)>;

/// statvfs(3).
SpaceAnswer AskFileSystem(const std::string& mountPoint);

/// Asks each mount on a thread of its own, and waits at most the bound for all together. The answers are in the order
/// of the mounts; that of a mount that has not answered is absent, and a notice tells of it. A mount is not asked again
/// while an earlier question to it is open. That question is waited for until its own bound is over: not at all when
/// that has passed.
std::vector<std::optional<SpaceAnswer>> AskMounts(const std::vector<Mount>& mounts, const SpaceQuestion& question,
                                                  std::chrono::milliseconds bound,
                                                  const std::function<void(std::string)>& notice);

}  // namespace kv::facts
