#include "foundation/registry_failure.h"

#include <cstdint>
#include <filesystem>
#include <fmt/format.h>

#include "platform/clock.h"
#include "platform/console_tool.h"
#include "platform/messages.h"

namespace kv {

namespace {

namespace error = platform::error;
namespace fs = std::filesystem;

/// What the absence of a directory or file of the registry means.
std::string AbsenceText(const std::string& path) {
    return fmt::format("{} does not exist (is the agent installed, and KVAGENT_STATE_DIR right?)", path);
}

/// Whether the registry may be well in a moment. A value that is too long stays so.
bool MayPass(platform::Error failure) {
    return failure != error::success && !IsGone(failure) && failure != error::accessDenied &&
           failure != error::databaseCorrupt && failure != error::moreData;
}

}  // namespace

bool IsGone(platform::Error result) { return result == error::fileNotFound || result == error::keyDeleted; }

platform::Error AskForAMinute(const std::function<platform::Error()>& read,
                              const std::function<void(platform::Error)>& tell) {
    const platform::ClockOperations& clock = platform::Clock();
    const std::uint64_t end = clock.GetTickCount64() + 60000;  // a question alone may take seconds
    platform::Error failure = read();
    if (MayPass(failure)) tell(failure);
    while (MayPass(failure) && clock.GetTickCount64() < end) {
        clock.Sleep(1000);
        failure = read();
    }
    return failure;
}

std::string MissingRegistryText() {
    const std::string directory = platform::MissingRegistryDirectory();
    if (directory.empty()) return "";
    std::error_code unused;
    if (!fs::exists(directory, unused)) return AbsenceText(directory);
    return directory + " is not a directory; KVAGENT_STATE_DIR is to name the directory of the registry";
}

std::string EmptyRegistryText() {
    if (std::string missing = MissingRegistryText(); !missing.empty()) return missing;
    const std::string file = platform::RegistryFile();
    std::error_code unused;  // what may not be looked at is not known to be missing
    const bool isMissing = !file.empty() && fs::status(file, unused).type() == fs::file_type::not_found;
    return isMissing ? AbsenceText(file) : std::string();
}

bool IsRegistryNew() { return MissingRegistryText().empty() && !EmptyRegistryText().empty(); }

std::string RegistryFailureText(platform::Error failure) {
    if (std::string why = IsGone(failure) ? EmptyRegistryText() : MissingRegistryText(); !why.empty()) return why;
    const std::string file = platform::RegistryFile();
    if (const std::string fault = platform::RegistryFileFault(failure); !fault.empty()) return file + " " + fault;
    const std::string text = platform::MessageInLine(failure);
    const std::string whole =
        text.empty() ? fmt::format("error {}", failure) : fmt::format("{} (error {})", text, failure);
    std::string named = file.empty() ? whole : fmt::format("{}: {}", file, whole);
    if (failure != error::accessDenied) return named;
    return fmt::format("{}; {}", named, platform::DeniedAccessText());
}

}  // namespace kv
