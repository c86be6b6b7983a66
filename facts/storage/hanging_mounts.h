// Asking for files that may lie on mounts which never answer: those of servers, of programs, and of automounters.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "facts/storage/mounts.h"

namespace kv::facts {

/// The mount on the way to a path that may not answer; null if all do. Links are followed, and nothing beyond such a
/// mount is touched. Where mounts that may hang lie in each other it is the deepest; its type is autofs when nothing is
/// mounted there yet, and looking would start the automounter. The path begins with a slash.
const Mount* HangingMountOf(const std::string& path, const std::vector<Mount>& mounts);

/// Runs a routine on a thread of its own and waits for it up to the bound. False if it has not ended then: the thread
/// is left alone. As long as one is left alone under a key, no other is started under it, and the answer is false at
/// once. The routine must own what it uses, and must not throw. Any thread may call this. Throws std::system_error when
/// no thread can be started.
bool RunBounded(const std::string& key, std::chrono::milliseconds bound, std::function<void()> routine);

}  // namespace kv::facts
