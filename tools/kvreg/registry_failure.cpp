#include "tools/kvreg/registry_failure.h"

#include <fmt/format.h>

#include "platform/console_tool.h"
#include "platform/messages.h"

namespace kv {

namespace error = platform::error;

bool IsGone(platform::Error result) { return result == error::fileNotFound || result == error::keyDeleted; }

std::string MissingRegistryText() {
    const std::string directory = platform::MissingRegistryDirectory();
    if (directory.empty()) return "";
    return fmt::format("there is no {}: is the agent installed? KVAGENT_STATE_DIR names another directory", directory);
}

std::string RegistryFailureText(platform::Error failure) {
    std::string missing = MissingRegistryText();
    if (!missing.empty()) return missing;
    const std::string text = platform::MessageInLine(failure);
    std::string whole = text.empty() ? fmt::format("error {}", failure) : fmt::format("{} (error {})", text, failure);
    if (failure != error::accessDenied) return whole;
    return fmt::format("{}; it takes the rights of {}", whole, platform::RegistryOwner());
}

}  // namespace kv
