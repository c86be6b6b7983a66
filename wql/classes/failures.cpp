#include "wql/classes/failures.h"

#include <cerrno>
#include <fmt/format.h>
#include <system_error>
#include <utility>

#include "facts/processes/process_files.h"
#include "facts/system_text.h"
#include "platform/linux/systemd/units.h"

namespace kv::wql {

std::string ManagerFailureText(int failure) {
    const char* what = platform::systemd::IsAbsent(failure) ? "the service manager cannot be reached"
                                                            : "asking the service manager failed";
    return fmt::format("{}: {}", what, std::generic_category().message(-failure));
}

WmiStatus StatusOfFailure(int failure) {
    if (failure == ETIMEDOUT) return wmi_status::timedOut;
    return failure == EACCES || failure == EPERM ? wmi_status::accessDenied : wmi_status::providerFailure;
}

void AddManagerNotice(int failure, std::string_view loss, const Gathering& gathering) {
    gathering.notice(fmt::format("{}; {}", loss, ManagerFailureText(failure)));
}

WmiStatus FailedManager(int failure, std::string_view loss, const Gathering& gathering) {
    AddManagerNotice(failure, loss, gathering);
    return StatusOfFailure(-failure);
}

std::string FileFailureText(int failure) {
    return failure == EINVAL ? "it is not an ordinary file" : std::generic_category().message(failure);
}

WmiStatus FailedFile(const std::string& path, std::string_view loss, const Gathering& gathering) {
    const int failure = platform::OpenOrdinaryFile(path) ? EIO : errno;
    gathering.notice(fmt::format("{} were left out; {} cannot be read: {}", loss, path, FileFailureText(failure)));
    return failure == EACCES ? wmi_status::accessDenied : wmi_status::providerFailure;
}

std::string ReadPart(const std::string& path, std::string_view loss, const Gathering& gathering) {
    std::optional<std::string> text = facts::ReadFileIfThere(path);
    if (!text) FailedFile(path, loss, gathering);
    return std::move(text).value_or(std::string());
}

std::optional<std::uint64_t> CountAllProcesses(const Gathering& gathering) {
    const std::optional<std::uint64_t> count = facts::CountProcesses();
    if (!count) gathering.notice("The number of processes was left out: /proc does not show those of other users");
    return count;
}

}  // namespace kv::wql
