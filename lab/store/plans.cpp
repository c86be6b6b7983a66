#include "lab/store/plans.h"

#include "foundation/file_utils.h"
#include "lab/store/archive.h"
#include "lab/store/record_text.h"
#include "platform/utf.h"

namespace kv::lab {

namespace {

constexpr std::string_view planFile = "queryconf.txt";
constexpr std::size_t maxPlanRecords = 200;

/// A plan is written by hand: it may have comments.
Json ParsePlan(const std::string& text) {
    const std::unique_ptr<json_tokener, platform::ReleasedBy<json_tokener_free>> reader(
        json_tokener_new_ex(maxJsonDepth));
    return Json(json_tokener_parse_ex(reader.get(), text.data(), static_cast<int>(text.size())));
}

/// In either encoding, with or without its mark.
std::string PlanText(std::string_view bytes) {
    using namespace std::string_view_literals;
    const bool marked = bytes.starts_with("\xFF\xFE"sv);
    if (marked || bytes.find('\0') != std::string_view::npos)
        return platform::Utf8FromWide(TextFromUtf16LittleEndian(bytes.substr(marked ? 2 : 0)));
    if (bytes.starts_with("\xEF\xBB\xBF"sv)) bytes.remove_prefix(3);
    return CleanUtf8(bytes);
}

std::string Member(json_object* object, const char* name) {
    json_object* value = nullptr;
    if (!json_object_object_get_ex(object, name, &value) || value == nullptr) return "";
    return CleanUtf8(json_object_get_string(value));
}

PlannedRecord RecordOf(const std::string& workflow, const std::string& interval, json_object* record) {
    PlannedRecord planned{workflow, interval, Member(record, "Name"), "", Member(record, "wmiQuery")};
    if (planned.source.empty()) planned.source = Member(record, "script");
    const std::string oids = Member(record, "OID");
    if (oids.empty()) return planned;
    planned.device = Member(record, "DEVICE_NAME");
    planned.source = "SNMP " + oids;
    if (planned.name.empty()) planned.name = Member(record, "POLICY_NAME");
    return planned;
}

void AddWorkflow(std::vector<PlannedRecord>& records, json_object* workflow) {
    json_object* list = nullptr;
    if (!json_object_object_get_ex(workflow, "recordSetName", &list) || !json_object_is_type(list, json_type_array))
        return;
    for (std::size_t at = 0; at < json_object_array_length(list) && records.size() < maxPlanRecords; ++at)
        records.push_back(
            RecordOf(Member(workflow, "wfname"), Member(workflow, "interval"), json_object_array_get_idx(list, at)));
}

}  // namespace

bool KeepStartPlan(Store& store, std::string_view bytes) {
    if (RecordsOfPlan(PlanText(bytes)).empty()) return false;
    const std::string zip = MakeArchive({{std::string(planFile), std::string(bytes)}});
    Transaction transaction(*store.database);
    Execute(*store.database, "DELETE FROM conf WHERE agent = ''");
    Execute(*store.database, "INSERT INTO conf (agent, zip, time) VALUES ('', ?, ?)", Blob{zip}, Now());
    transaction.Commit();
    return true;
}

std::optional<std::string> KnownPlan(Store& store, std::string_view agent) {
    Statement row(*store.database,
                  "SELECT zip FROM conf WHERE agent = ? OR agent = '' ORDER BY agent DESC, number DESC LIMIT 1", agent);
    if (!row.Step()) return std::nullopt;
    std::optional<std::string> text;
    try {
        ReadArchive(row.text(0), [&](const std::string&, std::string_view content) { text = PlanText(content); });
    } catch (const MalformedArchive&) {
        return std::nullopt;
    }
    return text;
}

std::vector<PlannedRecord> RecordsOfPlan(const std::string& text) {
    std::vector<PlannedRecord> records;
    const Json plan = ParsePlan(text);
    if (!json_object_is_type(plan.get(), json_type_object)) return records;
    json_object_object_foreach(plan.get(), name, workflows) {
        static_cast<void>(name);
        if (!json_object_is_type(workflows, json_type_array)) continue;
        for (std::size_t at = 0; at < json_object_array_length(workflows); ++at)
            if (json_object* workflow = json_object_array_get_idx(workflows, at);
                json_object_is_type(workflow, json_type_object))
                AddWorkflow(records, workflow);
    }
    return records;
}

}  // namespace kv::lab
