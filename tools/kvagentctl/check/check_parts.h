// The parts of kvagentctl check. Each adds what it finds, and changes nothing.
#pragma once

#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/hash_table.h"
#include "foundation/server_limit.h"
#include "foundation/text.h"
#include "tools/kvagentctl/check/findings.h"

namespace kv::control {

/// Where the agent's directory monitoring stands, with a slash or backslash at its end; empty when the setting is
/// absent or not usable.
std::u16string InstallDirectory();

/// Others than the owner and the group have no business in a file or directory of the agent. what: as a finding calls
/// it; the path's name stands behind it. wanted: its mode, as chmod takes it. mayBeRead: by others.
void CheckPermissions(Findings& findings, const std::string& what, std::u16string_view path, const char* wanted,
                      bool mayBeRead = false);

/// Each setting in the registry, what stands beside the known ones, and the files and directories that belong to them.
/// False, and no setting is told, when the registry is absent or cannot be read, which is a finding of the severity
/// whenUnreadable.
[[nodiscard]] bool CheckSettings(Findings& findings, Severity whenUnreadable);

/// What the limits for the server allow on this computer: requests, services and the scripts that are there.
void CheckLimits(Findings& findings);

/// What a check of one plan knows beyond the record at hand.
struct PlanContext {
    std::map<std::u16string, std::string> places = {};  // of the names of the records so far
    bool isQueryUnjudged = false;                       // a query could not be judged on this system

    // What was looked up for the records so far: a plan may have 100,000.
    std::map<std::pair<OptionalText, std::u16string>, std::optional<std::u16string>> queryFaults = {};  // by namespace
    std::map<std::u16string, std::vector<Finding>> scriptFindings = {};  // of a script's file; where is empty
    std::u16string install = InstallDirectory();
    ServerLimit scriptLimit = LimitOfScripts();
};

/// One record of a plan; where names it and its workflow.
void CheckRecord(Findings& findings, PlanContext& context, const std::string& where, const HashTable* record);

/// A warning or note for each member of a table that is not among the known ones, nor among those passed over.
void CheckMemberNames(Findings& findings, const std::string& where, const HashTable* table,
                      std::span<const std::u16string_view> known, std::span<const std::u16string_view> passedOver = {});

/// A plan's file: whether the agent would take it, and each workflow and record in it. The path is as platform/files.h
/// takes it, the name as people know it. owner: the slave that it lies there for, "" for the agent itself; absent when
/// only its content can tell.
void CheckPlan(Findings& findings, std::u16string_view path, const std::string& name, const OptionalText& owner);

/// Each of the server's addresses, in the order in which the agent tries them. Asks the server for "/", which changes
/// nothing there.
void CheckServer(Findings& findings);

}  // namespace kv::control
