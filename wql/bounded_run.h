// Runs a query's work on a separate thread, so that whoever waits for its results waits for a bounded time.
//
// A read from the system may never return: a file of a process that hangs, a device that has died. A thread in such a
// read cannot be ended. It is left alone, keeps what it refers to, and ends when the read returns. While it is stuck,
// no other thread is started under the same name, which is that of the class in the query.
//
// Any thread may call these routines.
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

/// Starts work under a name. NextObject fetches its results until the limit, counted from now, is over. serverTooBusy
/// if a run of that name is stuck, or if the system cannot start a thread. The work goes on to its end unless
/// AbandonRun is called. An exception in the work becomes a failure, with its text as a notice; running out of memory
/// becomes outOfMemory. Throws std::bad_alloc.
WmiStatus StartBoundedRun(std::u16string_view name, std::chrono::milliseconds limit,
                          std::function<WmiStatus(const ResultSink& sink)> work, BoundedRunPtr& run);

/// Waits for the next object: ok; noMore at the end; the work's failure, after its objects; or timedOut, with a notice,
/// once the limit is over.
WmiStatus NextObject(BoundedRun& run, ResultObject& object);

/// Tells the work that no more objects are wanted. Does not wait for the work to end.
void AbandonRun(BoundedRun& run);

/// The notices since the last call.
std::vector<std::u16string> TakeNotices(BoundedRun& run);

}  // namespace kv::wql
