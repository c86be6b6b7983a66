#include "lab/commands/request_queue.h"

#include <cstdlib>
#include <fmt/format.h>

#include "foundation/registry_store.h"
#include "lab/commands/known_names.h"
#include "platform/backend.h"
#include "platform/messages.h"
#include "platform/registry.h"
#include "platform/utf.h"

namespace kv::lab {

namespace {

constexpr const char* stateVariable = "KVAGENT_STATE_DIR";
constexpr const char* noFlagHint = "--no-flag only queues, for an agent that is elsewhere or not known";

std::string ErrorText(platform::Error failure) {
    return fmt::format("{} (error {})", platform::MessageInLine(failure), failure);
}

/// Where the registry is, for messages.
std::string RegistryPlace(const std::string& stateDirectory) {
    if (!stateDirectory.empty()) return stateDirectory;
    const char* configured = std::getenv(stateVariable);
    return configured && *configured ? configured : "/var/lib/kvagent";
}

[[noreturn]] void FailToRead(const std::string& place, platform::Error failure) {
    throw std::runtime_error(fmt::format("the registry in {} cannot be read: {}", place, ErrorText(failure)));
}

void RequireAgentSettings(const std::string& place) {
    platform::OwnedRegistryKey key;
    const platform::Error failure = platform::Registry().RegOpenKeyExW(
        platform::RootKey::localMachine, agentKeyPath, platform::RegistryAccess::queryValue, key.Place());
    if (failure == platform::error::fileNotFound)
        throw NotFoundError(fmt::format(
            "there is no agent's registry in {}; --state names the agent's state directory, {}", place, noFlagHint));
    if (failure != platform::error::success) FailToRead(place, failure);
}

/// The key of the registry's agent; empty when it does not have a key yet.
std::string RegistryAgentKey(const std::string& place) {
    OptionalText key;
    const platform::Error failure = GetOCAgentKey(key);
    if (failure != platform::error::success && failure != platform::error::fileNotFound) FailToRead(place, failure);
    return platform::Utf8FromWide(key.value_or(u""));
}

/// Opens the registry that the options name. It must be that of the agent.
void OpenAgentRegistry(const Given& given, const std::string& agent) {
    const std::string stateDirectory = Value(given, "--state");
    if (!stateDirectory.empty()) setenv(stateVariable, stateDirectory.c_str(), 1);
    platform::InstallBackend();
    platform::InstallRegistry();
    const std::string place = RegistryPlace(stateDirectory);
    RequireAgentSettings(place);
    const std::string found = RegistryAgentKey(place);
    if (found == agent) return;
    const std::string owner = found.empty() ? "an agent without a key" : "the agent " + found;
    throw std::runtime_error(fmt::format("the registry in {} is that of {}; {}", place, owner, noFlagHint));
}

void RaiseRequestFlag(const std::string& id) {
    const platform::Error failure = SetRequestAvailable(u"YES");
    if (failure == platform::error::success) return;
    throw std::runtime_error(
        fmt::format("request {} is queued, but RequestAvailable cannot be set: {}", id, ErrorText(failure)));
}

}  // namespace

void QueueForAgent(const Given& given, const std::string& agent, const std::function<std::string(Store&)>& add) {
    if (!platform::IsValidUtf8(agent)) throw UsageError("'" + agent + "' is not UTF-8");
    const bool flag = !Has(given, "--no-flag");
    Store store = OpenExisting(given);
    if (flag) RequireAgent(store, agent, fmt::format("; {}", noFlagHint));
    if (flag) OpenAgentRegistry(given, agent);
    const std::string id = add(store);
    if (flag) RaiseRequestFlag(id);
    PrintLine(id);
}

}  // namespace kv::lab
