#include "agent/health_file.h"

#include <json-c/json.h>
#include <memory>
#include <new>

#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/text.h"
#include "foundation/time_utils.h"
#include "foundation/version.h"
#include "platform/messages.h"
#include "platform/process.h"
#include "platform/utf.h"

namespace kv {

namespace {

using Json = std::unique_ptr<json_object, decltype(&json_object_put)>;

/// Bytes. The agent writes some two thousand; more comes from somebody else.
constexpr std::uint64_t largestFile = std::uint64_t{1} << 20;

constexpr HealthCountName healthCounts[] = {
    {"workflowsRun", "workflows_run", "Workflows that were run", &AgentHealth::workflowsRun},
    {"recordsWritten", "records_written", "Record files that were written", &AgentHealth::recordsWritten},
    {"recordsLost", "records_lost", "Records that could not be written or packed", &AgentHealth::recordsLost},
    {"queriesFailed", "queries_failed", "Queries, polls and scripts of records that failed",
     &AgentHealth::queriesFailed},
    {"zipsMade", "zips_made", "Zips that records were packed into", &AgentHealth::zipsMade},
    {"uploadsAccepted", "uploads_accepted", "Zips that the server accepted", &AgentHealth::uploadsAccepted},
    {"bytesUploaded", "uploaded_bytes", "Bytes of the zips that the server accepted", &AgentHealth::bytesUploaded},
    {"uploadsFailed", "uploads_failed", "Uploads of a zip that failed and are tried again",
     &AgentHealth::uploadsFailed},
    {"requestsServed", "requests_served", "Requests of the server that were served", &AgentHealth::requestsServed},
    {"requestsRefused", "requests_refused", "Requests of the server that were refused", &AgentHealth::requestsRefused},
};

// The members of the file, in its order, by type.
struct TextMember {
    const char* key;
    std::string HealthSnapshot::*member;
};
struct NumberMember {
    const char* key;
    std::int64_t HealthSnapshot::*member;
};
struct TruthMember {
    const char* key;
    bool HealthSnapshot::*member;
};
constexpr TextMember texts[] = {
    {"version", &HealthSnapshot::version},         {"directory", &HealthSnapshot::directory},
    {"lastAddress", &HealthSnapshot::lastAddress}, {"registration", &HealthSnapshot::registration},
    {"lastFailure", &HealthSnapshot::lastFailure}, {"sendingFailure", &HealthSnapshot::sendingFailure},
    {"obstacle", &HealthSnapshot::obstacle},       {"missingPlan", &HealthSnapshot::missingPlan},
    {"lostRecord", &HealthSnapshot::lostRecord},
};
constexpr NumberMember numbers[] = {
    {"processId", &HealthSnapshot::processId},
    {"startTime", &HealthSnapshot::startTime},
    {"writeTime", &HealthSnapshot::writeTime},
    {"lastUploadTime", &HealthSnapshot::lastUploadTime},
    {"lastContactTime", &HealthSnapshot::lastContactTime},
    {"registrationTime", &HealthSnapshot::registrationTime},
    {"collectionStopTime", &HealthSnapshot::collectionStopTime},
    {"lastFailureTime", &HealthSnapshot::lastFailureTime},
    {"sendingFailureTime", &HealthSnapshot::sendingFailureTime},
    {"sendingFailsSince", &HealthSnapshot::sendingFailsSince},
    {"lostRecordTime", &HealthSnapshot::lostRecordTime},
};
constexpr TruthMember truths[] = {
    {"isInConsole", &HealthSnapshot::isInConsole},
    {"isCollecting", &HealthSnapshot::isCollecting},
    {"isTrustFailure", &HealthSnapshot::isTrustFailure},
};
constexpr const char* countsKey = "counts";

/// Adds a member; without memory for it, throws std::bad_alloc.
void Add(json_object* object, const char* key, json_object* value) {
    if (value && json_object_object_add(object, key, value) == 0) return;
    json_object_put(value);
    throw std::bad_alloc();
}

json_object* NewObject() {
    json_object* made = json_object_new_object();
    return made ? made : throw std::bad_alloc();
}

std::string HealthText(const HealthSnapshot& health) {
    const Json file(NewObject(), json_object_put);
    for (const TextMember& text : texts) {
        const std::string& value = health.*text.member;
        Add(file.get(), text.key, json_object_new_string_len(value.data(), static_cast<int>(value.size())));
    }
    for (const NumberMember& number : numbers)
        Add(file.get(), number.key, json_object_new_int64(health.*number.member));
    for (const TruthMember& truth : truths) Add(file.get(), truth.key, json_object_new_boolean(health.*truth.member));
    json_object* counts = NewObject();
    Add(file.get(), countsKey, counts);
    for (const auto& [name, count] : health.counts) Add(counts, name.c_str(), json_object_new_uint64(count));
    const int form = JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED | JSON_C_TO_STRING_NOSLASHESCAPE;
    const char* text = json_object_to_json_string_ext(file.get(), form);
    return text ? std::string(text) + "\n" : throw std::bad_alloc();
}

/// The member of an object, if it has the type; null otherwise.
json_object* Member(const json_object* object, const char* key, json_type type) {
    json_object* value = nullptr;
    return json_object_object_get_ex(object, key, &value) && json_object_is_type(value, type) ? value : nullptr;
}

HealthSnapshot SnapshotOf(const json_object* file) {
    HealthSnapshot health;
    for (const TextMember& text : texts) {
        if (json_object* value = Member(file, text.key, json_type_string))
            (health.*text.member)
                .assign(json_object_get_string(value), static_cast<std::size_t>(json_object_get_string_len(value)));
    }
    for (const NumberMember& number : numbers) {
        if (const json_object* value = Member(file, number.key, json_type_int))
            health.*number.member = json_object_get_int64(value);
    }
    for (const TruthMember& truth : truths) {
        if (const json_object* value = Member(file, truth.key, json_type_boolean))
            health.*truth.member = json_object_get_boolean(value) != 0;
    }
    const json_object* counts = Member(file, countsKey, json_type_object);
    for (const HealthCountName& known : HealthCounts()) {
        const std::string name(known.name);
        if (const json_object* value = counts ? Member(counts, name.c_str(), json_type_int) : nullptr)
            health.counts.emplace_back(name, json_object_get_uint64(value));
    }
    return health;
}

}  // namespace

std::span<const HealthCountName> HealthCounts() { return healthCounts; }

bool IsDistrusting(const HealthSnapshot& health) {
    return health.isTrustFailure && health.sendingFailureTime > health.lastContactTime;
}

HealthSnapshot CurrentHealth() {
    const LastEvents events = ReadLastEvents();
    HealthSnapshot health{
        .version = std::string(programVersion),
        .directory = platform::Utf8FromWide(platform::Files().NativePath(agentState.gv_ocAgentBinPath.value_or(u""))),
        .processId = platform::Processes().GetCurrentProcessId(),
        .startTime = agentHealth.startTime,
        .writeTime = GetNowSeconds(),
        .lastAddress = events.uploadAddress,
        .lastUploadTime = events.uploadTime,
        .lastContactTime = agentHealth.lastContactTime,
        .registrationTime = events.registrationTime,
        .registration = events.registration,
        .isInConsole = agentState.gv_serviceStatusHandle == 0,
        .isCollecting = agentState.gv_collectData != 0,
        .collectionStopTime = agentHealth.collectionStopTime,
        .obstacle = events.obstacle,
        .missingPlan = events.missingPlan,
        .lostRecordTime = events.lostRecordTime,
        .lostRecord = events.lostRecord,
        .lastFailureTime = events.failureTime,
        .lastFailure = events.failure,
        .sendingFailureTime = events.sendingFailureTime,
        .sendingFailure = events.sendingFailure,
        .isTrustFailure = events.isTrustFailure,
        .sendingFailsSince = events.sendingFailsSince,
        .counts = {},
    };
    for (const HealthCountName& known : healthCounts)
        health.counts.emplace_back(known.name, (agentHealth.*known.count).load());
    return health;
}

std::u16string HealthFilePath(std::u16string_view binPath) { return ConcatStrings(binPath, u"..\\logs\\status.json"); }

platform::Error WriteHealthFile(std::u16string_view path, const HealthSnapshot& health) {
    return ReplaceFile(path, ConcatStrings(path, u".tmp"), HealthText(health), Readers::ownerAndGroup);
}

std::optional<HealthSnapshot> ReadHealthFile(std::u16string_view path, std::string& failure) {
    std::string content;
    if (const platform::Error error = ReadWholeFile(path, content, largestFile)) {
        failure = platform::MessageInLine(error);
        return std::nullopt;
    }
    const Json file(json_tokener_parse(content.c_str()), json_object_put);
    if (!file || !json_object_is_type(file.get(), json_type_object) ||
        !Member(file.get(), "version", json_type_string)) {
        failure = "it is damaged, or not the file of an agent";
        return std::nullopt;
    }
    return SnapshotOf(file.get());
}

}  // namespace kv
