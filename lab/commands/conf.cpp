// kvlab conf push.
#include <algorithm>
#include <fmt/format.h>
#include <optional>

#include "foundation/file_utils.h"
#include "foundation/hash_table.h"
#include "jsontext/hash_json.h"
#include "lab/commands/command_line.h"
#include "lab/commands/request_queue.h"
#include "lab/store/archive.h"
#include "lab/store/requests.h"
#include "platform/backend.h"
#include "platform/utf.h"

namespace kv::lab {

namespace {

/// The text in bytes of UTF-8 or UTF-16LE, with or without a byte order mark; absent when they are neither.
std::optional<std::u16string> PlanText(std::string_view bytes) {
    using namespace std::string_view_literals;
    const bool marked = bytes.starts_with("\xFF\xFE"sv);
    // In UTF-16 the braces and quotes of a plan have zero bytes.
    if (marked || bytes.find('\0') != std::string_view::npos) {
        if (bytes.size() % 2 != 0) return std::nullopt;
        return TextFromUtf16LittleEndian(bytes.substr(marked ? 2 : 0));
    }
    if (bytes.starts_with("\xEF\xBB\xBF"sv)) bytes.remove_prefix(3);
    if (!platform::IsValidUtf8(bytes)) return std::nullopt;
    return platform::WideFromUtf8(bytes);
}

bool EqualIgnoringCase(std::string_view a, std::string_view b) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [&](char x, char y) { return lower(x) == lower(y); });
}

/// What is wrong with the plan of a file, whose workflows must be under this name; empty when nothing is wrong.
std::string PlanFault(const std::string& path, const std::optional<std::u16string>& text, const std::string& name) {
    if (!text) return "is neither UTF-8 nor UTF-16LE";
    const HashTablePtr plan = MakeHashTable();
    const JsonReadResult read = JSONTextToHash(plan.get(), *text);
    if (!read.ok)
        return fmt::format("cannot be read by an agent: {}; kvagentctl check {} tells more", read.message, path);
    return GetHashVector(plan.get(), platform::WideFromUtf8(name)) ? "" : "has no array " + name;
}

void RunConfPush(const Given& given) {
    platform::InstallBackend();  // which the agent's reader of plans works on
    const std::string key = NeededValue(given, "KEY");
    const std::string agent = Value(given, "--agent", key);
    const std::string path = NeededValue(given, "FILE");
    const std::string bytes = ReadPlanFile(path);
    const std::optional<std::u16string> text = PlanText(bytes);
    const std::string fault = PlanFault(path, text, EqualIgnoringCase(key, agent) ? "WorkFlows" : "WorkFlows_" + key);
    if (!fault.empty() && !Has(given, "--force"))
        throw std::runtime_error(fmt::format("{} {}; --force sends it anyway", path, fault));
    const std::string zip = MakeArchive({{"queryconf.txt", text ? Utf16LittleEndianBytes(*text) : bytes}});
    QueueForAgent(given, agent, [&](Store& store) { return AddConfiguration(store, agent, key, zip); });
}

constexpr Word pushWords[] = {
    {"KEY", "the agent whose plan it is"},
    {"FILE", "the plan, JSON in UTF-8 or UTF-16LE; its workflows are under WorkFlows, a slave's under WorkFlows_KEY"},
};

constexpr Option pushOptions[] = {
    databaseOption,
    {"--agent", "KEY", "the agent that fetches it, when KEY is one of its slaves"},
    {"--state", "DIR", "the fetching agent's state directory, as for request add"},
    {"--no-flag", "", "only queue, as for request add"},
    {"--force", "", "send the file even if it is not such a plan, to see how the agent copes"},
};

constexpr Command commands[] = {
    {"conf push",
     "Gives an agent a new plan. Stores the file as a zip to download, queues the request DOWNLOAD_QUERYCONF, and "
     "tells the agent that requests wait. Prints the request's id.",
     pushWords, pushOptions, RunConfPush},
};

}  // namespace

std::span<const Command> ConfigurationCommands() { return commands; }

}  // namespace kv::lab
