// One scheduled workflow entry turned into record files.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/hash_table.h"
#include "foundation/text.h"

namespace kv {

/// Timer callback: runs the records of the workflow entry whose index in gv_sortVec the argument points to (int32).
void CollectAndSaveData(void* argument);

/// Runs one WMI query and writes its record file.
void ExecuteWMIQuery(const OptionalText& nameSpace, std::u16string_view wmiQuery, std::u16string_view name);

/// Polls one SNMP record and writes its record file, also when the poll failed. With isTest "true" (any case) the
/// record is a request, and the result is posted to the server in place of a file.
void CollectSNMPData(const HashTable* record, std::u16string_view isTest);

/// Runs a script of "..\conf\scripts\"; with viewOutput "true" (any case) its output becomes a record file. 0 always.
int ExecuteScript(std::u16string_view fileName, std::u16string_view commandLineParam, const OptionalText& viewOutput);

/// The file that a process prints into, and how many bytes it may come to.
struct OutputBound {
    std::u16string path;
    std::uint64_t bytes = 0;
};

/// Starts a command line made by the platform and waits for it; 1 when it ended in time with an exit code that counts
/// as success (0, 1641, 3010), or was not to be waited for, else 0. workingDirectory may be none. While it is waited
/// for it is ended, and the result is 0, when its output grows beyond a bound.
int execute(const OptionalText& workingDirectory, std::u16string_view commandLine, std::u16string& remarks,
            std::uint32_t waitMinutes, bool wait, const std::optional<OutputBound>& bound = std::nullopt);

}  // namespace kv
