#include "foundation/agent_health.h"

#include <memory>
#include <mutex>
#include <utility>

#include "foundation/time_utils.h"
#include "platform/files.h"
#include "platform/messages.h"

namespace kv {

AgentHealth agentHealth;

namespace {

struct {
    std::mutex lock;
    LastEvents last;
} events;

void NoteFailedSending() noexcept {
    const std::lock_guard hold(events.lock);
    if (events.last.sendingFailsSince == 0) events.last.sendingFailsSince = GetNowSeconds();
}

void NoteOutcome(std::string_view outcome) noexcept {
    try {
        std::string text(outcome);
        const std::lock_guard hold(events.lock);
        events.last.registrationTime = GetNowSeconds();
        events.last.registration = std::move(text);
    } catch (...) {
        // The former registration stays the last one.
    }
    WakeHealthReport();
}

/// Makes a text the last of its kind, and tells it.
void NoteText(std::string LastEvents::*member, std::string_view text) noexcept {
    try {
        std::string copy(text);
        const std::lock_guard hold(events.lock);
        events.last.*member = std::move(copy);
    } catch (...) {
        // The former text stays.
    }
    WakeHealthReport();
}

/// Plans and answers bring texts of any length, and a line for people has to stay one: its beginning and end tell what
/// failed and why. The text is UTF-8.
std::string WithoutMiddle(std::string text) {
    constexpr std::size_t half = 500;
    if (text.size() <= 2 * half) return text;
    const auto characterAt = [&text](std::size_t at) {
        while (at > 0 && (static_cast<unsigned char>(text[at]) & 0xc0) == 0x80) --at;
        return at;
    };
    const std::size_t start = characterAt(half);
    return text.replace(start, characterAt(text.size() - half) - start, "...");
}

/// Counts a record that is lost; makeText tells which one and why.
template <class MakeText>
void NoteLoss(const MakeText& makeText) noexcept {
    ++agentHealth.recordsLost;
    NoteFailureOf([&] {
        std::string text = WithoutMiddle(makeText());
        std::string copy = text;
        const std::lock_guard hold(events.lock);
        events.last.lostRecordTime = GetNowSeconds();
        events.last.lostRecord = std::move(copy);
        return text;
    });
}

}  // namespace

LastEvents ReadLastEvents() {
    const std::lock_guard hold(events.lock);
    return events.last;
}

void NoteContact() noexcept { agentHealth.lastContactTime = GetNowSeconds(); }

void NoteUpload(std::u16string_view address, std::int32_t port, std::uint64_t bytes) noexcept {
    ++agentHealth.uploadsAccepted;
    agentHealth.bytesUploaded += bytes;
    try {
        std::string text = LogText("%s:%d", address, port);
        const std::lock_guard hold(events.lock);
        events.last.uploadTime = GetNowSeconds();
        events.last.uploadAddress = std::move(text);
        events.last.sendingFailsSince = 0;
    } catch (...) {
        // The count stands; the former upload stays the last one.
    }
    WakeHealthReport();
}

void NoteFailedUpload() noexcept {
    ++agentHealth.uploadsFailed;
    NoteFailedSending();
    WakeHealthReport();
}

void NoteRegistrationBegun() noexcept {
    try {
        std::string text("is being tried");
        const std::lock_guard hold(events.lock);
        if (events.last.registrationTime != 0) return;
        events.last.registration = std::move(text);
    } catch (...) {
        // It is told of when there is an outcome.
    }
    WakeHealthReport();
}

bool IsRegisteringFirst() noexcept {
    const std::lock_guard hold(events.lock);
    return events.last.registrationTime == 0 && !events.last.registration.empty();
}

void NoteRegistration(std::string_view outcome) noexcept {
    {
        const std::lock_guard hold(events.lock);
        events.last.sendingFailsSince = 0;
    }
    NoteOutcome(outcome);
}

void NoteFailedRegistration(std::string_view outcome) noexcept {
    NoteFailedSending();
    NoteOutcome(outcome);
}

void NoteObstacle(std::string_view text) noexcept { NoteText(&LastEvents::obstacle, text); }

void NoteMissingPlan(std::string_view text) noexcept { NoteText(&LastEvents::missingPlan, text); }

void NoteCollectionStopped() noexcept {
    agentHealth.collectionStopTime = GetNowSeconds();
    WakeHealthReport();
}

void NoteCollectionResumed() noexcept {
    agentHealth.collectionStopTime = 0;
    WakeHealthReport();
}

void NoteLostRecord(std::u16string_view name, std::u16string_view path, platform::Error reason) noexcept {
    NoteLoss([&] {
        return LogText("the record %s in %s cannot be written and is lost: %s", name,
                       platform::Files().NativePath(path), platform::MessageInLine(reason));
    });
}

void NoteUnpackedRecord(std::u16string_view path) noexcept {
    NoteLoss([&] { return LogText("the record %s could not be packed and is lost", path); });
}

void NoteFailureText(std::string text, FailureKind kind) noexcept {
    try {
        text = WithoutMiddle(std::move(text));
        const std::lock_guard hold(events.lock);
        events.last.failureTime = GetNowSeconds();
        if (kind != FailureKind::local) {
            events.last.sendingFailure = text;
            events.last.sendingFailureTime = events.last.failureTime;
            events.last.isTrustFailure = kind == FailureKind::trust;
        }
        events.last.failure = std::move(text);
    } catch (...) {
        // The former failure stays the last one.
    }
    if (IsRegisteringFirst()) WakeHealthReport();
}

void WakeHealthReport() noexcept {
    if (const platform::EventHandle event = agentHealth.wake) platform::Threads().SetEvent(event);
}

void ResetAgentHealth() {
    std::destroy_at(&agentHealth);
    std::construct_at(&agentHealth);
    const std::lock_guard hold(events.lock);
    events.last = LastEvents();
}

}  // namespace kv
