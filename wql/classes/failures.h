// What a query says when the service manager does not answer as it should, or a file cannot be read.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "wql/wmi_class.h"

namespace kv::wql {

/// The negated errno value of a call in words, for notices: "asking the service manager failed: Permission denied".
std::string ManagerFailureText(int failure);

/// The status that stands for an errno value: accessDenied, timedOut, else providerFailure.
WmiStatus StatusOfFailure(int failure);

/// Gives a notice of what was lost, with the reason: "Timers were left out".
void AddManagerNotice(int failure, std::string_view loss, const Gathering& gathering);

/// Ends a query for which the manager gave a failure, with a notice of what was lost: accessDenied, timedOut, else
/// providerFailure, which also stands for a manager that is not there.
WmiStatus FailedManager(int failure, std::string_view loss, const Gathering& gathering);

/// Why a file could not be read, an errno value of platform/linux/system_file.h in words.
std::string FileFailureText(int failure);

/// Ends a query that has just found a file unreadable, with a notice of what was lost: accessDenied if the right is
/// missing, else providerFailure.
WmiStatus FailedFile(const std::string& path, std::string_view loss, const Gathering& gathering);

/// The text of a file that tells a part of what is asked for; empty if there is no such file, or, with a notice of what
/// was lost, if it cannot be read.
std::string ReadPart(const std::string& path, std::string_view loss, const Gathering& gathering);

/// How many processes there are; absent, with a notice, if /proc does not show all.
std::optional<std::uint64_t> CountAllProcesses(const Gathering& gathering);

}  // namespace kv::wql
