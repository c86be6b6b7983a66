#include "lab/store/record_facts.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <fmt/format.h>
#include <map>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <unordered_set>

#include "lab/store/record_text.h"

namespace kv::lab {

namespace {

constexpr std::int64_t dayMilliseconds = 86'400'000;
constexpr std::int64_t clockTolerance = 300'000;  // milliseconds that a clock may be ahead
constexpr std::int64_t clockStep = 3'600'000;     // what is older came before the clock was set
constexpr std::size_t largeBytes = 1 << 20;

/// Members that say something of the record, not of what it is about.
constexpr std::array<std::string_view, 11> ownMembers{
    "AGENTKEY", "DATACOLLECTTIME",        "ERRORMSG", "MSPCUSTOMERID", "STATUS", "OID", "POLICY_NAME", "PROTOCOL", "ID",
    "TYPE",     "IS_MULTIPLE_POLLED_DATA"};

/// Properties that tell one row from another, the best first.
constexpr std::array<std::string_view, 10> identities{"DeviceID", "Name",    "MountPoint", "Interface", "Device",
                                                      "Path",     "Caption", "name",       "device",    "id"};

/// Numbers that stand for a thing and are not measured.
constexpr std::array<std::string_view, 12> labelNumbers{"Index",           "InterfaceIndex", "IDProcess", "ProcessId",
                                                        "ParentProcessId", "Handle",         "PID",       "pid",
                                                        "SessionId",       "BuildNumber",    "Version",   "id"};

template <std::size_t size>
bool IsOneOf(const std::array<std::string_view, size>& names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

std::string_view StringOf(json_object* value) {
    return {json_object_get_string(value), static_cast<std::size_t>(json_object_get_string_len(value))};
}

std::string Cut(std::string_view text, std::size_t maxBytes) {
    if (text.size() <= maxBytes) return std::string(text);
    while (maxBytes > 0 && (static_cast<unsigned char>(text[maxBytes]) & 0xC0) == 0x80) --maxBytes;
    return std::string(text.substr(0, maxBytes)) + "…";
}

/// "ROW PROPERTY". A long row is cut in its middle: the property says what the value is, and rows tell apart by their
/// ends as often as by their starts.
std::string MemberOf(std::string_view row, std::string_view property) {
    std::string end = Cut(property, maxNameBytes);
    if (row.empty() || end.size() >= maxNameBytes) return end;
    const std::size_t room = maxNameBytes - end.size();
    if (row.size() <= room) return fmt::format("{} {}", row, end);
    std::size_t tail = row.size() - room / 2;
    while (tail < row.size() && (static_cast<unsigned char>(row[tail]) & 0xC0) == 0x80) ++tail;
    return fmt::format("{}{} {}", Cut(row, room - room / 2), row.substr(tail), end);
}

std::optional<std::string_view> TextMember(json_object* document, const char* name) {
    json_object* value = nullptr;
    if (!json_object_object_get_ex(document, name, &value) || !json_object_is_type(value, json_type_string))
        return std::nullopt;
    return StringOf(value);
}

/// A whole decimal number, which numbers with leading zeros are not: they are names of things.
std::optional<double> DecimalNumber(std::string_view text) {
    const std::string_view digits = text.substr(text.starts_with('-') ? 1 : 0);
    if (digits.empty() || digits[0] < '0' || digits[0] > '9') return std::nullopt;
    if (digits.size() > 1 && digits[0] == '0' && digits[1] != '.') return std::nullopt;
    double number = 0;
    const char* const textEnd = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), textEnd, number, std::chars_format::fixed);
    if (error != std::errc() || end != textEnd || !std::isfinite(number)) return std::nullopt;
    return number;
}

std::optional<double> NumberOf(json_object* value) {
    if (json_object_is_type(value, json_type_int) || json_object_is_type(value, json_type_double)) {
        const double number = json_object_get_double(value);
        return std::isfinite(number) ? std::optional(number) : std::nullopt;
    }
    if (!json_object_is_type(value, json_type_string)) return std::nullopt;
    std::string_view text = StringOf(value);
    // Agents write real numbers at least ten characters wide.
    while (text.starts_with(' ')) text.remove_prefix(1);
    return DecimalNumber(text);
}

std::int64_t CollectedAt(json_object* document, std::int64_t arrived) {
    const std::string_view text = TextMember(document, "DATACOLLECTTIME").value_or("");
    std::int64_t time = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), time);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() || time < 0) return arrived;
    constexpr std::int64_t inMilliseconds = 100'000'000'000;  // as seconds it would be the year 5138
    if (time < inMilliseconds) time *= 1000;
    return time > arrived + dayMilliseconds ? arrived : time;
}

bool IsSnmp(json_object* document) {
    return TextMember(document, "OID").has_value() && TextMember(document, "STATUS").has_value();
}

std::string NameOf(json_object* document) {
    if (IsSnmp(document)) {
        const std::string_view policy = TextMember(document, "POLICY_NAME").value_or("");
        return Cut(policy.empty() ? *TextMember(document, "OID") : policy, maxNameBytes);
    }
    json_object_object_foreach(document, name, value) {
        const bool isNested =
            json_object_is_type(value, json_type_array) || json_object_is_type(value, json_type_object);
        if (isNested && !IsOneOf(ownMembers, name)) return Cut(name, maxNameBytes);
    }
    return "";
}

/// Collects values under members that are not taken yet.
class Samples {
  public:
    void Add(const std::string& row, std::string_view property, json_object* value) {
        const bool isLabel = IsOneOf(labelNumbers, property) || (!row.empty() && IsOneOf(identities, property));
        if (samples.size() >= maxSamples || isLabel) return;
        const std::optional<double> number = NumberOf(value);
        if (!number) return;
        samples.push_back({{FreeName(MemberOf(row, property)), *number}, value});
    }

    std::vector<FoundSample> samples;

  private:
    /// The name, or with " #2" and so on the first that is free: a record's values have different names.
    std::string FreeName(const std::string& member) {
        int& times = times_[member];
        while (true) {
            std::string name = ++times == 1 ? member : fmt::format("{} #{}", member, times);
            if (taken_.insert(name).second) return name;
        }
    }

    std::unordered_map<std::string, int> times_;
    std::unordered_set<std::string> taken_;
};

/// What tells a row from others: one of identities, else its first text that is not a number, in the order of its
/// class: agents write a query's last property first.
std::string RowKey(json_object* row, bool lastFirst) {
    for (const std::string_view identity : identities)
        if (const auto text = TextMember(row, identity.data()); text && !text->empty()) return OneLine(*text);
    std::string key;
    json_object_object_foreach(row, name, value) {
        static_cast<void>(name);
        const bool isText = json_object_is_type(value, json_type_string) && !StringOf(value).empty();
        if (isText && !NumberOf(value) && (lastFirst || key.empty())) key = OneLine(StringOf(value));
    }
    return key;
}

void AddRows(Samples& samples, json_object* rows, bool lastFirst) {
    const std::size_t count = json_object_array_length(rows);
    std::unordered_map<std::string, int> keys;
    for (std::size_t at = 0; at < count && samples.samples.size() < maxSamples; ++at) {
        json_object* const row = json_object_array_get_idx(rows, at);
        if (!json_object_is_type(row, json_type_object)) continue;
        std::string key = RowKey(row, lastFirst);
        const int times = ++keys[key];
        if (key.empty() && count > 1) {
            key = "#" + std::to_string(at + 1);
        } else if (times > 1) {
            key += " #" + std::to_string(times);
        }
        json_object_object_foreach(row, name, value) { samples.Add(key, name, value); }
    }
}

void AddObject(Samples& samples, json_object* object) {
    json_object_object_foreach(object, name, value) { samples.Add("", name, value); }
}

}  // namespace

RecordFacts FactsOf(std::string_view agent, const RecordText& record, std::int64_t arrived) {
    RecordFacts facts;
    facts.collected = arrived;
    // Large records are read one at a time, however many come at once: they take much more memory than their text.
    static std::mutex largeRecords;
    std::unique_lock<std::mutex> turn(largeRecords, std::defer_lock);
    if (record.text.size() > largeBytes) turn.lock();
    const ParsedJson parsed = record.isJson ? ParseJson(record.text) : ParsedJson();
    json_object* const document = parsed.value.get();
    if (parsed.tooLarge) {
        facts.failed = true;
        facts.reason = fmt::format("more than {} values: the record is kept, but not read", maxJsonValues);
        return facts;
    }
    if (!json_object_is_type(document, json_type_object)) {
        facts.failed = true;
        const bool isEmpty = record.text.find_first_not_of(" \t\r\n") == std::string::npos;
        facts.reason =
            isEmpty ? "empty record: the script printed nothing"
                    : (parsed.valid ? "not a JSON object: " : "not JSON: ") + Cut(OneLine(record.text), maxNameBytes);
        return facts;
    }
    const std::string_view key = TextMember(document, "AGENTKEY").value_or("");
    if (key != agent) facts.device = Cut(OneLine(key), maxNameBytes);
    facts.name = OneLine(NameOf(document));
    facts.collected = CollectedAt(document, arrived);
    facts.reason = Cut(OneLine(FailureOf(document)), maxReasonBytes);
    facts.failed = !facts.reason.empty();
    for (FoundSample& found : FindSamples(document)) facts.samples.push_back(std::move(found.sample));
    return facts;
}

std::vector<FoundSample> FindSamples(json_object* document) {
    Samples samples;
    const bool isWmi = TextMember(document, "MSPCUSTOMERID").has_value() && !IsSnmp(document);
    json_object_object_foreach(document, name, value) {
        if (IsOneOf(ownMembers, name)) continue;
        if (json_object_is_type(value, json_type_array)) {
            AddRows(samples, value, isWmi);
        } else if (json_object_is_type(value, json_type_object)) {
            AddObject(samples, value);
        } else {
            samples.Add("", name, value);
        }
    }
    return std::move(samples.samples);
}

std::string FailureOf(json_object* document) {
    if (IsSnmp(document)) {
        const std::string_view status = *TextMember(document, "STATUS");
        if (status == "SUCCESS") return "";
        if (status == "FAILURE") return "no answer from the device, or not to all that was asked";
        return "the device's status is " + std::string(status);
    }
    const std::string_view error = TextMember(document, "ERRORMSG").value_or("NO ERROR");
    return error == "NO ERROR" ? "" : error.empty() ? "an empty ERRORMSG" : std::string(error);
}

void SettleFuture(const std::vector<RecordFacts*>& records, std::int64_t arrived) {
    std::map<std::string_view, std::int64_t> newest;  // of each device
    for (const RecordFacts* facts : records) {
        std::int64_t& time = newest[facts->device];
        time = std::max(time, facts->collected);
    }
    for (RecordFacts* facts : records) {
        const std::int64_t time = newest[facts->device];
        const bool isOfThatClock = facts->collected > time - clockStep;
        if (time > arrived + clockTolerance && isOfThatClock) facts->collected -= time - arrived;
    }
}

}  // namespace kv::lab
