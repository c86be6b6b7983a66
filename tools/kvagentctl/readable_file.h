// Files of the agent that a verb reads, and what is told when one cannot be read.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/hash_table.h"
#include "jsontext/hash_json.h"
#include "platform/console_tool.h"
#include "platform/errors.h"

namespace kv::control {

/// A path as this system names it, in UTF-8.
std::string NativeName(std::u16string_view path);

/// Why a path cannot be read as a file, going on from its name: "is a directory", "may not be read; ...". Empty when it
/// can. Waits for nothing, whatever stands at the path.
std::string FileFault(std::u16string_view path);

/// The same for a file of the agent's own, with what to do about something else in its place.
std::string OwnFileFault(std::u16string_view path);

/// Why something failed, as the end of a sentence: the system's text without its full stop, and for denied access whose
/// rights it takes.
std::string ReasonText(platform::Error failure);

/// What reading a plan came to.
struct PlanFile {
    HashTablePtr document;              // null after a failure
    std::string failure;                // stands behind the plan's name and a colon; empty after a success
    std::string notice;                 // what was passed over, likewise
    std::vector<RepeatedKey> repeated;  // of the members that the agent reads
};

/// Throws std::bad_alloc.
PlanFile ReadPlanFile(std::u16string_view path);

/// A plan as somebody names it: a file, or a pipe, whose text is kept in a file meanwhile.
class NamedPlan {
  public:
    /// Reads a pipe to its end. Throws std::runtime_error when that fails, or when it brings more than a plan may have.
    explicit NamedPlan(const std::string& name);

    /// Of the file. It may be absent or something else.
    const std::u16string& path() const { return path_; }

  private:
    std::u16string path_;
    std::optional<platform::TemporaryFolder> folder_;
};

}  // namespace kv::control
