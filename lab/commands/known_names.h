// Names that options give, and whether the database has heard of them.
#pragma once

#include <optional>
#include <string>

#include "lab/commands/command_line.h"
#include "lab/store/history.h"

namespace kv::lab {

/// What --agent, --device, --name and --failed ask for. An empty agent, as a script may have it, stands for all.
Filter FilterOf(const Given& given);

/// Throws NotFoundError when the database has not heard of the filter's agent, or no record of its device or its name
/// ever came, each by itself. It tells the nearest name, or some that are known.
void RequireKnown(Store& store, const Filter& filter);

/// The same of a value's name, among those that the records of the filter have.
void RequireKnownMember(Store& store, const Filter& filter, const std::optional<std::string>& member);

/// When the newest record of known names was collected, for when a time holds nothing: "; the newest is of ...", or
/// that the names never came together.
std::string NewestText(Store& store, const Filter& filter);

/// Throws NotFoundError, with the nearest key and then a hint, when the database has not heard of an agent.
void RequireAgent(Store& store, const std::string& key, const std::string& hint = "");

/// Whether a value of the database is called so: as it is stored, as the page names it, or without its row or instance,
/// as in FreeSpace, ifInOctets and .1.3.6.1.2.1.2.2.1.10.
bool IsCalled(const std::string& member, const std::string& name);

/// So many series are searched for a name.
inline constexpr std::int64_t seriesSearched = 5000;

}  // namespace kv::lab
