// A query's work on a thread of its own, so that whoever waits for its results waits for a bounded time.
//
// What is read of the system may never answer: a file of a process that hangs, a device that has died. Such a thread
// cannot be ended; it is left to itself, keeps what it refers to, and ends when the system lets it. While it is stuck
// no further one is started under the same name, so that a class has one or two such threads at the most.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "wql/query.h"

namespace kv::wql {

struct BoundedRun;
using BoundedRunPtr = std::shared_ptr<BoundedRun>;

/// Starts work under a name; its results are fetched with NextObject for up to the limit from now. serverTooBusy when a
/// run of that name is stuck, or when the system gives no thread. The run goes on to its end unless AbandonRun is
/// called.
WmiStatus StartBoundedRun(std::u16string_view name, std::chrono::milliseconds limit,
                          std::function<WmiStatus(const ResultSink& sink)> work, BoundedRunPtr& run);

/// Waits for the next object: ok, noMore at the end, the work's failure after its objects, or timedOut, which leaves a
/// notice, once the limit is over.
WmiStatus NextObject(BoundedRun& run, ResultObject& object);

/// Ends the caller's interest: the work is told that no further objects are wanted.
void AbandonRun(BoundedRun& run);

/// The notices since the last call.
std::vector<std::u16string> TakeNotices(BoundedRun& run);

}  // namespace kv::wql
