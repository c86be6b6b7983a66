// What the agent has done since its start, and how it went: counts, and the last event of each kind. Whoever does
// something says so here in one line; agent/health_report.h tells it to people, to the service manager and to programs.
//
// Counts and times are atomics: to count costs no lock, and a reader may see one count a moment before another. The
// texts of events are guarded by a lock, which is held for a copy. Everything is callable from any thread, and throws
// nothing.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "foundation/log.h"
#include "platform/threads.h"

namespace kv {

using HealthCount = std::atomic<std::uint64_t>;

struct AgentHealth {
    HealthCount workflowsRun{0};
    HealthCount recordsWritten{0};
    HealthCount recordsLost{0};
    HealthCount queriesFailed{0};  // queries, polls and scripts of records; each still made its record if it could
    HealthCount zipsMade{0};
    HealthCount uploadsAccepted{0};
    HealthCount bytesUploaded{0};  // of accepted zips
    HealthCount uploadsFailed{0};
    HealthCount requestsServed{0};
    HealthCount requestsRefused{0};  // unknown, or without what they need

    // Seconds since 1970, 0 for never.
    std::atomic<std::int64_t> startTime{0};
    std::atomic<std::int64_t> lastContactTime{0};     // the server answered anything
    std::atomic<std::int64_t> collectionStopTime{0};  // 0 while it runs

    std::atomic<bool> isReportOver{false};  // the last report of this run has begun; none comes after it

    /// Set by events of weight; 0 while nobody waits for them. Never closed.
    std::atomic<platform::EventHandle> wake{0};
};

/// The one record of this process.
extern AgentHealth agentHealth;

/// The last event of each kind. Times are seconds since 1970, 0 for never; texts are UTF-8, of one line.
struct LastEvents {
    std::int64_t uploadTime = 0;  // of an accepted upload
    std::string uploadAddress;    // the address and port that accepted it
    std::int64_t registrationTime = 0;
    std::string registration;  // what it came to; before there is a time, that it is being tried
    std::int64_t failureTime = 0;
    std::string failure;  // what failed and why

    // Of requests to the server.
    std::int64_t sendingFailureTime = 0;
    std::string sendingFailure;          // the last one
    bool isTrustFailure = false;         // its certificate was refused, or nothing may be sent
    std::int64_t sendingFailsSince = 0;  // the first upload or registration that failed after the last accepted one

    std::string obstacle;             // why nothing is collected, and what ends that; empty when nothing is in the way
    std::string missingPlan;          // for whom nothing is collected while it is for others, why, and what ends that
    std::int64_t lostRecordTime = 0;  // when a record was last lost
    std::string lostRecord;           // which one, and why
};

/// What a failure was about.
enum class FailureKind {
    local,    // collecting, or files
    sending,  // a request to the server
    trust,    // one that was not sent, because the server is not trusted
};

/// Throws std::bad_alloc.
LastEvents ReadLastEvents();

/// The server answered, whatever it said.
void NoteContact() noexcept;

/// An accepted upload, at an address and port.
void NoteUpload(std::u16string_view address, std::int32_t port, std::uint64_t bytes) noexcept;
/// The reason has been noted as a failure of sending.
void NoteFailedUpload() noexcept;

/// The first registration is on its way. Without effect once there was an outcome.
void NoteRegistrationBegun() noexcept;

/// Between that and the outcome.
bool IsRegisteringFirst() noexcept;

/// What a registration that gave the agent its key came to.
inline constexpr std::string_view registeredOutcome = "registered";

/// What a registration came to: the server's answer, or why it gave none that can be used.
void NoteRegistration(std::string_view outcome) noexcept;
void NoteFailedRegistration(std::string_view outcome) noexcept;

/// Why nothing can be collected, and what ends that; an empty text when something can be again.
void NoteObstacle(std::string_view text) noexcept;

/// That nothing is collected for one of several agents, why, and what ends that; an empty text when all have plans.
void NoteMissingPlan(std::string_view text) noexcept;

void NoteCollectionStopped() noexcept;
void NoteCollectionResumed() noexcept;

void NoteFailureText(std::string text, FailureKind kind) noexcept;

/// Makes what failed, and why, the last failure. makeText returns it; when that throws, as without memory, the former
/// failure stays the last one.
template <class MakeText>
void NoteFailureOf(const MakeText& makeText, FailureKind kind = FailureKind::local) noexcept {
    try {
        NoteFailureText(makeText(), kind);
    } catch (...) {
        // To tell of a failure must not be another one.
    }
}

/// The same, as a log line in its format and arguments; it writes none. An argument that is made for it may throw
/// before the call: NoteFailureOf takes those.
template <class... Arguments>
void NoteFailure(const char* format, const Arguments&... arguments) noexcept {
    NoteFailureOf([&] { return LogText(format, arguments...); });
}

/// A record of a name in the plan, whose file this is, could not be written.
void NoteLostRecord(std::u16string_view name, std::u16string_view path, platform::Error reason) noexcept;

/// A record's file could not be packed into a zip.
void NoteUnpackedRecord(std::u16string_view path) noexcept;

/// A query, poll or script of a record failed.
template <class... Arguments>
void NoteFailedQuery(const char* format, const Arguments&... arguments) noexcept {
    ++agentHealth.queriesFailed;
    NoteFailure(format, arguments...);
}

/// Wakes whoever reports the agent's health.
void WakeHealthReport() noexcept;

/// Starts over: nothing has happened. For a new run in this process, while no other thread reports.
void ResetAgentHealth();

}  // namespace kv
