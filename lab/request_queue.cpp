#include "lab/request_queue.h"

#include <cstdlib>
#include <fmt/format.h>

#include "foundation/registry_store.h"
#include "platform/backend.h"
#include "platform/messages.h"
#include "platform/registry.h"
#include "platform/utf.h"

namespace kv::lab {

namespace {

constexpr const char* stateVariable = "KVAGENT_STATE_DIR";
constexpr const char* noFlagHint = "--no-flag only queues, for an agent elsewhere or unheard of";

std::string ErrorText(platform::Error failure) {
    const auto words = platform::Messages().FormatMessageW(failure);
    return fmt::format("{} (error {})", platform::Utf8FromWide(words.value_or(u"")), failure);
}

/// For a message.
std::string PlaceOf(const std::string& stateDirectory) {
    if (!stateDirectory.empty()) return stateDirectory;
    const char* configured = std::getenv(stateVariable);
    return configured && *configured ? configured : "the usual state directory";
}

void RequireAgentSettings(const std::string& place) {
    platform::RegistryKey key = 0;
    const platform::Error failure = platform::Registry().RegOpenKeyExW(platform::RootKey::localMachine, agentKeyPath,
                                                                       platform::RegistryAccess::queryValue, key);
    if (failure == platform::error::fileNotFound)
        throw NotFoundError(fmt::format("there is no agent's registry in {}; {}", place, noFlagHint));
    if (failure != platform::error::success)
        throw std::runtime_error(fmt::format("the registry in {} cannot be read: {}", place, ErrorText(failure)));
    platform::Registry().RegCloseKey(key);
}

/// Makes the registry that the options name the current one, which has to be that of the agent.
void OpenAgentRegistry(const Options& options, const std::string& agent) {
    const std::string stateDirectory = Value(options, "--state");
    if (!stateDirectory.empty()) setenv(stateVariable, stateDirectory.c_str(), 1);
    platform::InstallBackend();
    const std::string place = PlaceOf(stateDirectory);
    RequireAgentSettings(place);
    OptionalText text;
    if (GetOCAgentKey(text) != platform::error::success || !text)
        throw std::runtime_error(fmt::format("the agent of the registry in {} has no key yet; {}", place, noFlagHint));
    const std::string found = platform::Utf8FromWide(*text);
    if (found != agent)
        throw std::runtime_error(
            fmt::format("the registry in {} is that of the agent {}; {}", place, found, noFlagHint));
}

void RaiseRequestFlag() {
    if (const platform::Error failure = SetRequestAvailable(u"YES"))
        throw std::runtime_error("the request is queued, but RequestAvailable cannot be set in the agent's registry: " +
                                 ErrorText(failure));
}

}  // namespace

void QueueForAgent(const Options& options, const std::string& agent, const std::function<std::string(Store&)>& add) {
    const bool flag = !Has(options, "--no-flag");
    Store store = OpenExisting(options);
    if (flag && !AgentExists(store, agent))
        throw NotFoundError(fmt::format("there is no agent with the key {}; {}", agent, noFlagHint));
    if (flag) OpenAgentRegistry(options, agent);
    PrintLine(add(store));
    Flush();
    if (flag) RaiseRequestFlag();
}

}  // namespace kv::lab
