// A plan as a server sends it, and all that it tells to collect: read, judged, loaded, each of its records collected
// once. Scripts cannot be started, queries are refused once they have been judged, and of a device only the plan's side
// is real. Behind the byte FF (not one of the first two) come pairs of a place and a byte: a device answers with what
// it was asked, these bytes put over it. Without them it is silent.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "collection/collect.h"
#include "foundation/file_utils.h"
#include "foundation/open_file.h"
#include "fuzz/scratch_agent.h"
#include "lab/store/plans.h"
#include "lab/store/record_text.h"
#include "platform/clock.h"
#include "platform/process.h"
#include "platform/sockets.h"
#include "platform/wmi.h"
#include "queryconf/conf_paths.h"
#include "queryconf/query_config.h"

namespace {

using namespace kv;
namespace error = platform::error;

void Require(bool holds) {
    if (!holds) __builtin_trap();
}

std::string_view changes;  // of the device's answers
std::string answer;        // that waits to be received
platform::SocketAddress asked;
std::int64_t milliseconds = 1'772'701'507'000;

void InstallClock() {
    auto& clock = platform::CurrentOperations<platform::ClockOperations>();
    clock.GetSystemTimeMilliseconds = [] { return milliseconds; };
    clock.GetTickCount64 = [] { return static_cast<std::uint64_t>(milliseconds); };
    clock.Sleep = [](std::uint32_t wait) { milliseconds += wait; };
}

void InstallDevice() {
    auto& sockets = platform::CurrentOperations<platform::SocketOperations>();
    sockets.gethostbyname = [](auto&&...) { return error::hostNotFound; };
    sockets.sendto = [](platform::SocketHandle, const void* bytes, std::size_t length,
                        const platform::SocketAddress& peer, std::size_t& sent) {
        sent = length;
        asked = peer;
        answer.assign(changes.empty() ? "" : static_cast<const char*>(bytes), changes.empty() ? 0 : length);
        for (std::size_t at = 0; at + 1 < changes.size() && !answer.empty(); at += 2)
            answer[static_cast<std::uint8_t>(changes[at]) % answer.size()] = changes[at + 1];
        return error::success;
    };
    sockets.select = [](platform::SocketHandle, std::int64_t microseconds, bool& ready) {
        ready = !answer.empty();
        if (!ready) milliseconds += std::max<std::int64_t>(microseconds, 0) / 1000 + 1;
        return error::success;
    };
    sockets.recvfrom = [](platform::SocketHandle, void* buffer, std::size_t capacity, platform::SocketAddress& peer,
                          std::size_t& received) {
        peer = asked;
        received = std::min(capacity, answer.size());
        std::copy_n(answer.data(), received, static_cast<char*>(buffer));
        answer.clear();
        return received > 0 ? error::success : error::busy;
    };
}

void InstallRefusals() {
    auto& wmi = platform::CurrentOperations<platform::WmiOperations>();
    wmi.ExecQuery = [judge = wmi.JudgeQuery](platform::WmiHandle services, std::u16string_view query, auto&&) {
        bool isJudged = false;
        const platform::WmiStatus status = judge(services, query, isJudged);
        return status != platform::wmi_status::ok ? status : platform::wmi_status::invalidQuery;
    };
    auto& processes = platform::CurrentOperations<platform::ProcessOperations>();
    processes.CreateProcessW = [](auto&&...) { return error::fileNotFound; };
}

/// What the agent itself has written is good JSON, whatever the plan's texts are.
void LookAtRecords() {
    std::vector<std::u16string> paths;
    for (FileSearch search(u"data\\*"); search.hasFile(); search.Next())
        if (!search.file.isDirectory) paths.push_back(u"data\\" + search.file.fileName);
    for (const std::u16string& path : paths) {
        std::string bytes;
        Require(path.ends_with(u".txt") && ReadWholeFile(path, bytes) == error::success);
        Require(lab::DecodeRecord("", bytes).isJson);
        Require(platform::Files().DeleteFileW(path) == error::success);
    }
}

void Collect(const HashTable* workflow) {
    constexpr int mostRecords = 20;
    int count = 0;
    for (const VectorElement* record = GetHashVector(workflow, u"recordSetName")->head; record; record = record->next)
        if (record->type == ValueType::table && ++count <= mostRecords)
            CollectRecord(reinterpret_cast<const HashTable*>(record->value));
}

/// A plan that is judged usable brings a list, empty or with workflows that can run. No other brings a workflow.
void Load() {
    const bool isUsable = JudgeQueryConfig(u"", conf_path::ownPlan) == PlanJudgement::usable;
    LoadQueryConfig(u"", std::nullopt);
    const Vector* workflows =
        agentState.gv_queryConfHash ? GetHashVector(agentState.gv_queryConfHash, u"WorkFlows") : nullptr;
    Require(isUsable ? workflows != nullptr : !workflows || !workflows->head);
    for (const VectorElement* element = workflows ? workflows->head : nullptr; element; element = element->next) {
        Require(WorkflowFault(element) == nullptr);
        Collect(reinterpret_cast<const HashTable*>(element->value));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::ScratchAgent agent;
    static const bool installed = (InstallClock(), InstallDevice(), InstallRefusals(), true);
    if (!installed) return 0;
    const fuzz::InBin inBin(agent);
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::size_t end = std::min(input.find('\xff', 2), size);  // a wide plan begins with it
    changes = input.substr(std::min(end + 1, size));
    agentState.gv_agentKey.Publish(u"1");
    Require(WriteCompleteFile(conf_path::ownPlan, u"plan.new", input.substr(0, end)) == error::success);
    Load();
    LookAtRecords();
    FreeAllHashTable(std::exchange(agentState.gv_queryConfHash, nullptr));
    FreeReplacedPlans();
    return 0;
}
